#pragma once

#include <cstdint>
#include <string>

#include "TidewellAPI.h"
#include "devices/statsthreadinfo.h"

// Operations on one device. Each holds the device mutex for its whole run and first asks the
// firmware-update guard; the record is updated in place.
namespace vistrel::devices {

// Device result codes (replies show result_text()).
enum DeviceResult : uint32_t {
    kDeviceSuccess = 0,
    kDeviceError = 1,
    kDeviceAlreadyCapturing = 2,
    kDeviceAlreadyStopped = 3,
    kDeviceInvalid = 4,
    kDeviceRestartFailed = 6,  // shown as "Unhandled command"
    kDeviceFirmwareUpdateRunning = 7,
};
std::string result_text(uint32_t code);

// Everything get_iface_status reads besides the record's own fields.
struct InterfaceStatus {
    TidewellAPILinkStatus link{};
    TidewellAPIDeviceExtraInfo extra{};
    TidewellAPIHwFirmwaresDesc firmwares{};
    TidewellAPIStatistics statistics{};
    TidewellAPITimingStatus timing{};
};

// Starts a disk-dump capture into <capture_path>/<name> with the record's dd_config options.
uint32_t api_start(StatsThreadInfo& device);
// Stops the disk-dump capture; a stopped device yields 0.
uint32_t api_stop(StatsThreadInfo& device);
uint32_t api_restart_device(StatsThreadInfo& device);
bool restart_device(StatsThreadInfo& device);
bool get_dd_status(StatsThreadInfo& device);
// Refreshes type, capabilities, MAC, versions, features, port speeds and disk-dump status of the
// record; the other records go to `details` when given.
bool get_iface_status(StatsThreadInfo& device, InterfaceStatus* details = nullptr);
bool is_device_capturing(StatsThreadInfo& device);
// Makes the device keep the features set (after set_features).
bool save_features(StatsThreadInfo& device);
// Sends the record's features and port speeds to the device.
bool set_features(StatsThreadInfo& device);

// The capture folder of a device: <configuration().capture_path>/<name>.
std::string capture_folder_of(const StatsThreadInfo& device);

}  // namespace vistrel::devices
