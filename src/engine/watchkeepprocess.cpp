#include "engine/watchkeepprocess.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <thread>
#include <vector>

#include "engine/commandline.h"
#include "engine/engineresult.h"
#include "host/processes.h"
#include "startup/logger.h"

extern char** environ;

namespace vistrel::engine {

namespace {

// posix_spawn attributes and file actions, destroyed on every path.
class SpawnSetup {
  public:
    SpawnSetup() {
        posix_spawnattr_init(&attributes);
        posix_spawn_file_actions_init(&actions);
    }
    ~SpawnSetup() {
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attributes);
    }
    SpawnSetup(const SpawnSetup&) = delete;
    SpawnSetup& operator=(const SpawnSetup&) = delete;

    posix_spawnattr_t attributes;
    posix_spawn_file_actions_t actions;
};

// Collects the child once it ends so it does not linger as a zombie.
void reap_when_done(pid_t pid) {
    std::thread([pid] {
        while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
        }
    }).detach();
}

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
}

bool WatchkeepProcess::is_running() {
    return host::process_exists(kProcessName);
}

void WatchkeepProcess::replace_child_input(int fd) {
    int old = child_input_.exchange(fd);
    if (old >= 0) close(old);
}

uint32_t WatchkeepProcess::launch(const std::string& command_line) {
    if (command_line.empty()) return kEngineInvalidCommand;
    if (is_running()) return kEngineAlreadyRunning;
    LOG_NORMAL("Executing Watchkeep Command : %s", command_line.c_str());
    for (int attempt = 0; attempt < timing_.launch_attempts; ++attempt) {
        create_process(command_line);
        LOG_NORMAL("Waiting 5s for watchkeep to start");
        std::this_thread::sleep_for(timing_.launch_wait);
        if (is_running()) break;
        LOG_WARNING("Watchkeep failed to start, retrying...");
    }
    return is_running() ? kEngineDone : kEngineError;
}

void WatchkeepProcess::create_process(const std::string& command_line) {
    int pipe_ends[2];
    // Close-on-exec keeps the write end out of every other child, so closing it here really
    // ends the engine's input.
    if (pipe2(pipe_ends, O_CLOEXEC) != 0) {
        LOG_ERROR("Could not create child input pipe (STDIN)");
        return;
    }
    int read_end = pipe_ends[0];
    int write_end = pipe_ends[1];

    std::vector<std::string> arguments =
        split_command_line(command_line.substr(0, kMaxCommandLine));
    if (arguments.empty()) {
        LOG_ERROR("Could not start Quillmarsh process: %d", EINVAL);
        close(read_end);
        close(write_end);
        return;
    }
    std::vector<char*> argv;
    for (auto& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);

    SpawnSetup setup;
    posix_spawn_file_actions_adddup2(&setup.actions, read_end, STDIN_FILENO);
    posix_spawn_file_actions_addopen(&setup.actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&setup.actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    // Own process group, default signal handling and nothing blocked, whatever the server
    // did with its own signals: the engine must still answer an interrupt.
    sigset_t no_signals;
    sigemptyset(&no_signals);
    sigset_t default_signals;
    sigemptyset(&default_signals);
    sigaddset(&default_signals, SIGPIPE);
    sigaddset(&default_signals, SIGINT);
    sigaddset(&default_signals, SIGTERM);
    posix_spawnattr_setflags(
        &setup.attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    posix_spawnattr_setpgroup(&setup.attributes, 0);
    posix_spawnattr_setsigmask(&setup.attributes, &no_signals);
    posix_spawnattr_setsigdefault(&setup.attributes, &default_signals);

    pid_t pid = 0;
    int error =
        posix_spawnp(&pid, argv[0], &setup.actions, &setup.attributes, argv.data(), environ);
    close(read_end);
    if (error != 0) {
        LOG_ERROR("Could not start Quillmarsh process: %d", error);
        close(write_end);
        return;
    }
    reap_when_done(pid);
    replace_child_input(write_end);
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
        return kEngineDone;
    }
    LOG_WARNING("Killing watchkeep - Going to try hand kill");
    if (!host::end_process_by_name(kProcessName)) {
        LOG_ERROR("Unable to Stop Watchkeep");
        return kEngineError;
    }
    LOG_WARNING("Killed Watchkeep by name");
    return kEngineDone;
}

}  // namespace vistrel::engine
