#include "wakeup.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <cstdint>
#include <system_error>

namespace vistrel::watchkeep {

Wakeup::Wakeup() : fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!fd_.valid()) throw std::system_error(errno, std::generic_category(), "eventfd");
}

void Wakeup::set() {
    const uint64_t one = 1;
    // The counter only grows; a full one is already set.
    [[maybe_unused]] ssize_t written = write(fd_.get(), &one, sizeof one);
}

bool Wakeup::is_set() const {
    pollfd entry{fd_.get(), POLLIN, 0};
    return poll(&entry, 1, 0) == 1;
}

}  // namespace vistrel::watchkeep
