#include "support/http_client.h"

#include <curl/curl.h>

#include <algorithm>
#include <memory>

namespace vistrel::testing {

namespace {

struct CurlDeleter {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};

size_t append_body(char* data, size_t size, size_t count, void* target) {
    static_cast<std::string*>(target)->append(data, size * count);
    return size * count;
}

std::unique_ptr<CURL, CurlDeleter> make_handle(const std::string& url, HttpResponse& response) {
    std::unique_ptr<CURL, CurlDeleter> handle(curl_easy_init());
    curl_easy_setopt(handle.get(), CURLOPT_URL, url.c_str());
    // Paths go out as written: "../" is not squashed before it reaches the server.
    curl_easy_setopt(handle.get(), CURLOPT_PATH_AS_IS, 1L);
    curl_easy_setopt(handle.get(), CURLOPT_NOPROXY, "*");
    curl_easy_setopt(handle.get(), CURLOPT_TIMEOUT, 120L);
    curl_easy_setopt(handle.get(), CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle.get(), CURLOPT_WRITEFUNCTION, append_body);
    curl_easy_setopt(handle.get(), CURLOPT_WRITEDATA, &response.body);
    return handle;
}

void perform(CURL* handle, HttpResponse& response) {
    if (curl_easy_perform(handle) != CURLE_OK) return;
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &response.status);
    for (curl_header* header = nullptr;
         (header = curl_easy_nextheader(handle, CURLH_HEADER, -1, header)) != nullptr;) {
        std::string name = header->name;
        std::ranges::transform(name, name.begin(), ::tolower);
        response.headers[name] = header->value;
    }
}

// One transfer. `method` replaces the default (GET, or POST when there is a body).
HttpResponse transfer(const std::string& url, const std::string& method, const std::string* body,
                      const std::vector<std::string>& headers, const std::string& ca_file = {}) {
    HttpResponse response;
    auto handle = make_handle(url, response);
    if (!method.empty()) curl_easy_setopt(handle.get(), CURLOPT_CUSTOMREQUEST, method.c_str());
    if (body != nullptr) {
        curl_easy_setopt(handle.get(), CURLOPT_POSTFIELDS, body->data());
        curl_easy_setopt(handle.get(), CURLOPT_POSTFIELDSIZE, static_cast<long>(body->size()));
    }
    curl_slist* list = nullptr;
    for (const std::string& header : headers) list = curl_slist_append(list, header.c_str());
    if (list != nullptr) curl_easy_setopt(handle.get(), CURLOPT_HTTPHEADER, list);
    if (!ca_file.empty()) curl_easy_setopt(handle.get(), CURLOPT_CAINFO, ca_file.c_str());
    perform(handle.get(), response);
    curl_slist_free_all(list);
    return response;
}

}  // namespace

HttpResponse HttpClient::get(const std::string& path_and_query,
                             const std::vector<std::string>& headers,
                             const std::string& ca_file) const {
    return transfer(base_url_ + path_and_query, {}, nullptr, headers, ca_file);
}

HttpResponse HttpClient::post(const std::string& path, const std::string& body,
                              const std::string& content_type) const {
    return transfer(base_url_ + path, {}, &body, {"Content-Type: " + content_type});
}

HttpResponse HttpClient::request(const std::string& method, const std::string& path,
                                 const std::string& body) const {
    return transfer(base_url_ + path, method, body.empty() ? nullptr : &body, {});
}

HttpResponse HttpClient::post_form(const std::string& path, const std::vector<FormPart>& parts,
                                   const std::string& ca_file) const {
    HttpResponse response;
    auto handle = make_handle(base_url_ + path, response);
    if (!ca_file.empty()) curl_easy_setopt(handle.get(), CURLOPT_CAINFO, ca_file.c_str());
    curl_mime* form = curl_mime_init(handle.get());
    for (const FormPart& part : parts) {
        curl_mimepart* field = curl_mime_addpart(form);
        curl_mime_name(field, part.name.c_str());
        curl_mime_data(field, part.content.data(), part.content.size());
        if (!part.file_name.empty()) curl_mime_filename(field, part.file_name.c_str());
    }
    curl_easy_setopt(handle.get(), CURLOPT_MIMEPOST, form);
    perform(handle.get(), response);
    curl_mime_free(form);
    return response;
}

std::string url_encode(const std::string& text) {
    std::unique_ptr<char, decltype(&curl_free)> escaped(
        curl_easy_escape(nullptr, text.data(), static_cast<int>(text.size())), curl_free);
    return escaped ? escaped.get() : "";
}

}  // namespace vistrel::testing
