#include "stopwaiter.h"

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace vistrel::watchkeep {

StopWaiter::StopWaiter() {
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
    signals_ = host::UniqueFd(signalfd(-1, &stop_signals, SFD_CLOEXEC));
    if (!signals_.valid()) throw std::system_error(errno, std::generic_category(), "signalfd");
}

bool StopWaiter::stop_line_read() {
    for (size_t end = input_.find('\n'); end != std::string::npos; end = input_.find('\n')) {
        std::string line = input_.substr(0, end);
        input_.erase(0, end + 1);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line == "STOP") return true;
    }
    // A line that never ends must not grow without bound.
    if (input_.size() > 4096) input_.clear();
    return false;
}

std::string StopWaiter::wait(int done_fd) {
    for (;;) {
        pollfd watched[3] = {
            {signals_.get(), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}, {done_fd, POLLIN, 0}};
        if (poll(watched, 3, -1) < 0) {
            if (errno == EINTR) continue;
            return std::string("waiting failed: ") + std::strerror(errno);
        }
        if (watched[0].revents != 0) {
            signalfd_siginfo received{};
            [[maybe_unused]] ssize_t count = read(signals_.get(), &received, sizeof received);
            return received.ssi_signo == SIGINT ? "SIGINT" : "SIGTERM";
        }
        if (watched[2].revents != 0) return "every file indexed";
        if (watched[1].revents != 0) {
            char buffer[512];
            const ssize_t count = read(STDIN_FILENO, buffer, sizeof buffer);
            if (count < 0 && (errno == EINTR || errno == EAGAIN)) continue;
            if (count <= 0) return "end of standard input";
            input_.append(buffer, static_cast<size_t>(count));
            if (stop_line_read()) return "STOP line";
        }
    }
}

}  // namespace vistrel::watchkeep
