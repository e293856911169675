#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "TidewellAPI.h"
#include "devices/statsthreadinfo.h"

// The registry of attached devices: one StatsThreadInfo per library handle, filled when the
// library announces the device, removed when it goes. One process-wide device mutex guards the
// registry and every library call made on a device (the firmware flash excepted).
namespace vistrel::devices {

// Registers the two device callbacks, then initialises the device library; its result.
TidewellAPIRet initialise();
// Removes the callbacks, then uninitialises the device library; its result.
TidewellAPIRet uninitialise();

// The device mutex. Recursive use is not allowed: never take it inside a subscriber.
std::mutex& device_mutex();

// The library callbacks (run on the library's own thread).
void on_new_device(TidewellAPIHandle handle, void* context);
void on_device_gone(TidewellAPIHandle handle, void* context);

// Subscribers get a copy of the record, called with the device mutex held: they must not call
// any locking function of this subsystem. An empty function removes the subscriber.
using DeviceSubscriber = std::function<void(StatsThreadInfo)>;
void set_new_device_subscriber(DeviceSubscriber subscriber);
void set_device_gone_subscriber(DeviceSubscriber subscriber);

// The handle of the device whose MAC text is `mac` (exact text, so case matters); throws
// TidewellMissingException carrying `mac` when there is none.
TidewellAPIHandle find_handle_by_mac(const std::string& mac);
// A copy of the registry record of `mac` (same matching); throws TidewellMissingException.
StatsThreadInfo find_device_by_mac(const std::string& mac);
// Every requested device (by its MAC bytes) is present; false for an empty registry or request.
bool all_available(const std::vector<StatsThreadInfo>& requested);
// Some present device reports a running disk-dump capture (devices are skipped while a
// firmware update runs).
bool any_capturing();
// The firmware-update guard: true (and a debug line naming `operation`) while an update runs.
bool firmware_update_in_progress(const char* operation);
// Copies of all records, taken under the device mutex.
std::vector<StatsThreadInfo> snapshot();
// Empties the registry (tests and shut-down).
void clear_registry();

}  // namespace vistrel::devices
