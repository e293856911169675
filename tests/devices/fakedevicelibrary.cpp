#include "fakedevicelibrary.h"

#include <chrono>

namespace vistrel::testing {

FakeDeviceLibrary::FakeDeviceLibrary() {
    devices::set_library(this);
}

FakeDeviceLibrary::~FakeDeviceLibrary() {
    devices::set_library(nullptr);
}

void FakeDeviceLibrary::add_device(TidewellAPIHandle handle, const Device& device) {
    std::lock_guard lock(mutex_);
    devices_[handle] = device;
}

FakeDeviceLibrary::Device FakeDeviceLibrary::device_with_mac(uint8_t last) {
    Device device;
    device.mac = {0x00, 0x1b, 0xc5, 0x00, 0x00, last};
    device.versions.FirmwareVersion = 0x10000u + last;
    device.features.HWFirmwareId = 1;
    return device;
}

FakeDeviceLibrary::Device FakeDeviceLibrary::device(TidewellAPIHandle handle) {
    std::lock_guard lock(mutex_);
    return devices_.at(handle);
}

void FakeDeviceLibrary::set_capturing(TidewellAPIHandle handle, bool capturing) {
    std::lock_guard lock(mutex_);
    devices_.at(handle).status.CaptureRunning = capturing ? 1 : 0;
}

void FakeDeviceLibrary::set_capabilities(uint32_t capabilities) {
    std::lock_guard lock(mutex_);
    capabilities_ = capabilities;
}

void FakeDeviceLibrary::set_result(const std::string& function, TidewellAPIRet result) {
    std::lock_guard lock(mutex_);
    results_[function] = result;
}

std::vector<std::string> FakeDeviceLibrary::calls() {
    std::lock_guard lock(mutex_);
    return calls_;
}

void FakeDeviceLibrary::clear_calls() {
    std::lock_guard lock(mutex_);
    calls_.clear();
}

TidewellAPIDiskDumpConfig FakeDeviceLibrary::last_config() {
    std::lock_guard lock(mutex_);
    return last_config_;
}

std::u16string FakeDeviceLibrary::last_folder() {
    std::lock_guard lock(mutex_);
    return last_folder_;
}

TidewellAPITimingTime FakeDeviceLibrary::last_timing() {
    std::lock_guard lock(mutex_);
    return last_timing_;
}

void FakeDeviceLibrary::set_flash_progress(int32_t progress) {
    std::lock_guard lock(mutex_);
    flash_progress_ = progress;
}

void FakeDeviceLibrary::finish_flash(TidewellAPIRet result) {
    std::lock_guard lock(mutex_);
    flash_done_ = true;
    flash_result_ = result;
}

bool FakeDeviceLibrary::wait_for_progress_calls(int count) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(30),
                             [&] { return progress_calls_ >= count; });
}

TidewellAPIRet FakeDeviceLibrary::record(const char* function) {
    calls_.emplace_back(function);
    const auto found = results_.find(function);
    return found == results_.end() ? TIDEWELLAPI_SUCCESS : found->second;
}

FakeDeviceLibrary::Device* FakeDeviceLibrary::find(TidewellAPIHandle handle) {
    const auto found = devices_.find(handle);
    return found == devices_.end() ? nullptr : &found->second;
}

// Each method: record the call, answer the chosen result; on success fill the outputs from the
// device's data (an unknown handle is an invalid handle).
#define FAKE_CALL(name)                               \
    std::lock_guard lock(mutex_);                     \
    const TidewellAPIRet result = record(name);       \
    if (result != TIDEWELLAPI_SUCCESS) return result; \
    Device* known = find(handle);                     \
    if (known == nullptr) return TIDEWELLAPI_ERROR_INVALID_HANDLE

