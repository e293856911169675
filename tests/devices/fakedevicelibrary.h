#pragma once

#include <algorithm>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "devices/devicelibrary.h"
#include "devices/statsthreadinfo.h"

namespace vistrel::testing {

// Registration and start-up calls: recorded, answered with the chosen result.
#define FAKE_CALL(method, parameters)           \
    TidewellAPIRet method parameters override { \
        std::lock_guard lock(mutex_);           \
        return record(#method);                 \
    }

// Device calls: recorded, answered with the chosen result; on success the body runs on the
// device's data (`known`). An unknown handle is an invalid handle.
#define FAKE_DEVICE_CALL(method, parameters, ...)                      \
    TidewellAPIRet method parameters override {                        \
        std::lock_guard lock(mutex_);                                  \
        const TidewellAPIRet result = record(#method);                 \
        if (result != TIDEWELLAPI_SUCCESS) return result;              \
        Device* known = find(handle);                                  \
        if (known == nullptr) return TIDEWELLAPI_ERROR_INVALID_HANDLE; \
        __VA_ARGS__;                                                   \
        return TIDEWELLAPI_SUCCESS;                                    \
    }

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

    FakeDeviceLibrary() { devices::set_library(this); }
    ~FakeDeviceLibrary() override { devices::set_library(nullptr); }

    // A device the library knows (announce it with devices::on_new_device(handle, nullptr)).
    void add_device(TidewellAPIHandle handle, const Device& device) {
        std::lock_guard lock(mutex_);
        devices_[handle] = device;
    }
    // Device `handle` with MAC 00:1b:c5:00:00:<last>.
    static Device device_with_mac(uint8_t last) {
        Device device;
        device.mac = {0x00, 0x1b, 0xc5, 0x00, 0x00, last};
        device.versions.FirmwareVersion = 0x10000u + last;
        device.features.HWFirmwareId = 1;
        return device;
    }
    Device device(TidewellAPIHandle handle) {
        std::lock_guard lock(mutex_);
        return devices_.at(handle);
    }
    void set_capturing(TidewellAPIHandle handle, bool capturing) {
        std::lock_guard lock(mutex_);
        devices_.at(handle).status.CaptureRunning = capturing ? 1 : 0;
    }
    // The capability bits every model reports.
    void set_capabilities(uint32_t capabilities) { set(capabilities_, capabilities); }
    // `function` (the DeviceLibrary method name, e.g. "disk_dump_start") returns `result`.
    void set_result(const std::string& function, TidewellAPIRet result) {
        std::lock_guard lock(mutex_);
        results_[function] = result;
    }
    // Every call made, in order, as method names.
    std::vector<std::string> calls() { return locked(calls_); }
    size_t call_count(const std::string& function) {
        std::lock_guard lock(mutex_);
        return static_cast<size_t>(std::count(calls_.begin(), calls_.end(), function));
    }
    void clear_calls() { set(calls_, {}); }

    // The last disk-dump configuration handed over, with its folder copied.
    TidewellAPIDiskDumpConfig last_config() { return locked(last_config_); }
    std::u16string last_folder() { return locked(last_folder_); }
    TidewellAPITimingTime last_timing() { return locked(last_timing_); }
    // Firmware flash: progress answers IN_PROGRESS with `progress` until finish_flash(result).
    void set_flash_progress(int32_t progress) { set(flash_progress_, progress); }
    void finish_flash(TidewellAPIRet result) {
        std::lock_guard lock(mutex_);
        flash_done_ = true;
        flash_result_ = result;
    }

    FAKE_CALL(add_new_device_callback, (TidewellAPIDeviceCallback, void*))
    FAKE_CALL(remove_new_device_callback, (TidewellAPIDeviceCallback, void*))
    FAKE_CALL(add_device_gone_callback, (TidewellAPIDeviceCallback, void*))
    FAKE_CALL(remove_device_gone_callback, (TidewellAPIDeviceCallback, void*))
    FAKE_CALL(initialize, ())
    FAKE_CALL(uninitialize, ())

    FAKE_DEVICE_CALL(get_device_type, (TidewellAPIHandle handle, TidewellAPIDeviceType* out),
                     *out = known->type)
    FAKE_DEVICE_CALL(get_device_mac, (TidewellAPIHandle handle, uint8_t* out),
                     std::copy(known->mac.begin(), known->mac.end(), out))
    FAKE_DEVICE_CALL(get_versions, (TidewellAPIHandle handle, TidewellAPIVersions* out),
                     *out = known->versions)
    FAKE_DEVICE_CALL(get_device_features, (TidewellAPIHandle handle, TidewellAPIFeatures* out),
                     *out = known->features)
    FAKE_DEVICE_CALL(set_device_features, (TidewellAPIHandle handle, const TidewellAPIFeatures* in),
                     known->features = *in)
    FAKE_DEVICE_CALL(save_device_features, (TidewellAPIHandle handle), )
    FAKE_DEVICE_CALL(get_device_ports_speed, (TidewellAPIHandle handle, TidewellAPIPortsSpeed* out),
                     *out = known->speeds)
    FAKE_DEVICE_CALL(set_device_ports_speed,
                     (TidewellAPIHandle handle, const TidewellAPIPortsSpeed* in),
                     known->speeds = *in)
    FAKE_DEVICE_CALL(disk_dump_get_status,
                     (TidewellAPIHandle handle, TidewellAPIDiskDumpStatus* out),
                     *out = known->status)
    FAKE_DEVICE_CALL(disk_dump_set_config,
                     (TidewellAPIHandle handle, const TidewellAPIDiskDumpConfig* in),
                     last_config_ = *in;
                     last_folder_ = in->CaptureFolder != nullptr ? in->CaptureFolder : u"";
                     last_config_.CaptureFolder = nullptr)
    FAKE_DEVICE_CALL(disk_dump_start, (TidewellAPIHandle handle), known->status.CaptureRunning = 1)
    FAKE_DEVICE_CALL(disk_dump_stop, (TidewellAPIHandle handle), known->status.CaptureRunning = 0)
    FAKE_DEVICE_CALL(get_device_extra_info,
                     (TidewellAPIHandle handle, TidewellAPIDeviceExtraInfo* out),
                     out->Temperature = 40)
    FAKE_DEVICE_CALL(get_hw_firmwares_desc,
                     (TidewellAPIHandle handle, TidewellAPIHwFirmwaresDesc* out), out->Count = 1)
    FAKE_DEVICE_CALL(get_link_status, (TidewellAPIHandle handle, TidewellAPILinkStatus* out),
                     out->PortCount = 2)
    FAKE_DEVICE_CALL(get_statistics, (TidewellAPIHandle handle, TidewellAPIStatistics* out),
                     out->PortCount = 2)
    FAKE_DEVICE_CALL(get_timing_status, (TidewellAPIHandle handle, TidewellAPITimingStatus* out),
                     out->Synchronized = TidewellAPIState_On)
    FAKE_DEVICE_CALL(restart_device, (TidewellAPIHandle handle), )
    FAKE_DEVICE_CALL(set_timing_time, (TidewellAPIHandle handle, const TidewellAPITimingTime* in),
                     last_timing_ = *in)
    FAKE_DEVICE_CALL(firmware_update_start, (TidewellAPIHandle handle, const TidewellAPIWChar*), )

    uint32_t get_device_capabilities(TidewellAPIDeviceType) override {
        std::lock_guard lock(mutex_);
        calls_.emplace_back("get_device_capabilities");
        return capabilities_;
    }

    TidewellAPIRet firmware_update_get_progress(TidewellAPIHandle handle,
                                                int32_t* progress) override {
        std::lock_guard lock(mutex_);
        const TidewellAPIRet result = record("firmware_update_get_progress");
        if (result != TIDEWELLAPI_SUCCESS) return result;
        if (find(handle) == nullptr) return TIDEWELLAPI_ERROR_INVALID_HANDLE;
        *progress = flash_done_ ? 100 : flash_progress_;
        return flash_done_ ? flash_result_ : TIDEWELLAPI_IN_PROGRESS;
    }

  private:
    // A copy of `member` taken under the lock.
    template <typename T>
    T locked(const T& member) {
        std::lock_guard lock(mutex_);
        return member;
    }
    template <typename T>
    void set(T& member, T value) {
        std::lock_guard lock(mutex_);
        member = std::move(value);
    }
    // Records the call (called locked); the chosen result, or success.
    TidewellAPIRet record(const char* function) {
        calls_.emplace_back(function);
        const auto found = results_.find(function);
        return found == results_.end() ? TIDEWELLAPI_SUCCESS : found->second;
    }
    Device* find(TidewellAPIHandle handle) {
        const auto found = devices_.find(handle);
        return found == devices_.end() ? nullptr : &found->second;
    }

    std::mutex mutex_;
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
};

#undef FAKE_CALL
#undef FAKE_DEVICE_CALL

}  // namespace vistrel::testing
