#include "devices/firmwareguard.h"

#include <mutex>

namespace vistrel::devices {

namespace {
std::mutex running_mutex;
std::shared_ptr<const std::atomic<bool>> running;
}  // namespace

void set_running_update(std::shared_ptr<const std::atomic<bool>> finished) {
    std::lock_guard lock(running_mutex);
    running = std::move(finished);
}

bool update_running() {
    std::lock_guard lock(running_mutex);
    return running != nullptr && !running->load();
}

}  // namespace vistrel::devices
