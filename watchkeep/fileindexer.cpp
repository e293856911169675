#include "fileindexer.h"

#include <filesystem>

#include "filereporter.h"
#include "filesummary.h"
#include "index/indexer.h"
#include "startup/logger.h"

namespace vistrel::watchkeep {

FileIndexer::FileIndexer(std::vector<Source> sources, FileReporter& reporter)
    : sources_(std::move(sources)), reporter_(reporter) {}

FileIndexer::~FileIndexer() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    cancel_ = true;
    wake_.notify_all();
    if (thread_.joinable()) thread_.join();
}

void FileIndexer::add(size_t source, const std::string& path) {
    {
        std::lock_guard lock(mutex_);
        queue_.emplace_back(source, path);
    }
    wake_.notify_all();
}

void FileIndexer::start() {
    thread_ = std::thread(&FileIndexer::run, this);
}

void FileIndexer::stop(std::chrono::milliseconds budget) {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    // A watchdog turns the budget into a cancel of the file being read.
    std::mutex watchdog_mutex;
    std::condition_variable watchdog_wake;
    bool joined = false;
    std::thread watchdog([&] {
        std::unique_lock lock(watchdog_mutex);
        if (!watchdog_wake.wait_for(lock, budget, [&] { return joined; })) cancel_ = true;
    });
    if (thread_.joinable()) thread_.join();
    {
        std::lock_guard lock(watchdog_mutex);
        joined = true;
    }
    watchdog_wake.notify_all();
    watchdog.join();
    for (auto& source : sources_) {
        if (source.indexer) source.indexer->finish();
    }
}

void FileIndexer::run() {
    std::unique_lock lock(mutex_);
    for (;;) {
        wake_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
        if (queue_.empty()) return;
        auto [source, path] = queue_.front();
        queue_.pop_front();
        lock.unlock();
        take(source, path);
        lock.lock();
        if (queue_.empty() && on_idle_) {
            lock.unlock();
            on_idle_();
            lock.lock();
        }
    }
}

void FileIndexer::take(size_t source, const std::string& path) {
    if (cancel_) {
        LOG_WARNING("Not indexed (stopped): %s", path.c_str());
        return;
    }
    const Source& from = sources_[source];
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error)) {
        LOG_WARNING("%s is gone before it could be read: not indexed", path.c_str());
        return;
    }
    std::optional<FileSummary> summary = read_capture_file(path, from.indexer.get(), &cancel_);
    if (!summary) {
        LOG_WARNING("%s is not a pcap or pcapng file: not indexed", path.c_str());
        return;
    }
    if (!summary->complete) {
        LOG_WARNING("Stopped while reading %s (%llu packets indexed): not registered", path.c_str(),
                    static_cast<unsigned long long>(summary->packets));
        return;
    }
    LOG_NORMAL("Read %s: %llu packets", path.c_str(),
               static_cast<unsigned long long>(summary->packets));
    reporter_.report(*summary, from.name);
    ++files_done_;
}

}  // namespace vistrel::watchkeep
