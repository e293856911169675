#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/uniquefd.h"

namespace vistrel::host {

// One child program. The child starts with every signal at its default action and none
// blocked, whatever the parent did with its own. Pipe ends kept by the parent are close-on-exec,
// so no other child inherits them. Until it is reaped the child stays a zombie once it ends,
// so its pid is never reused while this object may still signal it.
class ChildProcess {
  public:
    // What one of the child's standard streams is connected to.
    enum class Stream { kInherit, kNull, kPipe };

    struct Options {
        Stream input = Stream::kInherit;
        Stream output = Stream::kInherit;
        Stream error = Stream::kInherit;
        // The child leads a process group of its own (a terminal's interrupt does not reach it).
        bool new_process_group = false;
        // Looks the program up in PATH when it has no slash.
        bool search_path = false;
        // Pipe capacity asked of the kernel when above 0; smaller pipes still work.
        int pipe_size = 0;
        // Added to the parent's environment, replacing variables of the same name.
        std::vector<std::pair<std::string, std::string>> environment;
    };

    // Where starting failed, for the caller's own message.
    enum class Failure { kNone, kOutputPipe, kInputPipe, kSpawn };

    ChildProcess() = default;
    // A child still running is killed (SIGKILL) and reaped, unless detached.
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Starts arguments[0] with `arguments`; false with failure() and error() set.
    bool start(const std::vector<std::string>& arguments, const Options& options);
    Failure failure() const { return failure_; }
    int error() const { return error_; }

    pid_t pid() const { return pid_; }
    // The parent's ends of the pipes asked for (invalid otherwise); the caller may take them.
    UniqueFd& input() { return input_; }
    UniqueFd& output() { return output_; }

    bool running() const;
    // Without blocking: nothing while the child runs, else its exit code (128 + the signal
    // when a signal ended it).
    std::optional<int> exit_status() const;
    // Blocks until the child ends: its exit status as above; nothing when there is no child.
    std::optional<int> wait() const;
    // Sends `signal` to a child that has not ended yet.
    void kill(int signal) const;
    // Leaves the child running on its own; a background thread reaps it when it ends.
    void detach();

  private:
    void reap();

    pid_t pid_ = -1;
    UniqueFd input_;
    UniqueFd output_;
    Failure failure_ = Failure::kNone;
    int error_ = 0;
};

}  // namespace vistrel::host