TidewellAPIRet FakeDeviceLibrary::add_new_device_callback(TidewellAPIDeviceCallback, void*) {
    std::lock_guard lock(mutex_);
    return record("add_new_device_callback");
}
TidewellAPIRet FakeDeviceLibrary::remove_new_device_callback(TidewellAPIDeviceCallback, void*) {
    std::lock_guard lock(mutex_);
    return record("remove_new_device_callback");
}
TidewellAPIRet FakeDeviceLibrary::add_device_gone_callback(TidewellAPIDeviceCallback, void*) {
    std::lock_guard lock(mutex_);
    return record("add_device_gone_callback");
}
TidewellAPIRet FakeDeviceLibrary::remove_device_gone_callback(TidewellAPIDeviceCallback, void*) {
    std::lock_guard lock(mutex_);
    return record("remove_device_gone_callback");
}
TidewellAPIRet FakeDeviceLibrary::initialize() {
    std::lock_guard lock(mutex_);
    return record("initialize");
}
TidewellAPIRet FakeDeviceLibrary::uninitialize() {
    std::lock_guard lock(mutex_);
    return record("uninitialize");
}

TidewellAPIRet FakeDeviceLibrary::get_device_type(TidewellAPIHandle handle,
                                                  TidewellAPIDeviceType* type) {
    FAKE_CALL("get_device_type");
    *type = known->type;
    return TIDEWELLAPI_SUCCESS;
}

uint32_t FakeDeviceLibrary::get_device_capabilities(TidewellAPIDeviceType) {
    std::lock_guard lock(mutex_);
    calls_.emplace_back("get_device_capabilities");
    return capabilities_;
}

TidewellAPIRet FakeDeviceLibrary::get_device_mac(TidewellAPIHandle handle, uint8_t* mac) {
    FAKE_CALL("get_device_mac");
    std::copy(known->mac.begin(), known->mac.end(), mac);
    return TIDEWELLAPI_SUCCESS;
}

TidewellAPIRet FakeDeviceLibrary::get_versions(TidewellAPIHandle handle,
                                               TidewellAPIVersions* versions) {
    FAKE_CALL("get_versions");
    *versions = known->versions;
    return TIDEWELLAPI_SUCCESS;
}

TidewellAPIRet FakeDeviceLibrary::get_device_features(TidewellAPIHandle handle,
                                                      TidewellAPIFeatures* features) {
    FAKE_CALL("get_device_features");
    *features = known->features;
    return TIDEWELLAPI_SUCCESS;
}

TidewellAPIRet FakeDeviceLibrary::set_device_features(TidewellAPIHandle handle,
                                                      const TidewellAPIFeatures* features) {
    FAKE_CALL("set_device_features");
    known->features = *features;
    return TIDEWELLAPI_SUCCESS;
}

TidewellAPIRet FakeDeviceLibrary::save_device_features(TidewellAPIHandle handle) {
    FAKE_CALL("save_device_features");
    return TIDEWELLAPI_SUCCESS;
}

TidewellAPIRet FakeDeviceLibrary::get_device_ports_speed(TidewellAPIHandle handle,
                                                         TidewellAPIPortsSpeed* speeds) {
    FAKE_CALL("get_device_ports_speed");
    *speeds = known->speeds;
    return TIDEWELLAPI_SUCCESS;
}

TidewellAPIRet FakeDeviceLibrary::set_device_ports_speed(TidewellAPIHandle handle,
                                                         const TidewellAPIPortsSpeed* speeds) {
    FAKE_CALL("set_device_ports_speed");
    known->speeds = *speeds;
    return TIDEWELLAPI_SUCCESS;
}

TidewellAPIRet FakeDeviceLibrary::disk_dump_get_status(TidewellAPIHandle handle,
                                                       TidewellAPIDiskDumpStatus* status) {
    FAKE_CALL("disk_dump_get_status");
    *status = known->status;
    return TIDEWELLAPI_SUCCESS;
}

