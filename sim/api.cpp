// The C interface of TidewellAPI.h on top of the simulator.
#include <string>

#include "TidewellAPI.h"
#include "simulator.h"

using vistrel::sim::SimDevice;
using vistrel::sim::Simulator;

namespace {

// Runs `call` on the present device of `handle`, unless `function` is set to fail for it.
template <typename Call>
TidewellAPIRet on_device(TidewellAPIHandle handle, const char* function, Call call) {
    const std::shared_ptr<SimDevice> device = Simulator::instance().device(handle);
    if (!device) return TIDEWELLAPI_ERROR_INVALID_HANDLE;
    if (device->fails(function)) return TIDEWELLAPI_ERROR;
    return call(*device);
}

std::string narrow(const TidewellAPIWChar* wide) {
    std::string text;
    for (const TidewellAPIWChar* c = wide; *c != 0; ++c) {
        uint32_t code = *c;
        if (code >= 0xD800 && code < 0xDC00 && c[1] >= 0xDC00 && c[1] < 0xE000) {
            code = 0x10000 + ((code - 0xD800) << 10) + (c[1] - 0xDC00);
            ++c;
        }
        if (code < 0x80) {
            text.push_back(static_cast<char>(code));
        } else if (code < 0x800) {
            text.push_back(static_cast<char>(0xC0 | (code >> 6)));
            text.push_back(static_cast<char>(0x80 | (code & 0x3F)));
        } else if (code < 0x10000) {
            text.push_back(static_cast<char>(0xE0 | (code >> 12)));
            text.push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
            text.push_back(static_cast<char>(0x80 | (code & 0x3F)));
        } else {
            text.push_back(static_cast<char>(0xF0 | (code >> 18)));
            text.push_back(static_cast<char>(0x80 | ((code >> 12) & 0x3F)));
            text.push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
            text.push_back(static_cast<char>(0x80 | (code & 0x3F)));
        }
    }
    return text;
}

// The capability query names only a model; it answers for the device whose type this thread
// asked last, as callers ask the type of a handle right before its capabilities.
thread_local TidewellAPIHandle t_typed_handle = 0;

#define REQUIRE(pointer) \
    if ((pointer) == nullptr) return TIDEWELLAPI_ERROR_INVALID_ARGUMENT

}  // namespace

