#include "devices/deviceregistry.h"

#include <cstring>
#include <unordered_map>

#include "devices/devicelibrary.h"
#include "devices/firmwareguard.h"
#include "startup/logger.h"

namespace vistrel::devices {

namespace {

struct Registry {
    std::unordered_map<TidewellAPIHandle, StatsThreadInfo> devices;
    DeviceSubscriber new_device_subscriber;
    DeviceSubscriber device_gone_subscriber;
};

// Only touched with the device mutex held.
Registry& registry() {
    static Registry instance;
    return instance;
}

void library_new_device(TidewellAPIHandle handle, void* context) {
    on_new_device(handle, context);
}
void library_device_gone(TidewellAPIHandle handle, void* context) {
    on_device_gone(handle, context);
}

}  // namespace

std::mutex& device_mutex() {
    static std::mutex mutex;
    return mutex;
}

TidewellAPIRet initialise() {
    library().add_new_device_callback(library_new_device, nullptr);
    library().add_device_gone_callback(library_device_gone, nullptr);
    return library().initialize();
}

TidewellAPIRet uninitialise() {
    library().remove_new_device_callback(library_new_device, nullptr);
    library().remove_device_gone_callback(library_device_gone, nullptr);
    return library().uninitialize();
}

void on_new_device(TidewellAPIHandle handle, void*) {
    std::lock_guard lock(device_mutex());
    StatsThreadInfo device;
    LOG_DEBUG("New Device Callback: New Device Detected");
    device.handle = handle;
    DeviceLibrary& api = library();
    if (api.get_device_type(handle, &device.type) != TIDEWELLAPI_SUCCESS) return;
    device.capabilities = api.get_device_capabilities(device.type);
    if (api.get_device_mac(handle, device.mac.data()) != TIDEWELLAPI_SUCCESS) return;
    if (api.get_versions(handle, &device.versions) != TIDEWELLAPI_SUCCESS) return;
    if (device.has_features() &&
        api.get_device_features(handle, &device.features) != TIDEWELLAPI_SUCCESS) {
        return;
    }
    Registry& state = registry();
    state.devices[handle] = device;
    if (state.new_device_subscriber) state.new_device_subscriber(device);
}

void on_device_gone(TidewellAPIHandle handle, void*) {
    std::lock_guard lock(device_mutex());
    LOG_DEBUG("Device Gone Callback: Device Removed");
    StatsThreadInfo device;
    device.handle = handle;
    Registry& state = registry();
    state.devices.erase(handle);
    if (state.device_gone_subscriber) state.device_gone_subscriber(device);
}

void set_new_device_subscriber(DeviceSubscriber subscriber) {
    std::lock_guard lock(device_mutex());
    registry().new_device_subscriber = std::move(subscriber);
}

void set_device_gone_subscriber(DeviceSubscriber subscriber) {
    std::lock_guard lock(device_mutex());
    registry().device_gone_subscriber = std::move(subscriber);
}

StatsThreadInfo find_device_by_mac(const std::string& mac) {
    std::lock_guard lock(device_mutex());
    for (const auto& [handle, device] : registry().devices) {
        if (device.mac_text() == mac) return device;
    }
    throw TidewellMissingException(mac);
}

TidewellAPIHandle find_handle_by_mac(const std::string& mac) {
    return find_device_by_mac(mac).handle;
}

bool all_available(const std::vector<StatsThreadInfo>& requested) {
    const std::vector<StatsThreadInfo> present = snapshot();
    if (present.empty() || requested.empty()) return false;
    for (const auto& wanted : requested) {
        bool found = false;
        for (const auto& device : present) {
            if (device.mac == wanted.mac) {
                found = true;
                break;
            }
        }
        if (!found) {
            LOG_ERROR("All tidewell_devices are not available: N/A device with mac [%s]",
                      wanted.mac_text().c_str());
            return false;
        }
    }
    return true;
}

bool any_capturing() {
    for (const auto& device : snapshot()) {
        std::lock_guard lock(device_mutex());
        if (firmware_update_in_progress("is_device_capturing")) continue;
        TidewellAPIDiskDumpStatus status;
        std::memset(&status, 0, sizeof(status));
        if (library().disk_dump_get_status(device.handle, &status) != TIDEWELLAPI_SUCCESS) {
            LOG_ERROR("Failed: cannot get status");
            continue;
        }
        if (status.CaptureRunning != 0) {
            LOG_WARNING("There are tidewell_devices capturing");
            return true;
        }
    }
    return false;
}

bool firmware_update_in_progress(const char* operation) {
    if (!update_running()) return false;
    LOG_DEBUG("Firmware update in progress: No %s possible - Returning TRUE", operation);
    return true;
}

std::vector<StatsThreadInfo> snapshot() {
    std::lock_guard lock(device_mutex());
    std::vector<StatsThreadInfo> copies;
    copies.reserve(registry().devices.size());
    for (const auto& [handle, device] : registry().devices) copies.push_back(device);
    return copies;
}

void clear_registry() {
    std::lock_guard lock(device_mutex());
    registry().devices.clear();
}

}  // namespace vistrel::devices
