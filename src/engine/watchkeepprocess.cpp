#include "engine/watchkeepprocess.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <thread>
#include <vector>

#include "engine/commandline.h"
#include "engine/engineresult.h"
#include "host/childprocess.h"
#include "host/paths.h"
#include "host/processes.h"
#include "startup/logger.h"

namespace vistrel::engine {

namespace {

// Writes without letting a vanished reader raise SIGPIPE on the process: the signal is blocked
// on this thread for the write, and one it caused is taken back before unblocking.
bool write_quietly(int fd, const char* data, size_t size, int& error) {
    sigset_t pipe_signal;
    sigemptyset(&pipe_signal);
    sigaddset(&pipe_signal, SIGPIPE);
    sigset_t pending;
    sigpending(&pending);
    bool already_pending = sigismember(&pending, SIGPIPE) == 1;
    sigset_t previous;
    pthread_sigmask(SIG_BLOCK, &pipe_signal, &previous);
    ssize_t written;
    do {
        written = write(fd, data, size);
    } while (written < 0 && errno == EINTR);
    error = written < 0 ? errno : 0;
    if (written < 0 && error == EPIPE && !already_pending) {
        timespec no_wait{};
        sigtimedwait(&pipe_signal, nullptr, &no_wait);
    }
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    return written == static_cast<ssize_t>(size);
}

}  // namespace

WatchkeepProcess::WatchkeepProcess(EngineTiming timing) : timing_(timing) {}

WatchkeepProcess::~WatchkeepProcess() {
    replace_child_input(-1);
    if (child_) child_->detach();
}

bool WatchkeepProcess::is_running() {
    return host::process_exists(kProcessName);
}

void WatchkeepProcess::replace_child_input(int fd) {
    int old = child_input_.exchange(fd);
    if (old >= 0) close(old);
}

bool WatchkeepProcess::child_ended_cleanly() {
    std::lock_guard lock(child_mutex_);
    if (!child_) return false;
    const std::optional<int> status = child_->exit_status();
    if (!status) return false;
    if (*status != 0) {
        LOG_WARNING("Watchkeep ended with exit code %d (its own log: %s/watchkeep.log)", *status,
                    host::temp_folder().c_str());
        // Said once: the next look finds no child.
        child_.reset();
        return false;
    }
    return true;
}

void WatchkeepProcess::forget_ended_child() {
    std::lock_guard lock(child_mutex_);
    // Collects an engine that has ended; one still running is left alone.
    if (child_ && child_->exit_status()) child_.reset();
}

uint32_t WatchkeepProcess::launch(const std::string& command_line, const Environment& environment) {
    if (command_line.empty()) return kEngineInvalidCommand;
    if (is_running()) return kEngineAlreadyRunning;
    LOG_NORMAL("Executing Watchkeep Command : %s", command_line.c_str());
    for (int attempt = 0; attempt < timing_.launch_attempts; ++attempt) {
        create_process(command_line, environment);
        LOG_NORMAL("Waiting 5s for watchkeep to start");
        std::this_thread::sleep_for(timing_.launch_wait);
        if (is_running() || child_ended_cleanly()) break;
        LOG_WARNING("Watchkeep failed to start, retrying...");
    }
    return is_running() || child_ended_cleanly() ? kEngineDone : kEngineError;
}

void WatchkeepProcess::create_process(const std::string& command_line,
                                      const Environment& environment) {
    std::vector<std::string> arguments =
        split_command_line(command_line.substr(0, kMaxCommandLine));
    // Own process group, default signal handling and nothing blocked, whatever the server
    // did with its own signals: the engine must still answer an interrupt.
    host::ChildProcess::Options options;
    options.input = host::ChildProcess::Stream::kPipe;
    options.output = host::ChildProcess::Stream::kNull;
    options.error = host::ChildProcess::Stream::kNull;
    options.new_process_group = true;
    options.search_path = true;
    options.environment = environment;
    auto child = std::make_unique<host::ChildProcess>();
    if (!child->start(arguments, options)) {
        if (child->failure() == host::ChildProcess::Failure::kInputPipe) {
            LOG_ERROR("Could not create child input pipe (STDIN)");
        } else {
            LOG_ERROR("Could not start Quillmarsh process: %d", child->error());
        }
        return;
    }
    // The engine outlives this call; its input pipe (close-on-exec, so closing it here really
    // ends the engine's input) is what stop() writes to. The child is kept to learn how it
    // ended; an earlier one still running is left to itself.
    replace_child_input(child->input().release());
    std::lock_guard lock(child_mutex_);
    if (child_ && child_->running()) child_->detach();
    child_ = std::move(child);
}

uint32_t WatchkeepProcess::stop() {
    LOG_DEBUG("[Watchkeep Stop] Stopping...");
    int input = child_input_.exchange(-1);
    if (input >= 0) {
        LOG_WARNING("Killing watchkeep - Writing to std::in");
        static constexpr char kStopLine[] = "STOP\r\n";
        int error = 0;
        if (!write_quietly(input, kStopLine, sizeof(kStopLine) - 1, error)) {
            LOG_WARNING("Could not kill quillmarsh by writing to stdin with err: %ld",
                        static_cast<long>(error));
        }
        LOG_WARNING("Killing watchkeep - Closing std::in handle");
        close(input);
    }
    for (int wait = 0; wait < timing_.stop_waits && is_running(); ++wait) {
        LOG_WARNING("Killing watchkeep - Waiting...");
        std::this_thread::sleep_for(timing_.stop_wait);
    }
    if (!is_running()) {
        LOG_WARNING("Killed watchkeep gracefully (WINDOWS)");
        forget_ended_child();
        return kEngineDone;
    }
    LOG_WARNING("Killing watchkeep - Going to try hand kill");
    if (!host::end_process_by_name(kProcessName)) {
        LOG_ERROR("Unable to Stop Watchkeep");
        return kEngineError;
    }
    LOG_WARNING("Killed Watchkeep by name");
    forget_ended_child();
    return kEngineDone;
}

}  // namespace vistrel::engine
