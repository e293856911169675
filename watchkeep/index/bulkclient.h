#pragma once

#include <curl/curl.h>

#include <atomic>
#include <memory>
#include <string>

namespace vistrel::watchkeep {

// What came back from one bulk request.
struct BulkReply {
    bool answered = false;  // false: no connection, time-out or aborted
    long status = 0;
    std::string body;
    std::string error;  // why it was not answered
};

// POSTs NDJSON bodies to the bulk URL over one kept-alive connection. Used by one thread.
class BulkClient {
  public:
    BulkClient(std::string url, long timeout_ms, const std::atomic<bool>& abort);

    BulkReply post(const std::string& body);

  private:
    struct Cleanup {
        void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
        void operator()(curl_slist* list) const { curl_slist_free_all(list); }
    };

    std::string url_;
    long timeout_ms_;
    const std::atomic<bool>& abort_;
    std::unique_ptr<CURL, Cleanup> handle_;
    std::unique_ptr<curl_slist, Cleanup> headers_;
};

}  // namespace vistrel::watchkeep
