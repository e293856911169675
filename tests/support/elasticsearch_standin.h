#pragma once

#include <microhttpd.h>

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace vistrel::testing {

// One request as the stand-in received it.
struct RecordedRequest {
    std::string method;                          // "GET", "DELETE", "POST"...
    std::string path;                            // "/vistrel*/_delete_by_query"
    std::string query;                           // "a=1&b=2" (decoded values), empty when none
    std::map<std::string, std::string> headers;  // names in lower case
    std::string body;

    // The value of a header, by case-insensitive name; nullopt when it was not sent.
    std::optional<std::string> header(const std::string& name) const;
    // path, then "?" and the query when there is one.
    std::string target() const;
};

// A stand-in for the Elasticsearch server: an HTTP server on 127.0.0.1, on a free port chosen
// by the system, that records every request and answers each with the status and body set by
// the test (default 200 and "{}"). Thread-safe; the server runs until destruction.
//
//     ElasticsearchStandIn search;
//     search.answer(503, R"({"status":"red"})");
//     ... code under test talks to search.address() ...
//     ASSERT_EQ(search.requests().size(), 1u);
//     EXPECT_EQ(search.requests()[0].path, "/_cluster/health");
class ElasticsearchStandIn {
  public:
    // Starts listening; throws std::runtime_error when the server cannot start.
    ElasticsearchStandIn();
    ~ElasticsearchStandIn();
    ElasticsearchStandIn(const ElasticsearchStandIn&) = delete;
    ElasticsearchStandIn& operator=(const ElasticsearchStandIn&) = delete;

    uint16_t port() const { return port_; }
    // "http://127.0.0.1:<port>", without a trailing "/".
    std::string address() const;

    // The answer to every later request.
    void answer(int status, std::string body);

    // Copies of the requests received so far, oldest first.
    std::vector<RecordedRequest> requests() const;
    // Forgets the recorded requests.
    void clear();

    // A loopback port on which nothing listens (bound once, then released): an unreachable
    // server for failure tests.
    static uint16_t closed_port();

  private:
    static MHD_Result on_request(void* self, MHD_Connection* connection, const char* url,
                                 const char* method, const char* version, const char* upload,
                                 size_t* upload_size, void** context);
    static void on_completed(void* self, MHD_Connection* connection, void** context,
                             MHD_RequestTerminationCode code);

    MHD_Result handle(MHD_Connection* connection, const char* url, const char* method,
                      const char* upload, size_t* upload_size, void** context);

    mutable std::mutex mutex_;
    std::vector<RecordedRequest> requests_;
    int status_ = 200;
    std::string body_ = "{}";
    MHD_Daemon* daemon_ = nullptr;
    uint16_t port_ = 0;
};

}  // namespace vistrel::testing
