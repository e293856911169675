#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace vistrel::host {
class ChildProcess;
}

namespace vistrel::engine {

// How long the engine is given to appear and to go away.
struct EngineTiming {
    std::chrono::milliseconds launch_wait{2000};
    int launch_attempts = 5;
    std::chrono::milliseconds stop_wait{1000};
    int stop_waits = 7;
};

// The capture engine child program. Whether it runs is always decided by looking for a process
// named "watchkeep", never by what this object holds: the engine may have been started by
// someone else, or may have ended by itself after an analysis.
class WatchkeepProcess {
  public:
    static constexpr const char* kProcessName = "watchkeep";
    // Longest command line handed to the engine; longer ones are cut.
    static constexpr size_t kMaxCommandLine = 1999;

    explicit WatchkeepProcess(EngineTiming timing = {});
    // Closes the engine's standard input but leaves the engine itself alone.
    ~WatchkeepProcess();
    WatchkeepProcess(const WatchkeepProcess&) = delete;
    WatchkeepProcess& operator=(const WatchkeepProcess&) = delete;

    using Environment = std::vector<std::pair<std::string, std::string>>;

    // Starts the engine and waits for it to show up: an EngineResult (0, 1, 2 or 3). A child
    // that has already ended with status 0 by then (a short analysis) counts as started.
    uint32_t launch(const std::string& command_line, const Environment& environment = {});
    // One attempt at starting the child with a pipe on its standard input and `environment`
    // added to the server's; failures are logged.
    void create_process(const std::string& command_line, const Environment& environment = {});
    // "STOP\r\n" on the engine's input, a grace period, then kill by name: 0 or 1.
    uint32_t stop();

    static bool is_running();

  private:
    void replace_child_input(int fd);
    // True when the last child started has ended with exit status 0; logs any other end.
    bool child_ended_cleanly();
    void forget_ended_child();

    EngineTiming timing_;
    std::atomic<int> child_input_{-1};
    std::mutex child_mutex_;
    std::unique_ptr<host::ChildProcess> child_;
};

}  // namespace vistrel::engine
