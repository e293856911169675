#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace vistrel::watchkeep {

class FileReporter;
class SourceIndexer;

// Capture files that are finished on disk (device files, an uploaded file): one thread reads
// each with the capture readers, feeds its source's indexer and reports it to the server, in
// the order they were handed over.
class FileIndexer {
  public:
    struct Source {
        std::string name;                        // the index rows' "source"
        std::unique_ptr<SourceIndexer> indexer;  // none: the files are only registered
    };

    FileIndexer(std::vector<Source> sources, FileReporter& reporter);
    ~FileIndexer();
    FileIndexer(const FileIndexer&) = delete;
    FileIndexer& operator=(const FileIndexer&) = delete;

    // Thread-safe.
    void add(size_t source, const std::string& path);
    // Called, on the indexing thread, whenever the queue has become empty.
    void on_idle(std::function<void()> callback) { on_idle_ = std::move(callback); }
    void start();
    // Takes the files still queued within `budget` (a file cut short is not registered), then
    // finishes every indexer.
    void stop(std::chrono::milliseconds budget);

    uint64_t files_done() const { return files_done_.load(); }

  private:
    void run();
    void take(size_t source, const std::string& path);

    std::vector<Source> sources_;
    FileReporter& reporter_;
    std::function<void()> on_idle_;

    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::pair<size_t, std::string>> queue_;
    bool stopping_ = false;
    std::atomic<bool> cancel_{false};
    std::atomic<uint64_t> files_done_{0};
    std::thread thread_;
};

}  // namespace vistrel::watchkeep
