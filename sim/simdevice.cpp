#include "simdevice.h"

#include <sys/statvfs.h>

#include <cstring>
#include <filesystem>
#include <system_error>

#include "TidewellDefaults.h"

namespace vistrel::sim {

namespace {

int64_t wall_clock_ns() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// A simulated device starts synchronised, with a slicing length ready to use.
TidewellAPIFeatures default_features(const SimDeviceConfig& config) {
    TidewellAPIFeatures features = tidewell_factory_features(config.hw_firmware_id);
    features.SyncTimestamps = TidewellAPIState_On;
    features.SlicingLength = 128;
    return features;
}

// DontCare leaves a setting as it is.
template <typename T>
void merge(T& current, T wanted, T dont_care) {
    if (wanted != dont_care) current = wanted;
}

TidewellAPIPortSpeed top_speed(TidewellAPIDeviceType type) {
    return type == TidewellAPIDeviceType_Pro10G ? TidewellAPIPortSpeed_10G
                                                : TidewellAPIPortSpeed_1G;
}

}  // namespace

SimDevice::SimDevice(SimDeviceConfig config, TidewellAPIHandle handle)
    : config_(std::move(config)), handle_(handle), powered_on_(Clock::now()) {
    features_ = default_features(config_);
    saved_features_ = features_;
    speeds_.PortCount = TIDEWELLAPI_MAX_PORTS;
    for (uint32_t port = 0; port < TIDEWELLAPI_MAX_PORTS; ++port) {
        speeds_.Speed[port] = TidewellAPIPortSpeed_Auto;
        uint32_t supported = (1u << TidewellAPIPortSpeed_Auto) | (1u << TidewellAPIPortSpeed_100M) |
                             (1u << TidewellAPIPortSpeed_1G) |
                             (1u << TidewellAPIPortSpeed_Disabled);
        if (config_.type == TidewellAPIDeviceType_Pro10G)
            supported |= 1u << TidewellAPIPortSpeed_10G;
        speeds_.SupportedSpeeds[port] = supported;
    }
    speeds_.AutoNegotiation = TidewellAPIState_On;
}

SimDevice::~SimDevice() {
    power_off();
}

SimDeviceConfig SimDevice::config() const {
    std::lock_guard lock(mutex_);
    return config_;
}

void SimDevice::reconfigure(const SimDeviceConfig& config) {
    std::lock_guard lock(mutex_);
    if (config.hw_firmware_id != config_.hw_firmware_id) {
        features_.HWFirmwareId = config.hw_firmware_id;
        saved_features_.HWFirmwareId = config.hw_firmware_id;
    }
    config_ = config;
    capture_options_.packets_per_second = config.packets_per_second;
    if (capture_) capture_->set_rate(config.packets_per_second);
}

bool SimDevice::fails(const char* function) const {
    std::lock_guard lock(mutex_);
    return config_.fail.count(function) != 0;
}

void SimDevice::power_off() {
    std::unique_ptr<CaptureWriter> capture;
    {
        std::lock_guard lock(mutex_);
        capture = std::move(capture_);
        if (capture) {
            const CaptureCounters counters = capture->counters();
            last_status_.PacketsWritten = counters.packets;
            last_status_.BytesWritten = counters.bytes;
        }
        if (flash_ == Flash::kRunning) flash_ = Flash::kFailed;
        features_ = saved_features_;  // unsaved settings are lost
    }
    capture.reset();  // joins the writer thread outside the lock
}

TidewellAPIRet SimDevice::get_type(TidewellAPIDeviceType* type) const {
    std::lock_guard lock(mutex_);
    *type = config_.type;
    return TIDEWELLAPI_SUCCESS;
}

TidewellAPIRet SimDevice::get_mac(uint8_t* mac) const {
    std::lock_guard lock(mutex_);
    std::memcpy(mac, config_.mac.data(), TIDEWELLAPI_MAC_LENGTH);
    return TIDEWELLAPI_SUCCESS;
}

TidewellAPIRet SimDevice::get_versions(TidewellAPIVersions* versions) const {
    std::lock_guard lock(mutex_);
    *versions = TidewellAPIVersions{};
    versions->ApiVersion = 0x00020001;
    versions->DriverVersion = 0x00020001;
    versions->FirmwareVersion = config_.firmware_version;
    versions->HardwareVersion = config_.hardware_version;
    versions->FpgaVersion = 0x00000105;
    versions->BootloaderVersion = 0x00000003;
    std::strncpy(versions->SerialNumber, config_.serial.c_str(),
                 sizeof(versions->SerialNumber) - 1);
    return TIDEWELLAPI_SUCCESS;
}

TidewellAPIRet SimDevice::get_features(TidewellAPIFeatures* features) const {
    std::lock_guard lock(mutex_);
    if ((config_.capabilities & TIDEWELLAPI_CAP_FEATURES) == 0)
        return TIDEWELLAPI_ERROR_NOT_SUPPORTED;
    *features = features_;
    return TIDEWELLAPI_SUCCESS;
}

TidewellAPIRet SimDevice::set_features(const TidewellAPIFeatures& wanted) {
    std::lock_guard lock(mutex_);
    if ((config_.capabilities & TIDEWELLAPI_CAP_FEATURES) == 0)
        return TIDEWELLAPI_ERROR_NOT_SUPPORTED;
    TidewellAPIFeatures& f = features_;
    const auto dc = TidewellAPIState_DontCare;
    merge(f.DisablePortA, wanted.DisablePortA, dc);
    merge(f.DisablePortB, wanted.DisablePortB, dc);
    merge(f.EnableTimestamps, wanted.EnableTimestamps, dc);
    merge(f.ForcePPSGeneration, wanted.ForcePPSGeneration, dc);
    merge(f.InlineMode, wanted.InlineMode, dc);
    merge(f.KeepCRC32Field, wanted.KeepCRC32Field, dc);
    merge(f.Loopback, wanted.Loopback, dc);
    merge(f.PPSOutput, wanted.PPSOutput, dc);
    merge(f.PortATimestampMoment, wanted.PortATimestampMoment, TidewellAPITimestampMoment_DontCare);
    merge(f.PortBTimestampMoment, wanted.PortBTimestampMoment, TidewellAPITimestampMoment_DontCare);
    merge(f.Slicing, wanted.Slicing, dc);
    merge(f.StatisticsOnly, wanted.StatisticsOnly, dc);
    merge(f.SyncTimestamps, wanted.SyncTimestamps, dc);
    merge(f.TransmitCrcErrors, wanted.TransmitCrcErrors, dc);
    merge(f.WaitForSync, wanted.WaitForSync, dc);
    f.TimeInitSource = wanted.TimeInitSource;
    f.HWFirmwareId = wanted.HWFirmwareId;
    f.SlicingLength = wanted.SlicingLength;
    f.PPSCompensation = wanted.PPSCompensation;
    return TIDEWELLAPI_SUCCESS;
}

TidewellAPIRet SimDevice::save_features() {
    std::lock_guard lock(mutex_);
    saved_features_ = features_;
    config_.hw_firmware_id = features_.HWFirmwareId;
    return TIDEWELLAPI_SUCCESS;
}

TidewellAPIRet SimDevice::get_ports_speed(TidewellAPIPortsSpeed* speeds) const {
    std::lock_guard lock(mutex_);
    *speeds = speeds_;
    return TIDEWELLAPI_SUCCESS;
}

TidewellAPIRet SimDevice::set_ports_speed(const TidewellAPIPortsSpeed& speeds) {
    std::lock_guard lock(mutex_);
    for (uint32_t port = 0; port < speeds_.PortCount; ++port) {
        const uint32_t speed = static_cast<uint32_t>(speeds.Speed[port]);
        if (speed >= 32 || (speeds_.SupportedSpeeds[port] & (1u << speed)) == 0) {
            return TIDEWELLAPI_ERROR_INVALID_ARGUMENT;
        }
    }
    for (uint32_t port = 0; port < speeds_.PortCount; ++port)
        speeds_.Speed[port] = speeds.Speed[port];
    if (speeds.AutoNegotiation != TidewellAPIState_DontCare) {
        speeds_.AutoNegotiation = speeds.AutoNegotiation;
    }
    return TIDEWELLAPI_SUCCESS;
}

TidewellAPIRet SimDevice::disk_dump_get_status(TidewellAPIDiskDumpStatus* status) const {
    std::lock_guard lock(mutex_);
    *status = last_status_;
    status->CaptureRunning = 0;
    if (capture_) {
        const CaptureCounters counters = capture_->counters();
        status->CaptureRunning = counters.running ? 1 : 0;
        status->CurrentFileIndex = counters.current_file_index;
        status->FilesWritten = counters.files_written;
        status->PacketsWritten = counters.packets;
        status->BytesWritten = counters.bytes;
        status->StartTime = counters.start_time_ns;
    }
    struct statvfs volume {};
    if (!capture_options_.folder.empty() &&
        statvfs(capture_options_.folder.c_str(), &volume) == 0) {
        status->FreeDiskSpace = static_cast<uint64_t>(volume.f_bavail) * volume.f_frsize;
    }
    return TIDEWELLAPI_SUCCESS;
}

TidewellAPIRet SimDevice::disk_dump_set_config(const TidewellAPIDiskDumpConfig& config) {
    if (config.CaptureFolder == nullptr || config.CaptureFolder[0] == 0) {
        return TIDEWELLAPI_ERROR_INVALID_ARGUMENT;
    }
    // The folder is UTF-16; file names on this system are UTF-8.
    std::u16string wide;
    for (const TidewellAPIWChar* c = config.CaptureFolder; *c != 0; ++c) wide.push_back(*c);
    std::string folder;
    for (size_t i = 0; i < wide.size(); ++i) {
        uint32_t code = wide[i];
        if (code >= 0xD800 && code < 0xDC00 && i + 1 < wide.size()) {
            code = 0x10000 + ((code - 0xD800) << 10) + (wide[++i] - 0xDC00);
        }
        if (code < 0x80) {
            folder.push_back(static_cast<char>(code));
        } else if (code < 0x800) {
            folder.push_back(static_cast<char>(0xC0 | (code >> 6)));
            folder.push_back(static_cast<char>(0x80 | (code & 0x3F)));
        } else if (code < 0x10000) {
            folder.push_back(static_cast<char>(0xE0 | (code >> 12)));
            folder.push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
            folder.push_back(static_cast<char>(0x80 | (code & 0x3F)));
        } else {
            folder.push_back(static_cast<char>(0xF0 | (code >> 18)));
            folder.push_back(static_cast<char>(0x80 | ((code >> 12) & 0x3F)));
            folder.push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
            folder.push_back(static_cast<char>(0x80 | (code & 0x3F)));
        }
    }
    const std::string name(config.FileName, strnlen(config.FileName, sizeof(config.FileName)));
    const std::string extension(config.FileExtension,
                                strnlen(config.FileExtension, sizeof(config.FileExtension)));
    if (name.find('/') != std::string::npos || extension.find('/') != std::string::npos) {
        return TIDEWELLAPI_ERROR_INVALID_ARGUMENT;
    }
    std::lock_guard lock(mutex_);
    if (capture_ && capture_->counters().running) return TIDEWELLAPI_ERROR_BUSY;
    capture_options_.folder = folder;
    capture_options_.file_name = name.empty() ? "capture" : name;
    capture_options_.extension = extension.empty() ? ".pcapng" : extension;
    capture_options_.capture_time = config.CaptureTime;
    capture_options_.max_files = config.MaxNrFiles;
    capture_options_.loop = config.LoopCapture == TidewellAPIState_On;
    capture_options_.keep_files = config.KeepFiles != 0;
    configured_ = true;
    return TIDEWELLAPI_SUCCESS;
}

TidewellAPIRet SimDevice::disk_dump_start() {
    std::unique_ptr<CaptureWriter> previous;
    std::lock_guard lock(mutex_);
    if (!configured_) return TIDEWELLAPI_ERROR_NOT_INITIALIZED;
    if (capture_ && capture_->counters().running) return TIDEWELLAPI_ERROR_BUSY;
    previous = std::move(capture_);  // an ended capture; its thread is gone already
    previous.reset();
    CaptureOptions options = capture_options_;
    options.packets_per_second = config_.packets_per_second;
    options.seed = handle_ * 7919 + ++capture_count_;
    auto capture = std::make_unique<CaptureWriter>(options);
    std::string error;
    if (!capture->start(error)) return TIDEWELLAPI_ERROR_IO;
    capture_ = std::move(capture);
    last_status_ = TidewellAPIDiskDumpStatus{};
    return TIDEWELLAPI_SUCCESS;
}

TidewellAPIRet SimDevice::disk_dump_stop() {
    std::unique_ptr<CaptureWriter> capture;
    {
        std::lock_guard lock(mutex_);
        if (!capture_) return TIDEWELLAPI_SUCCESS;
        capture_->stop();
        const CaptureCounters counters = capture_->counters();
        last_status_.CurrentFileIndex = counters.current_file_index;
        last_status_.FilesWritten = counters.files_written;
        last_status_.PacketsWritten = counters.packets;
        last_status_.BytesWritten = counters.bytes;
        last_status_.StartTime = counters.start_time_ns;
        capture = std::move(capture_);
    }
    return TIDEWELLAPI_SUCCESS;
}

TidewellAPIRet SimDevice::get_extra_info(TidewellAPIDeviceExtraInfo* info) const {
    std::lock_guard lock(mutex_);
    info->Temperature = 41;
    info->UptimeSeconds = static_cast<uint32_t>(
        std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - powered_on_).count());
    info->Flags = 0;
    return TIDEWELLAPI_SUCCESS;
}

