#include "devices/deviceoperations.h"

#include <cstring>
#include <filesystem>
#include <mutex>

#include "devices/devicelibrary.h"
#include "devices/deviceregistry.h"
#include "startup/configuration.h"
#include "startup/logger.h"

namespace vistrel::devices {

namespace {

void* as_pointer(TidewellAPIHandle handle) {
    return reinterpret_cast<void*>(static_cast<uintptr_t>(handle));
}

constexpr char kCaptureExtension[] = ".pcapng";

}  // namespace

std::string result_text(uint32_t code) {
    switch (code) {
        case kDeviceSuccess:
            return "Successfully executed command";
        case kDeviceError:
            return "Error executing command";
        case kDeviceAlreadyCapturing:
            return "Device is already capturing";
        case kDeviceAlreadyStopped:
            return "Device is already stopped";
        case kDeviceInvalid:
            return "Invalid device detected";
        case kDeviceFirmwareUpdateRunning:
            return "Firmware update is running, nothing else possible";
        default:
            return "Unhandled command";
    }
}

std::string capture_folder_of(const StatsThreadInfo& device) {
    return (std::filesystem::path(configuration().capture_path) / device.name).string();
}

uint32_t api_start(StatsThreadInfo& device) {
    std::lock_guard lock(device_mutex());
    if (firmware_update_in_progress("api_start")) return kDeviceFirmwareUpdateRunning;
    DeviceLibrary& api = library();
    LOG_DEBUG("Starting api device: %p", as_pointer(device.handle));
    if (api.disk_dump_get_status(device.handle, &device.dd_status) != TIDEWELLAPI_SUCCESS) {
        LOG_ERROR("Failed: cannot get status");
        return kDeviceError;
    }
    if (device.dd_status.CaptureRunning != 0) {
        LOG_WARNING("Failed: capture is already started");
        return kDeviceAlreadyCapturing;
    }
    // The folder goes to the library as a wide string; the extension names the file type.
    const std::string folder = capture_folder_of(device);
    LOG_NORMAL("Going to capture to folder: %s", folder.c_str());
    device.capture_folder = to_wide(folder);
    std::memset(device.dd_config.FileExtension, 0, sizeof(device.dd_config.FileExtension));
    std::memcpy(device.dd_config.FileExtension, kCaptureExtension, sizeof(kCaptureExtension));
    LOG_NORMAL("Going to capture to folder [new string]: %s",
               to_narrow(device.capture_folder).c_str());
    const TidewellAPIDiskDumpConfig config = device.library_config();
    if (api.disk_dump_set_config(device.handle, &config) != TIDEWELLAPI_SUCCESS) {
        LOG_ERROR("Failed: cannot set configuration");
        return kDeviceError;
    }
    if (api.disk_dump_start(device.handle) != TIDEWELLAPI_SUCCESS) {
        LOG_ERROR("Failed: cannot start capture");
        return kDeviceError;
    }
    LOG_NORMAL("Starting capture for device '%s'", device.mac_text().c_str());
    LOG_NORMAL("Saving files at: '%s'", folder.c_str());
    return kDeviceSuccess;
}

uint32_t api_stop(StatsThreadInfo& device) {
    std::lock_guard lock(device_mutex());
    if (firmware_update_in_progress("api_stop")) return kDeviceFirmwareUpdateRunning;
    DeviceLibrary& api = library();
    const std::string mac = device.mac_text();
    LOG_DEBUG("Stopping api device: %p", as_pointer(device.handle));
    if (api.disk_dump_get_status(device.handle, &device.dd_status) != TIDEWELLAPI_SUCCESS) {
        LOG_WARNING("Could not get Capturing Statistics for device with mac [%s]", mac.c_str());
        return kDeviceError;
    }
    if (device.dd_status.CaptureRunning == 0) {
        LOG_WARNING("Capture for device with mac [%s] is already stopped", mac.c_str());
        return kDeviceSuccess;
    }
    if (api.disk_dump_stop(device.handle) != TIDEWELLAPI_SUCCESS) {
        LOG_ERROR("Failed: cannot stop capture for device '%s'", mac.c_str());
        return kDeviceError;
    }
    LOG_NORMAL("Stopped capture for device '%s'", mac.c_str());
    return kDeviceSuccess;
}

uint32_t api_restart_device(StatsThreadInfo& device) {
    std::lock_guard lock(device_mutex());
    if (firmware_update_in_progress("api_restart_device")) return kDeviceFirmwareUpdateRunning;
    const std::string mac = device.mac_text();
    LOG_DEBUG("Restarting device with MAC [%s]", mac.c_str());
    const TidewellAPIRet result = library().restart_device(device.handle);
    if (result != TIDEWELLAPI_SUCCESS) {
        LOG_ERROR("Could not restart device with MAC [%s] - API Error: [%ld]", mac.c_str(),
                  static_cast<long>(result));
        return kDeviceRestartFailed;
    }
    LOG_DEBUG("Restarted device with MAC [%s]", mac.c_str());
    return kDeviceSuccess;
}

bool restart_device(StatsThreadInfo& device) {
    std::lock_guard lock(device_mutex());
    if (firmware_update_in_progress("restart_device")) return false;
    return library().restart_device(device.handle) == TIDEWELLAPI_SUCCESS;
}

bool get_dd_status(StatsThreadInfo& device) {
    std::lock_guard lock(device_mutex());
    if (firmware_update_in_progress("get_dd_status")) return false;
    return library().disk_dump_get_status(device.handle, &device.dd_status) == TIDEWELLAPI_SUCCESS;
}

bool get_iface_status(StatsThreadInfo& device, InterfaceStatus* details) {
    std::lock_guard lock(device_mutex());
    if (firmware_update_in_progress("get_iface_status")) return false;
    DeviceLibrary& api = library();
    const TidewellAPIHandle handle = device.handle;
    InterfaceStatus scratch;
    InterfaceStatus& out = details != nullptr ? *details : scratch;
    if (api.get_device_type(handle, &device.type) != TIDEWELLAPI_SUCCESS) return false;
    device.capabilities = api.get_device_capabilities(device.type);
    if (api.get_device_mac(handle, device.mac.data()) != TIDEWELLAPI_SUCCESS) return false;
    if (api.get_versions(handle, &device.versions) != TIDEWELLAPI_SUCCESS) return false;
    if (device.has_features()) {
        if (api.get_device_features(handle, &device.features) != TIDEWELLAPI_SUCCESS ||
            api.get_device_ports_speed(handle, &device.port_speeds) != TIDEWELLAPI_SUCCESS ||
            api.get_link_status(handle, &out.link) != TIDEWELLAPI_SUCCESS ||
            api.get_device_extra_info(handle, &out.extra) != TIDEWELLAPI_SUCCESS ||
            api.get_hw_firmwares_desc(handle, &out.firmwares) != TIDEWELLAPI_SUCCESS) {
            return false;
        }
    }
    if ((device.capabilities & (TIDEWELLAPI_CAP_STATISTICS_A | TIDEWELLAPI_CAP_STATISTICS_B)) &&
        api.get_statistics(handle, &out.statistics) != TIDEWELLAPI_SUCCESS) {
        return false;
    }
    if ((device.capabilities & TIDEWELLAPI_CAP_TIMING) &&
        api.get_timing_status(handle, &out.timing) != TIDEWELLAPI_SUCCESS) {
        return false;
    }
    if (device.has_features() &&
        api.disk_dump_get_status(handle, &device.dd_status) != TIDEWELLAPI_SUCCESS) {
        return false;
    }
    return true;
}

bool is_device_capturing(StatsThreadInfo& device) {
    std::lock_guard lock(device_mutex());
    if (firmware_update_in_progress("is_device_capturing")) return false;
    if (library().disk_dump_get_status(device.handle, &device.dd_status) != TIDEWELLAPI_SUCCESS) {
        LOG_ERROR("Failed: cannot get status");
        return false;
    }
    return device.dd_status.CaptureRunning != 0;
}

bool save_features(StatsThreadInfo& device) {
    std::lock_guard lock(device_mutex());
    if (firmware_update_in_progress("save_features")) {
        LOG_DEBUG("Unable to save features, a firmware update is ongoing");
        return false;
    }
    const TidewellAPIRet result = library().save_device_features(device.handle);
    LOG_DEBUG("Saving device features returned (%d)", static_cast<int>(result));
    return result == TIDEWELLAPI_SUCCESS;
}

bool set_features(StatsThreadInfo& device) {
    const TidewellAPIFeatures& f = device.features;
    LOG_DEBUG("Going to save the following features:");
    LOG_DEBUG("Setting DisablePortA: [%d]", static_cast<int>(f.DisablePortA));
    LOG_DEBUG("Setting DisablePortB: [%d]", static_cast<int>(f.DisablePortB));
    LOG_DEBUG("Setting EnableTimestamps: [%d]", static_cast<int>(f.EnableTimestamps));
    LOG_DEBUG("Setting ForcePPSGeneration: [%d]", static_cast<int>(f.ForcePPSGeneration));
    LOG_DEBUG("Setting HWFirmwareId: [%d]", static_cast<int>(f.HWFirmwareId));
    LOG_DEBUG("Setting InlineMode: [%d]", static_cast<int>(f.InlineMode));
    LOG_DEBUG("Setting KeepCRC32Field: [%d]", static_cast<int>(f.KeepCRC32Field));
    LOG_DEBUG("Setting Loopback: [%d]", static_cast<int>(f.Loopback));
    LOG_DEBUG("Setting PPSCompensation: [%d]", static_cast<int>(f.PPSCompensation));
    LOG_DEBUG("Setting PPSOutput: [%d]", static_cast<int>(f.PPSOutput));
    LOG_DEBUG("Setting PortATimestampMoment: [%d]", static_cast<int>(f.PortATimestampMoment));
    LOG_DEBUG("Setting PortBTimestampMoment: [%d]", static_cast<int>(f.PortBTimestampMoment));
    LOG_DEBUG("Setting Slicing: [%d]", static_cast<int>(f.Slicing));
    LOG_DEBUG("Setting SlicingLength: [%d]", static_cast<int>(f.SlicingLength));
    LOG_DEBUG("Setting StatisticsOnly: [%d]", static_cast<int>(f.StatisticsOnly));
    LOG_DEBUG("Setting SyncTimestamps: [%d]", static_cast<int>(f.SyncTimestamps));
    LOG_DEBUG("Setting TimeInitSource: [%d]", static_cast<int>(f.TimeInitSource));
    LOG_DEBUG("Setting TransmitCrcErrors: [%d]", static_cast<int>(f.TransmitCrcErrors));
    LOG_DEBUG("Setting WaitForSync: [%d]", static_cast<int>(f.WaitForSync));

    std::lock_guard lock(device_mutex());
    if (firmware_update_in_progress("set_features")) {
        LOG_DEBUG("Firmware update is ongoing, unable to set features");
        return false;
    }
    DeviceLibrary& api = library();
    const TidewellAPIFeatures features = device.features;
    const TidewellAPIRet result = api.set_device_features(device.handle, &features);
    if (result != TIDEWELLAPI_SUCCESS) {
        LOG_DEBUG("API retured error code setting features(%d)", static_cast<int>(result));
        return false;
    }
    const TidewellAPIPortsSpeed speeds = device.port_speeds;
    const TidewellAPIRet speed_result = api.set_device_ports_speed(device.handle, &speeds);
    LOG_DEBUG("Set device features - setting portspeed returned (%d)",
              static_cast<int>(speed_result));
    return true;
}

}  // namespace vistrel::devices
