#pragma once

#include "host/uniquefd.h"

namespace vistrel::watchkeep {

// An eventfd that one thread sets and another polls for: the stop button of a worker thread
// that waits in poll().
class Wakeup {
  public:
    Wakeup();
    Wakeup(const Wakeup&) = delete;
    Wakeup& operator=(const Wakeup&) = delete;

    void set();
    bool is_set() const;
    int fd() const { return fd_.get(); }

  private:
    host::UniqueFd fd_;
};

}  // namespace vistrel::watchkeep