TidewellAPIRet SimDevice::get_hw_firmwares_desc(TidewellAPIHwFirmwaresDesc* desc) const {
    std::lock_guard lock(mutex_);
    *desc = TidewellAPIHwFirmwaresDesc{};
    desc->Count = 2;
    desc->ActiveId = features_.HWFirmwareId;
    desc->Images[0].Id = 0;
    desc->Images[0].Version = config_.firmware_version;
    std::strncpy(desc->Images[0].Description, "Capture", sizeof(desc->Images[0].Description) - 1);
    desc->Images[1].Id = 1;
    desc->Images[1].Version = config_.firmware_version;
    std::strncpy(desc->Images[1].Description, "Capture and inline",
                 sizeof(desc->Images[1].Description) - 1);
    return TIDEWELLAPI_SUCCESS;
}

TidewellAPIRet SimDevice::get_link_status(TidewellAPILinkStatus* status) const {
    std::lock_guard lock(mutex_);
    *status = TidewellAPILinkStatus{};
    status->PortCount = TIDEWELLAPI_MAX_PORTS;
    for (uint32_t port = 0; port < TIDEWELLAPI_MAX_PORTS; ++port) {
        TidewellAPIPortLinkStatus& link = status->Ports[port];
        const bool disabled =
            (port == 0 ? features_.DisablePortA : features_.DisablePortB) == TidewellAPIState_On;
        link.LinkUp = disabled ? TidewellAPIState_Off : TidewellAPIState_On;
        link.Speed = speeds_.Speed[port] == TidewellAPIPortSpeed_Auto ? top_speed(config_.type)
                                                                      : speeds_.Speed[port];
        link.FullDuplex = TidewellAPIState_On;
        link.SfpPresent = 1;
        // SFF-8472 page A0h: identifier SFP, connector LC, vendor name and part number.
        link.SfpA0[0] = 0x03;
        link.SfpA0[2] = 0x07;
        std::memcpy(link.SfpA0 + 20, "QUELLWICK       ", 16);
        std::memcpy(link.SfpA0 + 40, "TW-SFP-1G       ", 16);
        link.SfpA0[92] = 0x68;  // digital diagnostics, internally calibrated
        link.SfpA2[96] = 35;    // temperature, whole degrees
    }
    return TIDEWELLAPI_SUCCESS;
}

