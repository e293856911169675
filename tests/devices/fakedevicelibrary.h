#pragma once

#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "devices/devicelibrary.h"
#include "devices/statsthreadinfo.h"

namespace vistrel::testing {

// A device library whose every answer the test chooses. Installed with
// vistrel::devices::set_library() for the life of the object. Thread-safe.
class FakeDeviceLibrary : public devices::DeviceLibrary {
  public:
    struct Device {
        TidewellAPIDeviceType type = TidewellAPIDeviceType_Pro;
        devices::MacAddress mac{};
        TidewellAPIVersions versions{};
        TidewellAPIFeatures features{};
        TidewellAPIPortsSpeed speeds{};
        TidewellAPIDiskDumpStatus status{};
    };

    FakeDeviceLibrary();
    ~FakeDeviceLibrary() override;

    // A device the library knows (announce it with devices::on_new_device(handle, nullptr)).
    void add_device(TidewellAPIHandle handle, const Device& device);
    // Device `handle` with MAC 00:1b:c5:00:00:<last>.
    static Device device_with_mac(uint8_t last);
    Device device(TidewellAPIHandle handle);
    void set_capturing(TidewellAPIHandle handle, bool capturing);
    // The capability bits every model reports.
    void set_capabilities(uint32_t capabilities);
    // `function` (the DeviceLibrary method name, e.g. "disk_dump_start") returns `result`.
    void set_result(const std::string& function, TidewellAPIRet result);
    // Every call made, in order, as method names.
    std::vector<std::string> calls() { return locked(calls_); }
    void clear_calls();

    // The last disk-dump configuration handed over, with its folder copied.
    TidewellAPIDiskDumpConfig last_config() { return locked(last_config_); }
    std::u16string last_folder() { return locked(last_folder_); }
    TidewellAPITimingTime last_timing() { return locked(last_timing_); }
    // Firmware flash: progress answers IN_PROGRESS with `progress` until finish_flash(result).
    void set_flash_progress(int32_t progress);
    void finish_flash(TidewellAPIRet result);
    // Waits (up to 30 s) until the progress has been asked for `count` times in all.
    bool wait_for_progress_calls(int count);

    TidewellAPIRet add_new_device_callback(TidewellAPIDeviceCallback, void*) override;
    TidewellAPIRet remove_new_device_callback(TidewellAPIDeviceCallback, void*) override;
    TidewellAPIRet add_device_gone_callback(TidewellAPIDeviceCallback, void*) override;
    TidewellAPIRet remove_device_gone_callback(TidewellAPIDeviceCallback, void*) override;
    TidewellAPIRet initialize() override;
    TidewellAPIRet uninitialize() override;
    TidewellAPIRet get_device_type(TidewellAPIHandle, TidewellAPIDeviceType*) override;
    uint32_t get_device_capabilities(TidewellAPIDeviceType) override;
    TidewellAPIRet get_device_mac(TidewellAPIHandle, uint8_t*) override;
    TidewellAPIRet get_versions(TidewellAPIHandle, TidewellAPIVersions*) override;
    TidewellAPIRet get_device_features(TidewellAPIHandle, TidewellAPIFeatures*) override;
    TidewellAPIRet set_device_features(TidewellAPIHandle, const TidewellAPIFeatures*) override;
    TidewellAPIRet save_device_features(TidewellAPIHandle) override;
    TidewellAPIRet get_device_ports_speed(TidewellAPIHandle, TidewellAPIPortsSpeed*) override;
    TidewellAPIRet set_device_ports_speed(TidewellAPIHandle, const TidewellAPIPortsSpeed*) override;
    TidewellAPIRet disk_dump_get_status(TidewellAPIHandle, TidewellAPIDiskDumpStatus*) override;
    TidewellAPIRet disk_dump_set_config(TidewellAPIHandle,
                                        const TidewellAPIDiskDumpConfig*) override;
    TidewellAPIRet disk_dump_start(TidewellAPIHandle) override;
    TidewellAPIRet disk_dump_stop(TidewellAPIHandle) override;
    TidewellAPIRet get_device_extra_info(TidewellAPIHandle, TidewellAPIDeviceExtraInfo*) override;
    TidewellAPIRet get_hw_firmwares_desc(TidewellAPIHandle, TidewellAPIHwFirmwaresDesc*) override;
    TidewellAPIRet get_link_status(TidewellAPIHandle, TidewellAPILinkStatus*) override;
    TidewellAPIRet get_statistics(TidewellAPIHandle, TidewellAPIStatistics*) override;
    TidewellAPIRet get_timing_status(TidewellAPIHandle, TidewellAPITimingStatus*) override;
    TidewellAPIRet restart_device(TidewellAPIHandle) override;
    TidewellAPIRet set_timing_time(TidewellAPIHandle, const TidewellAPITimingTime*) override;
    TidewellAPIRet firmware_update_start(TidewellAPIHandle, const TidewellAPIWChar*) override;
    TidewellAPIRet firmware_update_get_progress(TidewellAPIHandle, int32_t*) override;

  private:
    // A copy of `member` taken under the lock.
    template <typename T>
    T locked(const T& member) {
        std::lock_guard lock(mutex_);
        return member;
    }
    // Records the call; the chosen result, or 0.
    TidewellAPIRet record(const char* function);
    Device* find(TidewellAPIHandle handle);

    std::mutex mutex_;
    std::condition_variable changed_;
    std::map<TidewellAPIHandle, Device> devices_;
    std::map<std::string, TidewellAPIRet> results_;
    std::vector<std::string> calls_;
    uint32_t capabilities_ = TIDEWELLAPI_CAP_FEATURES;
    TidewellAPIDiskDumpConfig last_config_{};
    std::u16string last_folder_;
    TidewellAPITimingTime last_timing_{};
    int32_t flash_progress_ = 0;
    bool flash_done_ = false;
    TidewellAPIRet flash_result_ = 0;
    int progress_calls_ = 0;
};

}  // namespace vistrel::testing
