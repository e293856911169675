#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "TidewellAPI.h"

// The small request documents of the device commands. Every one names its devices like the
// start-capture document does: {"tidewells":[{"mac":"00:1b:c5:00:00:01", ...}, ...]}.
// Readers throw on a body that is no JSON (nlohmann::json::parse_error) or that can't be used
// (std::exception); both are logged with the reader's name first.
namespace vistrel::session {

// /restartTidewell, /restoreTidewell, /getTidewellFirmwareUpdateStatus:
// {"tidewells":[{"mac":"..."}]}
std::vector<std::string> read_restart_request(const std::string& json_text);
std::vector<std::string> read_restore_request(const std::string& json_text);
std::vector<std::string> read_firmware_status_request(const std::string& json_text);

// /saveTidewell: {"tidewells":[{"mac":"...","features":{...},"port_speeds":{...}}]}; both
// objects optional, and every key in them too (a missing key keeps the device's value).
struct SaveRequest {
    std::string mac;
    nlohmann::json features = nlohmann::json::object();
    nlohmann::json port_speeds = nlohmann::json::object();
};
std::vector<SaveRequest> read_save_request(const std::string& json_text);

// /setDeviceTime: {"tidewells":[{"mac":"...","time_source":5,"seconds":0,"nanoseconds":0}]};
// "time_source" defaults to 5 (SNTP), which fetches the time itself; other sources hand the
// optional "seconds" and "nanoseconds" to the device as they are.
struct TimeRequest {
    std::string mac;
    TidewellAPITimingTime timing{TidewellAPITimeSource_SNTP, 0, 0};
};
std::vector<TimeRequest> read_time_request(const std::string& json_text);

// /updateTidewellFirmware: {"tidewells":[{"mac":"...","firmware_file":"..."}]}; the file is a
// path, or the "file" of a catalogue entry.
struct FirmwareRequest {
    std::string mac;
    std::string firmware_file;
};
std::vector<FirmwareRequest> read_firmware_request(const std::string& json_text);

// Applies the keys present in `object` ("disable_port_a", "hw_firmware_id", ...) to `features`.
void apply_features(const nlohmann::json& object, TidewellAPIFeatures& features);
// Applies "port_a", "port_b" (TidewellAPIPortSpeed numbers) and "auto_negotiation".
void apply_port_speeds(const nlohmann::json& object, TidewellAPIPortsSpeed& speeds);

}  // namespace vistrel::session
