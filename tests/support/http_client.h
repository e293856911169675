#pragma once

#include <map>
#include <string>
#include <vector>

namespace vistrel::testing {

struct HttpResponse {
    long status = 0;  // 0 when no answer came (connection refused, time-out)
    std::string body;
    std::map<std::string, std::string> headers;  // names lower-cased
};

// One part of a multipart/form-data body.
struct FormPart {
    std::string name;
    std::string content;
    std::string file_name;  // empty: a plain field
};

// A blocking HTTP client (libcurl) for tests; talks to loopback only.
class HttpClient {
  public:
    explicit HttpClient(std::string base_url) : base_url_(std::move(base_url)) {}

    // `headers` as "Name: value"; `ca_file` trusts that certificate for https addresses.
    HttpResponse get(const std::string& path_and_query,
                     const std::vector<std::string>& headers = {},
                     const std::string& ca_file = {}) const;
    HttpResponse post(const std::string& path, const std::string& body,
                      const std::string& content_type = "application/json") const;
    HttpResponse request(const std::string& method, const std::string& path,
                         const std::string& body = {}) const;
    HttpResponse post_form(const std::string& path, const std::vector<FormPart>& parts,
                           const std::string& ca_file = {}) const;

    const std::string& base_url() const { return base_url_; }

  private:
    std::string base_url_;
};

// Percent-encodes a query value.
std::string url_encode(const std::string& text);

}  // namespace vistrel::testing
