#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

#include "filesummary.h"

namespace vistrel::watchkeep {

// Registers finished capture files with the server (GET /addFile), in order, from a thread of
// its own. A report waits in `<spool folder>/reports` until the server has taken it, so reports
// survive a server that is down and a restart of the engine; the next run sends them first.
class FileReporter {
  public:
    // `server_certificate`, when given, is the one certificate an https server is trusted by.
    FileReporter(std::string server_url, std::string es_index, std::string spool_folder,
                 std::string server_certificate = {});
    // Stops the thread; what is not sent stays in the spool.
    ~FileReporter();
    FileReporter(const FileReporter&) = delete;
    FileReporter& operator=(const FileReporter&) = delete;

    // Queues the report of a file with at least one packet; files without packets are skipped.
    void report(const FileSummary& summary, const std::string& source);
    // Sends what is queued within `budget`; true when nothing is left waiting.
    bool finish(std::chrono::milliseconds budget);

    // The /addFile path and query of one file.
    static std::string request_of(const FileSummary& summary, const std::string& source,
                                  const std::string& es_index);

  private:
    enum class Outcome { kTaken, kRefused, kUnreachable };

    void run();
    Outcome send(const std::string& request, std::chrono::milliseconds timeout) const;
    // Rewrites the spool file with what is queued; removes it when nothing is.
    void save_locked();
    void load();

    const std::string server_url_;
    const std::string es_index_;
    const std::string spool_path_;
    const std::string server_certificate_;

    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::string> pending_;
    bool stopping_ = false;
    std::chrono::steady_clock::time_point finish_deadline_;
    std::thread thread_;
};

}  // namespace vistrel::watchkeep
