#include "host/childprocess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstring>
#include <thread>

extern char** environ;

namespace vistrel::host {

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

// Both ends close-on-exec; the child's end is dup2'ed onto its stream, which clears the flag.
bool make_pipe(UniqueFd& read_end, UniqueFd& write_end, int size) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) return false;
    read_end.reset(fds[0]);
    write_end.reset(fds[1]);
    if (size > 0) ::fcntl(fds[0], F_SETPIPE_SZ, size);
    return true;
}

// The parent's environment with `extra` added or replacing what it names.
std::vector<std::string> child_environment(
    const std::vector<std::pair<std::string, std::string>>& extra) {
    std::vector<std::string> result;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string variable(*entry);
        const std::string name = variable.substr(0, variable.find('='));
        bool replaced = false;
        for (const auto& [key, value] : extra) replaced = replaced || key == name;
        if (!replaced) result.push_back(variable);
    }
    for (const auto& [key, value] : extra) result.push_back(key + "=" + value);
    return result;
}

std::vector<char*> pointers(std::vector<std::string>& strings) {
    std::vector<char*> result;
    for (auto& text : strings) result.push_back(text.data());
    result.push_back(nullptr);
    return result;
}

void connect(SpawnSetup& setup, ChildProcess::Stream stream, int target, const UniqueFd& pipe_end) {
    if (stream == ChildProcess::Stream::kNull) {
        const int mode = target == STDIN_FILENO ? O_RDONLY : O_WRONLY;
        posix_spawn_file_actions_addopen(&setup.actions, target, "/dev/null", mode, 0);
    } else if (stream == ChildProcess::Stream::kPipe) {
        posix_spawn_file_actions_adddup2(&setup.actions, pipe_end.get(), target);
    }
}

std::optional<int> status_of(const siginfo_t& info) {
    if (info.si_pid == 0) return std::nullopt;
    if (info.si_code == CLD_EXITED) return info.si_status;
    return 128 + info.si_status;
}

}  // namespace

ChildProcess::~ChildProcess() {
    kill(SIGKILL);
    reap();
}

bool ChildProcess::start(const std::vector<std::string>& arguments, const Options& options) {
    failure_ = Failure::kNone;
    error_ = 0;
    if (arguments.empty()) {
        failure_ = Failure::kSpawn;
        error_ = EINVAL;
        return false;
    }
    UniqueFd child_input;
    UniqueFd child_output;
    if (options.output == Stream::kPipe && !make_pipe(output_, child_output, options.pipe_size)) {
        failure_ = Failure::kOutputPipe;
        error_ = errno;
        return false;
    }
    if (options.input == Stream::kPipe && !make_pipe(child_input, input_, options.pipe_size)) {
        failure_ = Failure::kInputPipe;
        error_ = errno;
        output_.reset();
        return false;
    }

    SpawnSetup setup;
    connect(setup, options.input, STDIN_FILENO, child_input);
    connect(setup, options.output, STDOUT_FILENO, child_output);
    connect(setup, options.error, STDERR_FILENO, UniqueFd());
    sigset_t no_signals;
    sigemptyset(&no_signals);
    sigset_t all_signals;
    sigfillset(&all_signals);
    short flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
    if (options.new_process_group) {
        flags |= POSIX_SPAWN_SETPGROUP;
        posix_spawnattr_setpgroup(&setup.attributes, 0);
    }
    posix_spawnattr_setflags(&setup.attributes, flags);
    posix_spawnattr_setsigmask(&setup.attributes, &no_signals);
    posix_spawnattr_setsigdefault(&setup.attributes, &all_signals);

    std::vector<std::string> argument_strings = arguments;
    std::vector<char*> argv = pointers(argument_strings);
    std::vector<std::string> environment_strings;
    std::vector<char*> envp;
    if (!options.environment.empty()) {
        environment_strings = child_environment(options.environment);
        envp = pointers(environment_strings);
    }
    char** child_env = options.environment.empty() ? environ : envp.data();

    pid_t pid = -1;
    const int error = options.search_path
                          ? ::posix_spawnp(&pid, argv[0], &setup.actions, &setup.attributes,
                                           argv.data(), child_env)
                          : ::posix_spawn(&pid, argv[0], &setup.actions, &setup.attributes,
                                          argv.data(), child_env);
    if (error != 0) {
        failure_ = Failure::kSpawn;
        error_ = error;
        input_.reset();
        output_.reset();
        return false;
    }
    pid_ = pid;
    return true;
}

bool ChildProcess::running() const {
    if (pid_ == -1) return false;
    siginfo_t info{};
    if (::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) != 0) {
        return false;  // reaped by someone else: gone all the same
    }
    return info.si_pid == 0;
}

std::optional<int> ChildProcess::exit_status() const {
    if (pid_ == -1) return std::nullopt;
    // WNOWAIT: the child stays a zombie until reaped.
    siginfo_t info{};
    if (::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) != 0) {
        return std::nullopt;
    }
    return status_of(info);
}

std::optional<int> ChildProcess::wait() const {
    if (pid_ == -1) return std::nullopt;
    siginfo_t info{};
    while (::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT) != 0) {
        if (errno != EINTR) return std::nullopt;
    }
    return status_of(info);
}

void ChildProcess::kill(int signal) const {
    if (running()) ::kill(pid_, signal);
}

void ChildProcess::detach() {
    if (pid_ == -1) return;
    std::thread([pid = pid_] {
        while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
        }
    }).detach();
    pid_ = -1;
}

void ChildProcess::reap() {
    if (pid_ == -1) return;
    while (::waitpid(pid_, nullptr, 0) == -1 && errno == EINTR) {
    }
    pid_ = -1;
}

}  // namespace vistrel::host
