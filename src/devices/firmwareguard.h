#pragma once

#include <atomic>
#include <memory>

// The one running firmware update that the guard of every device operation looks at.
namespace vistrel::devices {

// Makes the update whose finished flag is `finished` the running one (nullptr: none).
void set_running_update(std::shared_ptr<const std::atomic<bool>> finished);
// An update is running: one was set and its finished flag is clear.
bool update_running();

}  // namespace vistrel::devices
