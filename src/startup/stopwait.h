#pragma once

#include <string>

namespace vistrel {

// SIGINT and SIGTERM end every waiting mode the same way as the mode's own stop signal. They
// are blocked in every thread and read from a signalfd, so no thread is ever interrupted.
// Call before the first thread starts.
void block_stop_signals();

// Waits until a key is pressed on standard input (a terminal), or a byte can be read from it
// (anything else), or a stop signal arrives. End of file is not a key press.
void wait_for_key_or_stop_signal();

// The daemon's control FIFO: one byte written to it stops the server.
class ControlPipe {
  public:
    explicit ControlPipe(std::string path);
    ~ControlPipe();
    ControlPipe(const ControlPipe&) = delete;
    ControlPipe& operator=(const ControlPipe&) = delete;

    // Creates the FIFO; false when another live instance reads it.
    bool create();
    // Waits until a client writes at least one byte, or a stop signal arrives. Without a
    // FIFO of its own only the signal can end the wait.
    void wait_for_signal();

  private:
    std::string path_;
    bool created_ = false;
};

// $TMPDIR/HTTPServerES
std::string control_pipe_path();

}  // namespace vistrel
