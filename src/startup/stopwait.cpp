#include "startup/stopwait.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <optional>
#include <thread>

#include "host/paths.h"
#include "host/uniquefd.h"

namespace vistrel {

namespace {

sigset_t stop_signal_set() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

int open_signal_fd() {
    sigset_t set = stop_signal_set();
    return signalfd(-1, &set, SFD_CLOEXEC);
}

// Puts a terminal in non-canonical, no-echo mode for the lifetime of the object.
class RawTerminal {
  public:
    RawTerminal() {
        if (tcgetattr(STDIN_FILENO, &saved_) == 0) {
            struct termios raw = saved_;
            raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
            raw.c_cc[VMIN] = 1;
            raw.c_cc[VTIME] = 0;
            active_ = tcsetattr(STDIN_FILENO, TCSANOW, &raw) == 0;
        }
    }
    ~RawTerminal() {
        if (active_) tcsetattr(STDIN_FILENO, TCSANOW, &saved_);
    }
    RawTerminal(const RawTerminal&) = delete;
    RawTerminal& operator=(const RawTerminal&) = delete;

  private:
    struct termios saved_ {};
    bool active_ = false;
};

bool bytes_waiting(int fd) {
    int count = 0;
    return ioctl(fd, FIONREAD, &count) == 0 && count > 0;
}

}  // namespace

void block_stop_signals() {
    sigset_t set = stop_signal_set();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

void wait_for_key_or_stop_signal() {
    host::UniqueFd signals(open_signal_fd());
    bool terminal = isatty(STDIN_FILENO) == 1;
    std::optional<RawTerminal> raw;
    if (terminal) raw.emplace();
    bool watch_input = true;
    while (true) {
        struct pollfd fds[2] = {{signals.get(), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
        int count = watch_input ? 2 : 1;
        if (poll(fds, count, -1) < 0) {
            if (errno == EINTR) continue;
            return;
        }
        if (fds[0].revents & POLLIN) return;
        if (watch_input && fds[1].revents != 0) {
            // The key stays in the buffer; only its presence matters.
            if (bytes_waiting(STDIN_FILENO)) return;
            // End of file or a hung-up terminal: never a key press, and polling it again
            // would only spin.
            watch_input = false;
        }
    }
}

std::string control_pipe_path() {
    return host::temp_folder() + "/HTTPServerES";
}

ControlPipe::ControlPipe(std::string path) : path_(std::move(path)) {}

ControlPipe::~ControlPipe() {
    if (created_) ::unlink(path_.c_str());
}

bool ControlPipe::create() {
    struct stat info {};
    if (lstat(path_.c_str(), &info) == 0) {
        if (S_ISFIFO(info.st_mode)) {
            // A reader on the other end means a live instance owns it. Opening it for writing
            // and closing again is no signal for that instance.
            int probe = ::open(path_.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
            if (probe >= 0) {
                ::close(probe);
                return false;
            }
        }
        // A stale FIFO of a killed instance, or some other file (an empty folder too):
        // reclaim the name.
        if (std::remove(path_.c_str()) != 0) return false;
    }
    if (mkfifo(path_.c_str(), 0600) != 0) return false;
    created_ = true;
    return true;
}

void ControlPipe::wait_for_signal() {
    host::UniqueFd signals(open_signal_fd());
    while (true) {
        host::UniqueFd pipe(created_ ? ::open(path_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)
                                     : -1);
        struct pollfd fds[2] = {{signals.get(), POLLIN, 0}, {pipe.get(), POLLIN, 0}};
        int count = pipe.get() >= 0 ? 2 : 1;
        while (true) {
            if (poll(fds, count, -1) < 0) {
                if (errno == EINTR) continue;
                return;
            }
            if (fds[0].revents & POLLIN) return;
            if (count == 2 && fds[1].revents != 0) break;
        }
        char byte = 0;
        if (::read(pipe.get(), &byte, 1) == 1) return;
        // A writer that closed without writing is no signal: reopen after a short pause.
        pipe.reset();
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

}  // namespace vistrel
