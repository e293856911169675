#include "capture/tsharkpipe.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "capture/timefilter.h"
#include "host/paths.h"

namespace vistrel::capture {

namespace {

// Console messages of the pipe: plain prints, flushed so that they interleave with the log.
void say(const char* text) {
    std::fputs(text, stdout);
    std::fflush(stdout);
}

}  // namespace

TsharkPipe::TsharkPipe() : TsharkPipe(host::tshark_program()) {}

TsharkPipe::TsharkPipe(std::string program) : tshark_path_(std::move(program)) {}

TsharkPipe::~TsharkPipe() {
    abort();
    close_handles();
}

int TsharkPipe::start(const CaptureQuery& query) {
    say("Starting TShark\n");
    const std::string filter = time_filter_text(query);
    host::ChildProcess::Options options;
    options.input = host::ChildProcess::Stream::kPipe;
    options.output = host::ChildProcess::Stream::kPipe;
    options.pipe_size = kPipeSize;
    const std::string command_line = tshark_path_ + " -r - -w - -Y\"" + filter + "\"";
    const bool started = child_.start({tshark_path_, "-r", "-", "-w", "-", "-Y", filter}, options);
    if (!started && child_.failure() == host::ChildProcess::Failure::kOutputPipe) {
        say("Failed to create stdout pipe for TShark\n");
        return -1;
    }
    if (!started && child_.failure() == host::ChildProcess::Failure::kInputPipe) {
        say("Failed to create stdin pipe for TShark\n");
        return -1;
    }
    std::printf("Starting TShark with : %s\n", command_line.c_str());
    std::fflush(stdout);
    if (!started) {
        say("Failed to start TShark process");
        return -1;
    }
    const int input = child_.input().get();
    const int flags = ::fcntl(input, F_GETFL);
    if (flags == -1 || ::fcntl(input, F_SETFL, flags | O_NONBLOCK) == -1) {
        say("Failed to set TShark stdin to nonblocking mode\n");
        return -1;
    }
    return 0;
}

int64_t TsharkPipe::send(const uint8_t* bytes, size_t count) {
    if (!child_.running()) {
        say("TShark process is not running\n");
        return -1;
    }
    const ssize_t written = ::write(child_.input().get(), bytes, count);
    if (written >= 0) return written;
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return 0;
    say("Failed to send data to TShark\n");
    return -1;
}

int64_t TsharkPipe::receive(uint8_t* buffer, size_t capacity) {
    if (output_ended()) return 0;
    pollfd waiting{child_.output().get(), POLLIN, 0};
    const int ready = ::poll(&waiting, 1, kReceiveWaitMs);
    if (ready < 0 && errno != EINTR) {
        say("Failed to peek at data from TShark\n");
        return -1;
    }
    if (ready <= 0) return 0;
    const ssize_t got = ::read(child_.output().get(), buffer, capacity);
    if (got < 0) {
        if (errno == EINTR) return 0;
        say("Failed to get data from TShark\n");
        return -1;
    }
    if (got == 0) output_ended_.store(true);
    return got;
}

int TsharkPipe::stop() {
    child_.input().reset();
    if (const auto status = child_.wait()) exit_status_.store(*status);
    finished_.store(1);
    return 0;
}

void TsharkPipe::abort() {
    child_.kill(SIGKILL);
}

void TsharkPipe::close_handles() {
    child_.input().reset();
    child_.output().reset();
}

}  // namespace vistrel::capture