extern "C" {

TidewellAPIRet TidewellAPIAddNewDeviceCallback(TidewellAPIDeviceCallback callback, void* context) {
    return Simulator::instance().add_callback(Simulator::CallbackKind::kNewDevice, callback,
                                              context);
}

TidewellAPIRet TidewellAPIRemoveNewDeviceCallback(TidewellAPIDeviceCallback callback,
                                                  void* context) {
    return Simulator::instance().remove_callback(Simulator::CallbackKind::kNewDevice, callback,
                                                 context);
}

TidewellAPIRet TidewellAPIAddDeviceGoneCallback(TidewellAPIDeviceCallback callback, void* context) {
    return Simulator::instance().add_callback(Simulator::CallbackKind::kDeviceGone, callback,
                                              context);
}

TidewellAPIRet TidewellAPIRemoveDeviceGoneCallback(TidewellAPIDeviceCallback callback,
                                                   void* context) {
    return Simulator::instance().remove_callback(Simulator::CallbackKind::kDeviceGone, callback,
                                                 context);
}

TidewellAPIRet TidewellAPIInitialize(void) {
    return Simulator::instance().initialize();
}

TidewellAPIRet TidewellAPIUninitialize(void) {
    return Simulator::instance().uninitialize();
}

TidewellAPIRet TidewellAPIGetDeviceType(TidewellAPIHandle handle, TidewellAPIDeviceType* type) {
    REQUIRE(type);
    t_typed_handle = handle;
    return on_device(handle, "TidewellAPIGetDeviceType",
                     [&](SimDevice& device) { return device.get_type(type); });
}

uint32_t TidewellAPIGetDeviceCapabilities(TidewellAPIDeviceType type) {
    return Simulator::instance().capabilities(type, t_typed_handle);
}

TidewellAPIRet TidewellAPIGetDeviceMAC(TidewellAPIHandle handle,
                                       uint8_t mac[TIDEWELLAPI_MAC_LENGTH]) {
    REQUIRE(mac);
    return on_device(handle, "TidewellAPIGetDeviceMAC",
                     [&](SimDevice& device) { return device.get_mac(mac); });
}

TidewellAPIRet TidewellAPIGetVersions(TidewellAPIHandle handle, TidewellAPIVersions* versions) {
    REQUIRE(versions);
    return on_device(handle, "TidewellAPIGetVersions",
                     [&](SimDevice& device) { return device.get_versions(versions); });
}

TidewellAPIRet TidewellAPIGetDeviceFeatures(TidewellAPIHandle handle,
                                            TidewellAPIFeatures* features) {
    REQUIRE(features);
    return on_device(handle, "TidewellAPIGetDeviceFeatures",
                     [&](SimDevice& device) { return device.get_features(features); });
}

TidewellAPIRet TidewellAPISetDeviceFeatures(TidewellAPIHandle handle,
                                            const TidewellAPIFeatures* features) {
    REQUIRE(features);
    return on_device(handle, "TidewellAPISetDeviceFeatures",
                     [&](SimDevice& device) { return device.set_features(*features); });
}

TidewellAPIRet TidewellAPISaveDeviceFeatures(TidewellAPIHandle handle) {
    return on_device(handle, "TidewellAPISaveDeviceFeatures",
                     [&](SimDevice& device) { return device.save_features(); });
}

TidewellAPIRet TidewellAPIGetDevicePortsSpeed(TidewellAPIHandle handle,
                                              TidewellAPIPortsSpeed* speeds) {
    REQUIRE(speeds);
    return on_device(handle, "TidewellAPIGetDevicePortsSpeed",
                     [&](SimDevice& device) { return device.get_ports_speed(speeds); });
}

TidewellAPIRet TidewellAPISetDevicePortsSpeed(TidewellAPIHandle handle,
                                              const TidewellAPIPortsSpeed* speeds) {
    REQUIRE(speeds);
    return on_device(handle, "TidewellAPISetDevicePortsSpeed",
                     [&](SimDevice& device) { return device.set_ports_speed(*speeds); });
}

TidewellAPIRet TidewellAPIDiskDumpGetStatus(TidewellAPIHandle handle,
                                            TidewellAPIDiskDumpStatus* status) {
    REQUIRE(status);
    return on_device(handle, "TidewellAPIDiskDumpGetStatus",
                     [&](SimDevice& device) { return device.disk_dump_get_status(status); });
}

TidewellAPIRet TidewellAPIDiskDumpSetConfig(TidewellAPIHandle handle,
                                            const TidewellAPIDiskDumpConfig* config) {
    REQUIRE(config);
    return on_device(handle, "TidewellAPIDiskDumpSetConfig",
                     [&](SimDevice& device) { return device.disk_dump_set_config(*config); });
}

TidewellAPIRet TidewellAPIDiskDumpStart(TidewellAPIHandle handle) {
    return on_device(handle, "TidewellAPIDiskDumpStart",
                     [&](SimDevice& device) { return device.disk_dump_start(); });
}

TidewellAPIRet TidewellAPIDiskDumpStop(TidewellAPIHandle handle) {
    return on_device(handle, "TidewellAPIDiskDumpStop",
                     [&](SimDevice& device) { return device.disk_dump_stop(); });
}

TidewellAPIRet TidewellAPIGetDeviceExtraInfo(TidewellAPIHandle handle,
                                             TidewellAPIDeviceExtraInfo* info) {
    REQUIRE(info);
    return on_device(handle, "TidewellAPIGetDeviceExtraInfo",
                     [&](SimDevice& device) { return device.get_extra_info(info); });
}

TidewellAPIRet TidewellAPIGetHwFirmwaresDesc(TidewellAPIHandle handle,
                                             TidewellAPIHwFirmwaresDesc* desc) {
    REQUIRE(desc);
    return on_device(handle, "TidewellAPIGetHwFirmwaresDesc",
                     [&](SimDevice& device) { return device.get_hw_firmwares_desc(desc); });
}

TidewellAPIRet TidewellAPIGetLinkStatus(TidewellAPIHandle handle, TidewellAPILinkStatus* status) {
    REQUIRE(status);
    return on_device(handle, "TidewellAPIGetLinkStatus",
                     [&](SimDevice& device) { return device.get_link_status(status); });
}

TidewellAPIRet TidewellAPIGetStatistics(TidewellAPIHandle handle, TidewellAPIStatistics* stats) {
    REQUIRE(stats);
    return on_device(handle, "TidewellAPIGetStatistics",
                     [&](SimDevice& device) { return device.get_statistics(stats); });
}

TidewellAPIRet TidewellAPIGetTimingStatus(TidewellAPIHandle handle,
                                          TidewellAPITimingStatus* status) {
    REQUIRE(status);
    return on_device(handle, "TidewellAPIGetTimingStatus",
                     [&](SimDevice& device) { return device.get_timing_status(status); });
}

TidewellAPIRet TidewellAPIRestartDevice(TidewellAPIHandle handle) {
    return on_device(handle, "TidewellAPIRestartDevice",
                     [&](SimDevice&) { return Simulator::instance().restart(handle); });
}

TidewellAPIRet TidewellAPISetTimingTime(TidewellAPIHandle handle,
                                        const TidewellAPITimingTime* time) {
    REQUIRE(time);
    return on_device(handle, "TidewellAPISetTimingTime",
                     [&](SimDevice& device) { return device.set_timing_time(*time); });
}

TidewellAPIRet TidewellAPIFirmwareUpdateStart(TidewellAPIHandle handle,
                                              const TidewellAPIWChar* file_path) {
    REQUIRE(file_path);
    return on_device(handle, "TidewellAPIFirmwareUpdateStart", [&](SimDevice& device) {
        return device.firmware_update_start(narrow(file_path));
    });
}

TidewellAPIRet TidewellAPIFirmwareUpdateGetProgress(TidewellAPIHandle handle, int32_t* progress) {
    REQUIRE(progress);
    return on_device(handle, "TidewellAPIFirmwareUpdateGetProgress", [&](SimDevice& device) {
        return device.firmware_update_get_progress(progress);
    });
}

}  // extern "C"
