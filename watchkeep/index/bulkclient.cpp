#include "index/bulkclient.h"

namespace vistrel::watchkeep {

namespace {

size_t collect(char* data, size_t size, size_t count, void* target) {
    static_cast<std::string*>(target)->append(data, size * count);
    return size * count;
}

int progress(void* abort, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    return static_cast<const std::atomic<bool>*>(abort)->load() ? 1 : 0;
}

}  // namespace

BulkClient::BulkClient(std::string url, long timeout_ms, const std::atomic<bool>& abort)
    : url_(std::move(url)), timeout_ms_(timeout_ms), abort_(abort) {
    headers_.reset(curl_slist_append(nullptr, "Content-Type: application/x-ndjson"));
    // A bulk body is sent at once; "Expect: 100-continue" would only add a round trip.
    headers_.reset(curl_slist_append(headers_.release(), "Expect:"));
}

BulkReply BulkClient::post(const std::string& body) {
    BulkReply reply;
    if (!handle_) handle_.reset(curl_easy_init());
    CURL* handle = handle_.get();
    if (handle == nullptr) {
        reply.error = "no HTTP handle";
        return reply;
    }
    curl_easy_setopt(handle, CURLOPT_URL, url_.c_str());
    curl_easy_setopt(handle, CURLOPT_POST, 1L);
    curl_easy_setopt(handle, CURLOPT_POSTFIELDS, body.data());
    curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers_.get());
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &reply.body);
    curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, timeout_ms_);
    curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT_MS, timeout_ms_ < 5000 ? timeout_ms_ : 5000L);
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(handle, CURLOPT_XFERINFOFUNCTION, progress);
    curl_easy_setopt(handle, CURLOPT_XFERINFODATA, &abort_);
    CURLcode result = curl_easy_perform(handle);
    if (result != CURLE_OK) {
        reply.error = curl_easy_strerror(result);
        // A broken connection is not reused.
        handle_.reset();
        return reply;
    }
    reply.answered = true;
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &reply.status);
    return reply;
}

}  // namespace vistrel::watchkeep
