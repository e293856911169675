#include "capture/tsharkpipe.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <vector>

#include "capture/timefilter.h"
#include "host/paths.h"

extern char** environ;

namespace vistrel::capture {

namespace {

// Console messages of the pipe: plain prints, flushed so that they interleave with the log.
void say(const char* text) {
    std::fputs(text, stdout);
    std::fflush(stdout);
}

void close_fd(int& fd) {
    if (fd != -1) {
        ::close(fd);
        fd = -1;
    }
}

// Pipes of the documented size where the kernel allows it; smaller ones still work.
bool make_pipe(int fds[2]) {
    if (::pipe2(fds, O_CLOEXEC) != 0) return false;
    ::fcntl(fds[0], F_SETPIPE_SZ, TsharkPipe::kPipeSize);
    return true;
}

}  // namespace

TsharkPipe::TsharkPipe() : TsharkPipe(host::tshark_program()) {}

TsharkPipe::TsharkPipe(std::string program) : tshark_path_(std::move(program)) {}

TsharkPipe::~TsharkPipe() {
    abort();
    close_handles();
    reap();
}

int TsharkPipe::start(const database::CaptureQuery& query) {
    say("Starting TShark\n");
    int output[2];
    if (!make_pipe(output)) {
        say("Failed to create stdout pipe for TShark\n");
        return -1;
    }
    output_read_ = output[0];  // close-on-exec: tshark does not inherit the server's end
    child_output_write_ = output[1];

    int input[2];
    if (!make_pipe(input)) {
        say("Failed to create stdin pipe for TShark\n");
        return -1;
    }
    child_input_read_ = input[0];
    input_write_ = input[1];
    const int flags = ::fcntl(input_write_, F_GETFL);
    if (flags == -1 || ::fcntl(input_write_, F_SETFL, flags | O_NONBLOCK) == -1) {
        say("Failed to set TShark stdin to nonblocking mode\n");
        return -1;
    }

    const std::string filter = time_filter_text(query);
    const std::string command_line = tshark_path_ + " -r - -w - -Y\"" + filter + "\"";
    std::printf("Starting TShark with : %s\n", command_line.c_str());
    std::fflush(stdout);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, child_input_read_, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, child_output_write_, STDOUT_FILENO);
    // The calling thread may block or ignore SIGPIPE; tshark gets the ordinary defaults.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t no_signals;
    sigemptyset(&no_signals);
    sigset_t pipe_signal;
    sigemptyset(&pipe_signal);
    sigaddset(&pipe_signal, SIGPIPE);
    posix_spawnattr_setsigmask(&attributes, &no_signals);
    posix_spawnattr_setsigdefault(&attributes, &pipe_signal);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    std::vector<std::string> arguments = {tshark_path_, "-r", "-", "-w", "-", "-Y", filter};
    std::vector<char*> argv;
    for (auto& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    pid_t pid = -1;
    const int error =
        ::posix_spawn(&pid, tshark_path_.c_str(), &actions, &attributes, argv.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        say("Failed to start TShark process");
        return -1;
    }
    pid_ = pid;
    // tshark holds its own ends now; with ours closed, its exit is the end of the output.
    close_fd(child_input_read_);
    close_fd(child_output_write_);
    return 0;
}

bool TsharkPipe::child_running() {
    if (pid_ == -1) return false;
    // WNOWAIT: the child stays a zombie until reaped, so its id cannot be reused while
    // abort() might still signal it.
    siginfo_t info{};
    if (::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) != 0) {
        return false;
    }
    return info.si_pid == 0;
}

int64_t TsharkPipe::send(const uint8_t* bytes, size_t count) {
    if (!child_running()) {
        say("TShark process is not running\n");
        return -1;
    }
    const ssize_t written = ::write(input_write_, bytes, count);
    if (written >= 0) return written;
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return 0;
    say("Failed to send data to TShark\n");
    return -1;
}

int64_t TsharkPipe::receive(uint8_t* buffer, size_t capacity) {
    if (output_ended()) return 0;
    pollfd waiting{output_read_, POLLIN, 0};
    const int ready = ::poll(&waiting, 1, kReceiveWaitMs);
    if (ready < 0 && errno != EINTR) {
        say("Failed to peek at data from TShark\n");
        return -1;
    }
    if (ready <= 0) return 0;
    const ssize_t got = ::read(output_read_, buffer, capacity);
    if (got < 0) {
        if (errno == EINTR) return 0;
        say("Failed to get data from TShark\n");
        return -1;
    }
    if (got == 0) output_ended_.store(true);
    return got;
}

int TsharkPipe::stop() {
    close_fd(input_write_);
    if (pid_ != -1) {
        siginfo_t info{};
        int result;
        while ((result = ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT)) !=
                   0 &&
               errno == EINTR) {
        }
        if (result == 0) {
            exit_status_.store(info.si_code == CLD_EXITED ? info.si_status : 128 + info.si_status);
        }
    }
    finished_.store(1);
    return 0;
}

void TsharkPipe::abort() {
    if (child_running()) ::kill(pid_, SIGKILL);
}

void TsharkPipe::reap() {
    if (pid_ == -1) return;
    int status = 0;
    while (::waitpid(pid_, &status, 0) == -1 && errno == EINTR) {
    }
    pid_ = -1;
}

void TsharkPipe::close_handles() {
    close_fd(child_input_read_);
    close_fd(input_write_);
    close_fd(output_read_);
    close_fd(child_output_write_);
}

}  // namespace vistrel::capture