TidewellAPIRet SimDevice::get_statistics(TidewellAPIStatistics* stats) const {
    std::lock_guard lock(mutex_);
    *stats = TidewellAPIStatistics{};
    stats->PortCount = TIDEWELLAPI_MAX_PORTS;
    uint64_t packets = last_status_.PacketsWritten;
    uint64_t bytes = last_status_.BytesWritten;
    if (capture_) {
        const CaptureCounters counters = capture_->counters();
        packets = counters.packets;
        bytes = counters.bytes;
    }
    for (uint32_t port = 0; port < TIDEWELLAPI_MAX_PORTS; ++port) {
        stats->Ports[port].Packets = packets / 2 + (port == 0 ? packets % 2 : 0);
        stats->Ports[port].Bytes = bytes / 2;
        stats->Ports[port].Broadcast = packets / 40;
    }
    return TIDEWELLAPI_SUCCESS;
}

TidewellAPIRet SimDevice::get_timing_status(TidewellAPITimingStatus* status) const {
    std::lock_guard lock(mutex_);
    const int64_t now = wall_clock_ns() + clock_offset_ns_;
    *status = TidewellAPITimingStatus{};
    status->Source = time_source_;
    status->Synchronized = TidewellAPIState_On;
    status->PPSPresent =
        features_.PPSOutput == TidewellAPIState_On ? TidewellAPIState_On : TidewellAPIState_Off;
    status->GPSLocked =
        (config_.capabilities & TIDEWELLAPI_CAP_GPS) ? TidewellAPIState_On : TidewellAPIState_Off;
    status->Seconds = static_cast<uint32_t>(now / 1'000'000'000);
    status->Nanoseconds = static_cast<uint64_t>(now % 1'000'000'000);
    status->OffsetNanoseconds = clock_offset_ns_;
    return TIDEWELLAPI_SUCCESS;
}

TidewellAPIRet SimDevice::set_timing_time(const TidewellAPITimingTime& time) {
    if (time.Nanoseconds >= 1'000'000'000ull) return TIDEWELLAPI_ERROR_INVALID_ARGUMENT;
    std::lock_guard lock(mutex_);
    if (time.Source == TidewellAPITimeSource_GPS &&
        (config_.capabilities & TIDEWELLAPI_CAP_GPS) == 0) {
        return TIDEWELLAPI_ERROR_NOT_SUPPORTED;
    }
    time_source_ = time.Source;
    if (time.Seconds != 0 || time.Nanoseconds != 0) {
        const int64_t wanted = static_cast<int64_t>(time.Seconds) * 1'000'000'000 +
                               static_cast<int64_t>(time.Nanoseconds);
        clock_offset_ns_ = wanted - wall_clock_ns();
    }
    return TIDEWELLAPI_SUCCESS;
}

TidewellAPIRet SimDevice::firmware_update_start(const std::string& path) {
    std::lock_guard lock(mutex_);
    if (flash_ == Flash::kRunning) return TIDEWELLAPI_ERROR_BUSY;
    std::error_code code;
    if (!std::filesystem::is_regular_file(path, code)) return TIDEWELLAPI_ERROR_FILE_NOT_FOUND;
    if (std::filesystem::file_size(path, code) == 0 || code)
        return TIDEWELLAPI_ERROR_FIRMWARE_INVALID;
    flash_ = Flash::kRunning;
    flash_start_ = Clock::now();
    return TIDEWELLAPI_SUCCESS;
}

TidewellAPIRet SimDevice::firmware_update_get_progress(int32_t* progress) {
    std::lock_guard lock(mutex_);
    if (flash_ == Flash::kRunning) {
        const double elapsed = std::chrono::duration<double>(Clock::now() - flash_start_).count();
        if (elapsed < config_.firmware_update_seconds) {
            *progress = static_cast<int32_t>(elapsed * 100.0 / config_.firmware_update_seconds);
            return TIDEWELLAPI_IN_PROGRESS;
        }
        flash_ = config_.firmware_update_fails ? Flash::kFailed : Flash::kSucceeded;
    }
    switch (flash_) {
        case Flash::kSucceeded:
            *progress = 100;
            return TIDEWELLAPI_SUCCESS;
        case Flash::kFailed:
            *progress = 100;
            return TIDEWELLAPI_ERROR_FIRMWARE_FAILED;
        default:
            *progress = 0;
            return TIDEWELLAPI_ERROR;
    }
}

}  // namespace vistrel::sim
