#pragma once

#include "TidewellAPI.h"

namespace vistrel::devices {

// The device library as the registry and the operations call it. The default forwards to the
// C functions of TidewellAPI.h; tests install a fake to choose each call's result.
class DeviceLibrary {
  public:
    virtual ~DeviceLibrary() = default;

    virtual TidewellAPIRet add_new_device_callback(TidewellAPIDeviceCallback callback,
                                                   void* context);
    virtual TidewellAPIRet remove_new_device_callback(TidewellAPIDeviceCallback callback,
                                                      void* context);
    virtual TidewellAPIRet add_device_gone_callback(TidewellAPIDeviceCallback callback,
                                                    void* context);
    virtual TidewellAPIRet remove_device_gone_callback(TidewellAPIDeviceCallback callback,
                                                       void* context);
    virtual TidewellAPIRet initialize();
    virtual TidewellAPIRet uninitialize();

    virtual TidewellAPIRet get_device_type(TidewellAPIHandle handle, TidewellAPIDeviceType* type);
    virtual uint32_t get_device_capabilities(TidewellAPIDeviceType type);
    virtual TidewellAPIRet get_device_mac(TidewellAPIHandle handle, uint8_t* mac);
    virtual TidewellAPIRet get_versions(TidewellAPIHandle handle, TidewellAPIVersions* versions);
    virtual TidewellAPIRet get_device_features(TidewellAPIHandle handle,
                                               TidewellAPIFeatures* features);
    virtual TidewellAPIRet set_device_features(TidewellAPIHandle handle,
                                               const TidewellAPIFeatures* features);
    virtual TidewellAPIRet save_device_features(TidewellAPIHandle handle);
    virtual TidewellAPIRet get_device_ports_speed(TidewellAPIHandle handle,
                                                  TidewellAPIPortsSpeed* speeds);
    virtual TidewellAPIRet set_device_ports_speed(TidewellAPIHandle handle,
                                                  const TidewellAPIPortsSpeed* speeds);
    virtual TidewellAPIRet disk_dump_get_status(TidewellAPIHandle handle,
                                                TidewellAPIDiskDumpStatus* status);
    virtual TidewellAPIRet disk_dump_set_config(TidewellAPIHandle handle,
                                                const TidewellAPIDiskDumpConfig* config);
    virtual TidewellAPIRet disk_dump_start(TidewellAPIHandle handle);
    virtual TidewellAPIRet disk_dump_stop(TidewellAPIHandle handle);
    virtual TidewellAPIRet get_device_extra_info(TidewellAPIHandle handle,
                                                 TidewellAPIDeviceExtraInfo* info);
    virtual TidewellAPIRet get_hw_firmwares_desc(TidewellAPIHandle handle,
                                                 TidewellAPIHwFirmwaresDesc* desc);
    virtual TidewellAPIRet get_link_status(TidewellAPIHandle handle, TidewellAPILinkStatus* status);
    virtual TidewellAPIRet get_statistics(TidewellAPIHandle handle, TidewellAPIStatistics* stats);
    virtual TidewellAPIRet get_timing_status(TidewellAPIHandle handle,
                                             TidewellAPITimingStatus* status);
    virtual TidewellAPIRet restart_device(TidewellAPIHandle handle);
    virtual TidewellAPIRet set_timing_time(TidewellAPIHandle handle,
                                           const TidewellAPITimingTime* time);
    virtual TidewellAPIRet firmware_update_start(TidewellAPIHandle handle,
                                                 const TidewellAPIWChar* file_path);
    virtual TidewellAPIRet firmware_update_get_progress(TidewellAPIHandle handle,
                                                        int32_t* progress);
};

// The library in use: the installed one, else the real C functions.
DeviceLibrary& library();
// Installs `replacement` (nullptr: back to the real library). The caller keeps it alive until
// it is replaced; install it before any device thread runs.
void set_library(DeviceLibrary* replacement);

}  // namespace vistrel::devices
