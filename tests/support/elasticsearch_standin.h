#pragma once

#include <microhttpd.h>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <limits>
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
    std::map<std::string, std::string> headers;  // names as sent
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
//
// POST requests whose path ends in "/_bulk" are read as bulk requests: their documents are
// recorded by index and each is answered as Elasticsearch does (an "items" entry per document),
// unless the test asks for a failure (bulk_status, bulk_max_documents, bulk_item_error,
// bulk_silent) or stops the server (stop, then start again on the same port).
class ElasticsearchStandIn {
  public:
    // Starts listening; throws std::runtime_error when the server cannot start.
    ElasticsearchStandIn() { listen(0); }
    ~ElasticsearchStandIn() { stop(); }
    ElasticsearchStandIn(const ElasticsearchStandIn&) = delete;
    ElasticsearchStandIn& operator=(const ElasticsearchStandIn&) = delete;

    uint16_t port() const { return port_; }
    // "http://127.0.0.1:<port>", without a trailing "/".
    std::string address() const { return "http://127.0.0.1:" + std::to_string(port_); }

    // The answer to every later request.
    void answer(int status, std::string body);

    // Copies of the requests received so far, oldest first.
    std::vector<RecordedRequest> requests() const { return locked(requests_); }
    // Forgets the recorded requests and bulk documents.
    void clear();

    // The next `count` bulk requests are answered with `status` (413, 429, 500, 503...) and an
    // error body; their documents are not recorded.
    void bulk_status(int status, size_t count = std::numeric_limits<size_t>::max());
    // Bulk requests of more than `documents` documents are answered 413 (0: no limit).
    void bulk_max_documents(size_t documents) { set(bulk_max_documents_, documents); }
    // Documents whose text contains `needle` are refused one by one (item status 400, a
    // mapper_parsing_exception with a reason); the others of the request are recorded. An
    // empty needle refuses none.
    void bulk_item_error(std::string needle) { set(bulk_item_error_, std::move(needle)); }
    // While silent, bulk requests are read but not answered (the client times out); they are
    // answered normally when silence ends.
    void bulk_silent(bool silent);
    // Counts documents without keeping them or the requests (long benchmarks).
    void bulk_discard(bool discard) { set(bulk_discard_, discard); }

    // Documents recorded by index name, each index in arrival order. A document sent again
    // with the "_id" of one already recorded replaces it in place, as Elasticsearch does.
    std::map<std::string, std::vector<std::string>> bulk_documents() const {
        return locked(bulk_documents_);
    }
    // Documents received and accepted, also those discarded.
    size_t bulk_document_count() const { return locked(bulk_document_count_); }
    // Bulk requests answered, whatever the answer.
    size_t bulk_request_count() const { return locked(bulk_request_count_); }
    // Bulk requests held unanswered by silence right now.
    size_t bulk_held_count() const { return locked(bulk_held_count_); }
    // Documents that replaced one with the same "_id".
    size_t bulk_replaced_count() const { return locked(bulk_replaced_count_); }

    // Stops listening: connections are refused until start(). Requests in progress end.
    void stop();
    // Listens again on the same port; throws std::runtime_error when it cannot.
    void start();

    // A loopback port on which nothing listens (a stand-in's, once it is gone): an unreachable
    // server for failure tests.
    static uint16_t closed_port() { return ElasticsearchStandIn().port(); }

  private:
    template <typename T>
    T locked(const T& member) const {
        std::lock_guard lock(mutex_);
        return member;
    }
    template <typename T>
    void set(T& member, T value) {
        std::lock_guard lock(mutex_);
        member = std::move(value);
    }

    static MHD_Result on_request(void* self, MHD_Connection* connection, const char* url,
                                 const char* method, const char* version, const char* upload,
                                 size_t* upload_size, void** context);
    static void on_completed(void* self, MHD_Connection* connection, void** context,
                             MHD_RequestTerminationCode code);

    MHD_Result handle(MHD_Connection* connection, const char* url, const char* method,
                      const char* upload, size_t* upload_size, void** context);
    // The status and body of a bulk request, recording what it accepts. Called locked.
    std::pair<int, std::string> answer_bulk(const RecordedRequest& request);
    void listen(uint16_t port);

    mutable std::mutex mutex_;
    std::condition_variable silence_ended_;
    std::vector<RecordedRequest> requests_;
    int status_ = 200;
    std::string body_ = "{}";
    int bulk_status_ = 200;
    size_t bulk_status_count_ = 0;
    size_t bulk_max_documents_ = 0;
    std::string bulk_item_error_;
    bool bulk_silent_ = false;
    bool bulk_discard_ = false;
    bool stopping_ = false;
    std::map<std::string, std::vector<std::string>> bulk_documents_;
    size_t bulk_document_count_ = 0;
    size_t bulk_request_count_ = 0;
    size_t bulk_replaced_count_ = 0;
    size_t bulk_held_count_ = 0;
    std::map<std::pair<std::string, std::string>, size_t> bulk_positions_;  // (index, id)
    MHD_Daemon* daemon_ = nullptr;
    uint16_t port_ = 0;
};

}  // namespace vistrel::testing
