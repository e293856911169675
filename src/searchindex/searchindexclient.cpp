#include "searchindex/searchindexclient.h"

#include <curl/curl.h>

#include <cstdio>
#include <memory>

namespace vistrel::searchindex {

namespace {

// URLs and bodies are formatted into buffers of this size; longer texts are cut.
constexpr size_t kBufferSize = 1024;
// The "user:password" text of basic authentication is cut to this size.
constexpr size_t kCredentialsSize = 64;

struct EasyCleanup {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
using EasyHandle = std::unique_ptr<CURL, EasyCleanup>;

struct ListFree {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using HeaderList = std::unique_ptr<curl_slist, ListFree>;

void append(HeaderList& list, const char* header) {
    // On failure curl_slist_append returns null and leaves the list as it was.
    curl_slist* head = curl_slist_append(list.get(), header);
    if (head != nullptr) {
        (void)list.release();
        list.reset(head);
    }
}

bool uses_tls(const std::string& address) {
    return address.compare(0, 5, "https") == 0;
}

size_t discard_body(char* /*data*/, size_t size, size_t count, void* /*context*/) {
    return size * count;
}

// The set-up shared by every request: URL, basic authentication, no certificate checks for
// "https" addresses (no CA file is ever configured).
void prepare(CURL* handle, const char* url, const Credentials& credentials,
             const std::string& address, char (&userpwd)[kCredentialsSize]) {
    curl_easy_setopt(handle, CURLOPT_URL, url);
    // Requests run on several threads at once: libcurl must not swap the process-wide SIGPIPE
    // disposition around each transfer (one thread could restore it under another's feet).
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    if (!credentials.user.empty() || !credentials.password.empty()) {
        std::snprintf(userpwd, sizeof userpwd, "%s:%s", credentials.user.c_str(),
                      credentials.password.c_str());
        curl_easy_setopt(handle, CURLOPT_USERPWD, userpwd);
        curl_easy_setopt(handle, CURLOPT_HTTPAUTH, CURLAUTH_BASIC);
    }
    if (uses_tls(address)) {
        curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 0L);
        curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, 0L);
    }
}

}  // namespace

std::string base_address(const std::string& host, const std::string& port) {
    return "http://" + host + ":" + port;
}

std::string bulk_address(const std::string& host, const std::string& port) {
    return base_address(host, port) + "/_bulk";
}

bool check_health(const Credentials& credentials, const std::string& address) {
    if (address.empty()) return true;
    EasyHandle handle(curl_easy_init());
    if (handle == nullptr) return true;
    char url[kBufferSize];
    std::snprintf(url, sizeof url, "%s/%s", address.c_str(), "_cluster/health");
    char userpwd[kCredentialsSize];
    prepare(handle.get(), url, credentials, address, userpwd);
    curl_easy_setopt(handle.get(), CURLOPT_HTTPGET, 1L);
    // The health document is of no use to the server; keep it off the console.
    curl_easy_setopt(handle.get(), CURLOPT_WRITEFUNCTION, discard_body);
    return curl_easy_perform(handle.get()) == CURLE_OK;
}

bool delete_index(const Credentials& credentials, const std::string& address,
                  const std::string& index) {
    EasyHandle handle(curl_easy_init());
    if (handle == nullptr) return true;
    char url[kBufferSize];
    std::snprintf(url, sizeof url, "%s/%s", address.c_str(), index.c_str());
    char userpwd[kCredentialsSize];
    prepare(handle.get(), url, credentials, address, userpwd);
    curl_easy_setopt(handle.get(), CURLOPT_CUSTOMREQUEST, "DELETE");
    return curl_easy_perform(handle.get()) == CURLE_OK;
}

std::optional<std::string> delete_by_query_body(const DeleteByQueryRequest& request) {
    char body[kBufferSize];
    if (request.start && request.end && request.interface) {
        std::snprintf(body, sizeof body,
                      "{\"query\": {\"bool\": {\"must\": {\"term\": {\"INTERFACE\": \"%s\"}},"
                      "\"filter\": {\"range\": {\"@timestamp\":{\"gte\": \"%s\",\"lte\": "
                      "\"%s\"}}}}}}",
                      request.interface->c_str(), request.start->c_str(), request.end->c_str());
    } else if (request.start && request.end) {
        std::snprintf(body, sizeof body,
                      "{\"query\": {\"range\" : {\"@timestamp\" : {\"gte\": \"%s\",\"lte\": "
                      "\"%s\"}}}}",
                      request.start->c_str(), request.end->c_str());
    } else if (request.interface) {
        std::snprintf(body, sizeof body, "{ \"query\": { \"match\": { \"INTERFACE\": \"%s\" }}}",
                      request.interface->c_str());
    } else {
        return std::nullopt;
    }
    return std::string(body);
}

std::vector<std::string> delete_by_query_headers(const std::string& address) {
    std::vector<std::string> headers;
    // A response header sent as a request header; harmless, and kept as the server sends it.
    if (uses_tls(address)) headers.push_back("Access-Control-Allow-Origin: *");
    headers.push_back("Content-Type: application/json");
    return headers;
}

bool delete_by_query(const Credentials& credentials, const std::string& address,
                     const DeleteByQueryRequest& request) {
    std::optional<std::string> body = delete_by_query_body(request);
    if (!body) return false;
    EasyHandle handle(curl_easy_init());
    if (handle == nullptr) return true;
    char url[kBufferSize];
    std::snprintf(url, sizeof url, "%s/%s/_delete_by_query", address.c_str(),
                  request.index.value_or("").c_str());
    char userpwd[kCredentialsSize];
    prepare(handle.get(), url, credentials, address, userpwd);

    HeaderList headers;
    for (const std::string& header : delete_by_query_headers(address)) {
        append(headers, header.c_str());
    }
    curl_easy_setopt(handle.get(), CURLOPT_HTTPHEADER, headers.get());
    curl_easy_setopt(handle.get(), CURLOPT_POST, 1L);
    curl_easy_setopt(handle.get(), CURLOPT_POSTFIELDS, body->c_str());
    curl_easy_setopt(handle.get(), CURLOPT_POSTFIELDSIZE, static_cast<long>(body->size()));
    return curl_easy_perform(handle.get()) == CURLE_OK;
}

}  // namespace vistrel::searchindex
