#include "filereporter.h"

#include <curl/curl.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>

#include "startup/logger.h"

namespace vistrel::watchkeep {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kRequestTimeout{4000};
constexpr milliseconds kFirstRetry{1000};
constexpr milliseconds kLongestRetry{30000};

struct CurlDeleter {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};

std::string escaped(const std::string& text) {
    char* value = curl_easy_escape(nullptr, text.c_str(), static_cast<int>(text.size()));
    if (value == nullptr) return {};
    std::string result(value);
    curl_free(value);
    return result;
}

size_t keep_body(char* data, size_t size, size_t count, void* body) {
    auto* text = static_cast<std::string*>(body);
    if (text->size() < 512) text->append(data, std::min<size_t>(size * count, 512));
    return size * count;
}

}  // namespace

FileReporter::FileReporter(std::string server_url, std::string es_index, std::string spool_folder,
                           std::string server_certificate)
    : server_url_(std::move(server_url)),
      es_index_(std::move(es_index)),
      spool_path_(spool_folder + "/reports"),
      server_certificate_(std::move(server_certificate)) {
    std::error_code error;
    std::filesystem::create_directories(spool_folder, error);
    load();
    thread_ = std::thread(&FileReporter::run, this);
}

FileReporter::~FileReporter() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
        finish_deadline_ = Clock::now();
    }
    wake_.notify_all();
    if (thread_.joinable()) thread_.join();
}

std::string FileReporter::request_of(const FileSummary& summary, const std::string& source,
                                     const std::string& es_index) {
    return "/addFile?file_path=" + escaped(summary.path) +
           "&start_ts=" + std::to_string(summary.first_ns) +
           "&end_ts=" + std::to_string(summary.last_ns) +
           "&n_packets=" + std::to_string(summary.packets) + "&source=" + escaped(source) +
           "&es_index=" + escaped(es_index);
}

void FileReporter::report(const FileSummary& summary, const std::string& source) {
    if (summary.packets == 0) {
        LOG_INFO("No packet in %s: not registered", summary.path.c_str());
        return;
    }
    {
        std::lock_guard lock(mutex_);
        pending_.push_back(request_of(summary, source, es_index_));
        save_locked();
    }
    wake_.notify_all();
}

bool FileReporter::finish(milliseconds budget) {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
        finish_deadline_ = Clock::now() + budget;
    }
    wake_.notify_all();
    if (thread_.joinable()) thread_.join();
    std::lock_guard lock(mutex_);
    if (!pending_.empty()) {
        LOG_WARNING("%zu file reports wait in %s for the next run", pending_.size(),
                    spool_path_.c_str());
    }
    return pending_.empty();
}

void FileReporter::run() {
    milliseconds retry = kFirstRetry;
    bool outage = false;
    std::unique_lock lock(mutex_);
    for (;;) {
        wake_.wait(lock, [this] { return stopping_ || !pending_.empty(); });
        if (pending_.empty()) break;
        milliseconds timeout = kRequestTimeout;
        if (stopping_) {
            auto left = std::chrono::duration_cast<milliseconds>(finish_deadline_ - Clock::now());
            if (left <= milliseconds(0)) break;
            timeout = std::min(timeout, left);
        }
        const std::string request = pending_.front();
        lock.unlock();
        const Outcome outcome = send(request, timeout);
        lock.lock();
        if (outcome == Outcome::kUnreachable) {
            if (!outage) {
                LOG_WARNING("The server at %s does not take file reports; %zu wait in %s",
                            server_url_.c_str(), pending_.size(), spool_path_.c_str());
            }
            outage = true;
            if (stopping_) break;
            wake_.wait_for(lock, retry, [this] { return stopping_; });
            retry = std::min(retry * 2, kLongestRetry);
            continue;
        }
        if (outage) LOG_NORMAL("The server at %s takes file reports again", server_url_.c_str());
        outage = false;
        retry = kFirstRetry;
        // The front is still `request`: only this thread removes reports.
        pending_.pop_front();
        save_locked();
    }
}

FileReporter::Outcome FileReporter::send(const std::string& request, milliseconds timeout) const {
    std::unique_ptr<CURL, CurlDeleter> handle(curl_easy_init());
    if (!handle) return Outcome::kUnreachable;
    const std::string url = server_url_ + request;
    std::string body;
    curl_easy_setopt(handle.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle.get(), CURLOPT_HTTPGET, 1L);
    curl_easy_setopt(handle.get(), CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle.get(), CURLOPT_TIMEOUT_MS, static_cast<long>(timeout.count()));
    curl_easy_setopt(handle.get(), CURLOPT_CONNECTTIMEOUT_MS,
                     static_cast<long>(std::min<int64_t>(timeout.count(), 2000)));
    curl_easy_setopt(handle.get(), CURLOPT_WRITEFUNCTION, keep_body);
    curl_easy_setopt(handle.get(), CURLOPT_WRITEDATA, &body);
    if (!server_certificate_.empty()) {
        // The server's own certificate is the only trust anchor, so the name it was issued
        // for need not be the address the engine reaches it by (usually loopback).
        curl_easy_setopt(handle.get(), CURLOPT_CAINFO, server_certificate_.c_str());
        curl_easy_setopt(handle.get(), CURLOPT_SSL_VERIFYHOST, 0L);
    }
    const CURLcode result = curl_easy_perform(handle.get());
    if (result != CURLE_OK) {
        LOG_DEBUG("GET %s failed: %s", url.c_str(), curl_easy_strerror(result));
        return Outcome::kUnreachable;
    }
    long status = 0;
    curl_easy_getinfo(handle.get(), CURLINFO_RESPONSE_CODE, &status);
    if (status >= 200 && status < 300) {
        LOG_NORMAL("Registered: %s", body.c_str());
        return Outcome::kTaken;
    }
    if (status >= 400 && status < 500) {
        // Sending it again would get the same answer.
        LOG_ERROR("The server refused %s with %ld: %s", url.c_str(), status, body.c_str());
        return Outcome::kRefused;
    }
    return Outcome::kUnreachable;
}

void FileReporter::save_locked() {
    std::error_code error;
    if (pending_.empty()) {
        std::filesystem::remove(spool_path_, error);
        return;
    }
    const std::string temporary = spool_path_ + ".new";
    {
        std::ofstream file(temporary, std::ios::trunc);
        for (const auto& request : pending_) file << request << '\n';
        file.flush();
        if (!file) {
            LOG_ERROR("Could not write %s: the %zu waiting file reports live in memory only",
                      temporary.c_str(), pending_.size());
            std::filesystem::remove(temporary, error);
            return;
        }
    }
    std::filesystem::rename(temporary, spool_path_, error);
    if (error) LOG_ERROR("Could not replace %s: %s", spool_path_.c_str(), error.message().c_str());
}

void FileReporter::load() {
    std::ifstream file(spool_path_);
    for (std::string line; std::getline(file, line);) {
        if (line.rfind("/addFile?", 0) == 0) pending_.push_back(line);
    }
    if (!pending_.empty()) {
        LOG_NORMAL("%zu file reports of an earlier run wait in %s; they go first", pending_.size(),
                   spool_path_.c_str());
    }
}

}  // namespace vistrel::watchkeep