TidewellAPIRet FakeDeviceLibrary::disk_dump_set_config(TidewellAPIHandle handle,
                                                       const TidewellAPIDiskDumpConfig* config) {
    FAKE_CALL("disk_dump_set_config");
    last_config_ = *config;
    last_folder_ = config->CaptureFolder != nullptr ? config->CaptureFolder : u"";
    last_config_.CaptureFolder = nullptr;
    return TIDEWELLAPI_SUCCESS;
}

TidewellAPIRet FakeDeviceLibrary::disk_dump_start(TidewellAPIHandle handle) {
    FAKE_CALL("disk_dump_start");
    known->status.CaptureRunning = 1;
    return TIDEWELLAPI_SUCCESS;
}

TidewellAPIRet FakeDeviceLibrary::disk_dump_stop(TidewellAPIHandle handle) {
    FAKE_CALL("disk_dump_stop");
    known->status.CaptureRunning = 0;
    return TIDEWELLAPI_SUCCESS;
}

TidewellAPIRet FakeDeviceLibrary::get_device_extra_info(TidewellAPIHandle handle,
                                                        TidewellAPIDeviceExtraInfo* info) {
    FAKE_CALL("get_device_extra_info");
    info->Temperature = 40;
    return TIDEWELLAPI_SUCCESS;
}

TidewellAPIRet FakeDeviceLibrary::get_hw_firmwares_desc(TidewellAPIHandle handle,
                                                        TidewellAPIHwFirmwaresDesc* desc) {
    FAKE_CALL("get_hw_firmwares_desc");
    desc->Count = 1;
    return TIDEWELLAPI_SUCCESS;
}

TidewellAPIRet FakeDeviceLibrary::get_link_status(TidewellAPIHandle handle,
                                                  TidewellAPILinkStatus* status) {
    FAKE_CALL("get_link_status");
    status->PortCount = 2;
    return TIDEWELLAPI_SUCCESS;
}

TidewellAPIRet FakeDeviceLibrary::get_statistics(TidewellAPIHandle handle,
                                                 TidewellAPIStatistics* stats) {
    FAKE_CALL("get_statistics");
    stats->PortCount = 2;
    return TIDEWELLAPI_SUCCESS;
}

TidewellAPIRet FakeDeviceLibrary::get_timing_status(TidewellAPIHandle handle,
                                                    TidewellAPITimingStatus* status) {
    FAKE_CALL("get_timing_status");
    status->Synchronized = TidewellAPIState_On;
    return TIDEWELLAPI_SUCCESS;
}

TidewellAPIRet FakeDeviceLibrary::restart_device(TidewellAPIHandle handle) {
    FAKE_CALL("restart_device");
    return TIDEWELLAPI_SUCCESS;
}

TidewellAPIRet FakeDeviceLibrary::set_timing_time(TidewellAPIHandle handle,
                                                  const TidewellAPITimingTime* time) {
    FAKE_CALL("set_timing_time");
    last_timing_ = *time;
    return TIDEWELLAPI_SUCCESS;
}

TidewellAPIRet FakeDeviceLibrary::firmware_update_start(TidewellAPIHandle handle,
                                                        const TidewellAPIWChar*) {
    FAKE_CALL("firmware_update_start");
    return TIDEWELLAPI_SUCCESS;
}

TidewellAPIRet FakeDeviceLibrary::firmware_update_get_progress(TidewellAPIHandle handle,
                                                               int32_t* progress) {
    std::lock_guard lock(mutex_);
    ++progress_calls_;
    changed_.notify_all();
    const TidewellAPIRet result = record("firmware_update_get_progress");
    if (result != TIDEWELLAPI_SUCCESS) return result;
    if (find(handle) == nullptr) return TIDEWELLAPI_ERROR_INVALID_HANDLE;
    *progress = flash_done_ ? 100 : flash_progress_;
    return flash_done_ ? flash_result_ : TIDEWELLAPI_IN_PROGRESS;
}

}  // namespace vistrel::testing
