#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <string>

#include "TidewellAPI.h"
#include "capturewriter.h"
#include "simconfig.h"

namespace vistrel::sim {

// One simulated appliance: its settings, its disk-dump capture and its firmware flash.
// Thread-safe; every call takes the device's own mutex.
class SimDevice {
  public:
    SimDevice(SimDeviceConfig config, TidewellAPIHandle handle);
    ~SimDevice();
    SimDevice(const SimDevice&) = delete;
    SimDevice& operator=(const SimDevice&) = delete;

    TidewellAPIHandle handle() const { return handle_; }
    SimDeviceConfig config() const;
    // A changed entry of the YAML file (same MAC).
    void reconfigure(const SimDeviceConfig& config);
    // The library function `function` is configured to fail for this device.
    bool fails(const char* function) const;
    // Power loss (restart, unplug): the capture ends, a flash is abandoned.
    void power_off();

    TidewellAPIRet get_type(TidewellAPIDeviceType* type) const;
    TidewellAPIRet get_mac(uint8_t* mac) const;
    TidewellAPIRet get_versions(TidewellAPIVersions* versions) const;
    TidewellAPIRet get_features(TidewellAPIFeatures* features) const;
    TidewellAPIRet set_features(const TidewellAPIFeatures& features);
    TidewellAPIRet save_features();
    TidewellAPIRet get_ports_speed(TidewellAPIPortsSpeed* speeds) const;
    TidewellAPIRet set_ports_speed(const TidewellAPIPortsSpeed& speeds);
    TidewellAPIRet disk_dump_get_status(TidewellAPIDiskDumpStatus* status) const;
    TidewellAPIRet disk_dump_set_config(const TidewellAPIDiskDumpConfig& config);
    TidewellAPIRet disk_dump_start();
    TidewellAPIRet disk_dump_stop();
    TidewellAPIRet get_extra_info(TidewellAPIDeviceExtraInfo* info) const;
    TidewellAPIRet get_hw_firmwares_desc(TidewellAPIHwFirmwaresDesc* desc) const;
    TidewellAPIRet get_link_status(TidewellAPILinkStatus* status) const;
    TidewellAPIRet get_statistics(TidewellAPIStatistics* stats) const;
    TidewellAPIRet get_timing_status(TidewellAPITimingStatus* status) const;
    TidewellAPIRet set_timing_time(const TidewellAPITimingTime& time);
    TidewellAPIRet firmware_update_start(const std::string& path);
    TidewellAPIRet firmware_update_get_progress(int32_t* progress);

  private:
    using Clock = std::chrono::steady_clock;
    enum class Flash { kIdle, kRunning, kSucceeded, kFailed };

    mutable std::mutex mutex_;
    SimDeviceConfig config_;
    const TidewellAPIHandle handle_;
    const Clock::time_point powered_on_;
    TidewellAPIFeatures features_{};
    TidewellAPIFeatures saved_features_{};
    TidewellAPIPortsSpeed speeds_{};
    CaptureOptions capture_options_;
    bool configured_ = false;
    std::unique_ptr<CaptureWriter> capture_;
    TidewellAPIDiskDumpStatus last_status_{};
    int64_t clock_offset_ns_ = 0;
    TidewellAPITimeSource time_source_ = TidewellAPITimeSource_Internal;
    Flash flash_ = Flash::kIdle;
    Clock::time_point flash_start_;
    uint64_t capture_count_ = 0;
};

}  // namespace vistrel::sim
