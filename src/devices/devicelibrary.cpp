#include "devices/devicelibrary.h"

#include <atomic>

namespace vistrel::devices {

TidewellAPIRet DeviceLibrary::add_new_device_callback(TidewellAPIDeviceCallback callback,
                                                      void* context) {
    return TidewellAPIAddNewDeviceCallback(callback, context);
}

TidewellAPIRet DeviceLibrary::remove_new_device_callback(TidewellAPIDeviceCallback callback,
                                                         void* context) {
    return TidewellAPIRemoveNewDeviceCallback(callback, context);
}

TidewellAPIRet DeviceLibrary::add_device_gone_callback(TidewellAPIDeviceCallback callback,
                                                       void* context) {
    return TidewellAPIAddDeviceGoneCallback(callback, context);
}

TidewellAPIRet DeviceLibrary::remove_device_gone_callback(TidewellAPIDeviceCallback callback,
                                                          void* context) {
    return TidewellAPIRemoveDeviceGoneCallback(callback, context);
}

TidewellAPIRet DeviceLibrary::initialize() {
    return TidewellAPIInitialize();
}

TidewellAPIRet DeviceLibrary::uninitialize() {
    return TidewellAPIUninitialize();
}

TidewellAPIRet DeviceLibrary::get_device_type(TidewellAPIHandle handle,
                                              TidewellAPIDeviceType* type) {
    return TidewellAPIGetDeviceType(handle, type);
}

uint32_t DeviceLibrary::get_device_capabilities(TidewellAPIDeviceType type) {
    return TidewellAPIGetDeviceCapabilities(type);
}

TidewellAPIRet DeviceLibrary::get_device_mac(TidewellAPIHandle handle, uint8_t* mac) {
    return TidewellAPIGetDeviceMAC(handle, mac);
}

TidewellAPIRet DeviceLibrary::get_versions(TidewellAPIHandle handle,
                                           TidewellAPIVersions* versions) {
    return TidewellAPIGetVersions(handle, versions);
}

TidewellAPIRet DeviceLibrary::get_device_features(TidewellAPIHandle handle,
                                                  TidewellAPIFeatures* features) {
    return TidewellAPIGetDeviceFeatures(handle, features);
}

TidewellAPIRet DeviceLibrary::set_device_features(TidewellAPIHandle handle,
                                                  const TidewellAPIFeatures* features) {
    return TidewellAPISetDeviceFeatures(handle, features);
}

TidewellAPIRet DeviceLibrary::save_device_features(TidewellAPIHandle handle) {
    return TidewellAPISaveDeviceFeatures(handle);
}

TidewellAPIRet DeviceLibrary::get_device_ports_speed(TidewellAPIHandle handle,
                                                     TidewellAPIPortsSpeed* speeds) {
    return TidewellAPIGetDevicePortsSpeed(handle, speeds);
}

TidewellAPIRet DeviceLibrary::set_device_ports_speed(TidewellAPIHandle handle,
                                                     const TidewellAPIPortsSpeed* speeds) {
    return TidewellAPISetDevicePortsSpeed(handle, speeds);
}

TidewellAPIRet DeviceLibrary::disk_dump_get_status(TidewellAPIHandle handle,
                                                   TidewellAPIDiskDumpStatus* status) {
    return TidewellAPIDiskDumpGetStatus(handle, status);
}

TidewellAPIRet DeviceLibrary::disk_dump_set_config(TidewellAPIHandle handle,
                                                   const TidewellAPIDiskDumpConfig* config) {
    return TidewellAPIDiskDumpSetConfig(handle, config);
}

TidewellAPIRet DeviceLibrary::disk_dump_start(TidewellAPIHandle handle) {
    return TidewellAPIDiskDumpStart(handle);
}

TidewellAPIRet DeviceLibrary::disk_dump_stop(TidewellAPIHandle handle) {
    return TidewellAPIDiskDumpStop(handle);
}

TidewellAPIRet DeviceLibrary::get_device_extra_info(TidewellAPIHandle handle,
                                                    TidewellAPIDeviceExtraInfo* info) {
    return TidewellAPIGetDeviceExtraInfo(handle, info);
}

TidewellAPIRet DeviceLibrary::get_hw_firmwares_desc(TidewellAPIHandle handle,
                                                    TidewellAPIHwFirmwaresDesc* desc) {
    return TidewellAPIGetHwFirmwaresDesc(handle, desc);
}

TidewellAPIRet DeviceLibrary::get_link_status(TidewellAPIHandle handle,
                                              TidewellAPILinkStatus* status) {
    return TidewellAPIGetLinkStatus(handle, status);
}

TidewellAPIRet DeviceLibrary::get_statistics(TidewellAPIHandle handle,
                                             TidewellAPIStatistics* stats) {
    return TidewellAPIGetStatistics(handle, stats);
}

TidewellAPIRet DeviceLibrary::get_timing_status(TidewellAPIHandle handle,
                                                TidewellAPITimingStatus* status) {
    return TidewellAPIGetTimingStatus(handle, status);
}

TidewellAPIRet DeviceLibrary::restart_device(TidewellAPIHandle handle) {
    return TidewellAPIRestartDevice(handle);
}

TidewellAPIRet DeviceLibrary::set_timing_time(TidewellAPIHandle handle,
                                              const TidewellAPITimingTime* time) {
    return TidewellAPISetTimingTime(handle, time);
}

TidewellAPIRet DeviceLibrary::firmware_update_start(TidewellAPIHandle handle,
                                                    const TidewellAPIWChar* file_path) {
    return TidewellAPIFirmwareUpdateStart(handle, file_path);
}

TidewellAPIRet DeviceLibrary::firmware_update_get_progress(TidewellAPIHandle handle,
                                                           int32_t* progress) {
    return TidewellAPIFirmwareUpdateGetProgress(handle, progress);
}

namespace {
std::atomic<DeviceLibrary*> installed{nullptr};
}  // namespace

DeviceLibrary& library() {
    static DeviceLibrary real;
    DeviceLibrary* current = installed.load();
    return current != nullptr ? *current : real;
}

void set_library(DeviceLibrary* replacement) {
    installed.store(replacement);
}

}  // namespace vistrel::devices
