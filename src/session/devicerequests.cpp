#include "session/devicerequests.h"

#include <exception>
#include <functional>
#include <stdexcept>

#include "devices/statsthreadinfo.h"
#include "session/jsonfields.h"
#include "startup/logger.h"

namespace vistrel::session {

namespace {

// Calls `read_one` for each element of "tidewells", after checking its MAC text; logs and
// rethrows any failure with the reader's own message.
void for_each_device(
    const std::string& json_text, const char* failure_format,
    const std::function<void(const nlohmann::json&, const std::string&)>& read_one) {
    try {
        nlohmann::json document = nlohmann::json::parse(json_text);
        const nlohmann::json* devices = find_field(document, "tidewells");
        if (devices == nullptr || !devices->is_array() || devices->empty()) {
            throw std::runtime_error(
                "JSON Parsing error: Non optional field [tidewells] not found");
        }
        for (const auto& element : *devices) {
            devices::MacAddress mac{};
            read_mac(mac, element, "mac", false);
            std::string text;
            read_text(text, element, "mac", false);
            read_one(element, text);
        }
    } catch (const std::exception& error) {
        LOG_ERROR(failure_format, error.what());
        throw;
    }
}

std::vector<std::string> read_macs(const std::string& json_text, const char* failure_format) {
    std::vector<std::string> macs;
    for_each_device(
        json_text, failure_format,
        [&macs](const nlohmann::json&, const std::string& mac) { macs.push_back(mac); });
    return macs;
}

}  // namespace

std::vector<std::string> read_restart_request(const std::string& json_text) {
    return read_macs(json_text, "Exception parsing JSON for RestartDevice: %s");
}

std::vector<std::string> read_restore_request(const std::string& json_text) {
    return read_macs(json_text, "Exception parsing JSON for RestoreDevice: %s");
}

std::vector<std::string> read_firmware_status_request(const std::string& json_text) {
    return read_macs(json_text, "Exception parsing get_tidewell_firmware_update_status: %s");
}

std::vector<SaveRequest> read_save_request(const std::string& json_text) {
    LOG_DEBUG("JSON Parse: Parsing GetSaveTidewell data");
    std::vector<SaveRequest> requests;
    for_each_device(json_text, "Exception parsing JSON for GetSaveTidewell: %s",
                    [&requests](const nlohmann::json& element, const std::string& mac) {
                        SaveRequest request;
                        request.mac = mac;
                        if (const auto* features = find_field(element, "features")) {
                            if (!features->is_object())
                                throw std::runtime_error("[features] is not an object");
                            request.features = *features;
                            // Fails now, before any device is touched, when a value is wrong.
                            TidewellAPIFeatures scratch{};
                            apply_features(request.features, scratch);
                        }
                        if (const auto* speeds = find_field(element, "port_speeds")) {
                            if (!speeds->is_object())
                                throw std::runtime_error("[port_speeds] is not an object");
                            request.port_speeds = *speeds;
                            TidewellAPIPortsSpeed scratch{};
                            apply_port_speeds(request.port_speeds, scratch);
                        }
                        requests.push_back(std::move(request));
                    });
    return requests;
}

std::vector<TimeRequest> read_time_request(const std::string& json_text) {
    std::vector<TimeRequest> requests;
    for_each_device(json_text, "Exception parsing GetSetDeviceTime: %s",
                    [&requests](const nlohmann::json& element, const std::string& mac) {
                        TimeRequest request;
                        request.mac = mac;
                        read_enum(request.timing.Source, element, "time_source", true);
                        read_integer(request.timing.Seconds, element, "seconds", true);
                        int64_t nanoseconds = 0;
                        read_integer(nanoseconds, element, "nanoseconds", true);
                        if (nanoseconds < 0 || nanoseconds >= 1000000000) {
                            throw std::runtime_error("[nanoseconds] out of range");
                        }
                        request.timing.Nanoseconds = static_cast<uint64_t>(nanoseconds);
                        requests.push_back(request);
                    });
    return requests;
}

std::vector<FirmwareRequest> read_firmware_request(const std::string& json_text) {
    std::vector<FirmwareRequest> requests;
    for_each_device(json_text, "Exception parsing GetUpdateTidewellFirmware: %s",
                    [&requests](const nlohmann::json& element, const std::string& mac) {
                        FirmwareRequest request;
                        request.mac = mac;
                        read_text(request.firmware_file, element, "firmware_file", true);
                        requests.push_back(std::move(request));
                    });
    return requests;
}

void apply_features(const nlohmann::json& object, TidewellAPIFeatures& features) {
    read_state(features.DisablePortA, object, "disable_port_a", true);
    read_state(features.DisablePortB, object, "disable_port_b", true);
    read_state(features.EnableTimestamps, object, "enable_timestamps", true);
    read_state(features.ForcePPSGeneration, object, "force_pps_generation", true);
    read_integer(features.HWFirmwareId, object, "hw_firmware_id", true);
    read_state(features.InlineMode, object, "inline_mode", true);
    read_state(features.KeepCRC32Field, object, "keep_crc32_field", true);
    read_state(features.Loopback, object, "loopback", true);
    read_integer(features.PPSCompensation, object, "pps_compensation", true);
    read_state(features.PPSOutput, object, "pps_output", true);
    read_enum(features.PortATimestampMoment, object, "port_a_timestamp_moment", true);
    read_enum(features.PortBTimestampMoment, object, "port_b_timestamp_moment", true);
    read_state(features.Slicing, object, "slicing", true);
    read_integer(features.SlicingLength, object, "slicing_length", true);
    read_state(features.StatisticsOnly, object, "statistics_only", true);
    read_state(features.SyncTimestamps, object, "sync_timestamps", true);
    read_enum(features.TimeInitSource, object, "time_init_source", true);
    read_state(features.TransmitCrcErrors, object, "transmit_crc_errors", true);
    read_state(features.WaitForSync, object, "wait_for_sync", true);
}

void apply_port_speeds(const nlohmann::json& object, TidewellAPIPortsSpeed& speeds) {
    read_enum(speeds.Speed[0], object, "port_a", true);
    read_enum(speeds.Speed[1], object, "port_b", true);
    read_state(speeds.AutoNegotiation, object, "auto_negotiation", true);
}

}  // namespace vistrel::session
