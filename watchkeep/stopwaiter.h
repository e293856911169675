#pragma once

#include <string>

#include "host/uniquefd.h"

namespace vistrel::watchkeep {

// Waits for the end of a run: a line "STOP" (with or without "\r") or the end of standard
// input, SIGINT or SIGTERM, or a descriptor of the engine's own becoming readable. Build it
// before any other thread starts: it blocks the two signals for the whole process.
class StopWaiter {
  public:
    StopWaiter();
    StopWaiter(const StopWaiter&) = delete;
    StopWaiter& operator=(const StopWaiter&) = delete;

    // Returns what ended the wait, for the log. `done_fd` may be -1.
    std::string wait(int done_fd);

  private:
    // True when `input_` holds a stop line; consumes the lines read.
    bool stop_line_read();

    host::UniqueFd signals_;
    std::string input_;
};

}  // namespace vistrel::watchkeep
