#include "session/devicecommands.h"

#include <cstdio>
#include <exception>
#include <nlohmann/json.hpp>

#include "TidewellDefaults.h"
#include "devices/deviceoperations.h"
#include "devices/deviceregistry.h"
#include "devices/devicetime.h"
#include "devices/firmwarestash.h"
#include "host/disk.h"
#include "host/paths.h"
#include "session/devicedocuments.h"
#include "session/replies.h"
#include "session/sessionresult.h"
#include "startup/logger.h"

namespace vistrel::session {

namespace {

std::string format_with(const char* format, const std::string& mac, const std::string& name) {
    char text[512];
    std::snprintf(text, sizeof text, format, mac.c_str(), name.c_str());
    return text;
}

void* as_pointer(TidewellAPIHandle handle) {
    return reinterpret_cast<void*>(static_cast<uintptr_t>(handle));
}

}  // namespace

DeviceCommands::DeviceCommands(const VistrelSession& session,
                               devices::TidewellFirmwareUpdater& updater)
    : session_(session), updater_(updater) {}

std::string DeviceCommands::device_name(const devices::StatsThreadInfo& device) const {
    return device.name.empty() ? session_.remembered_name(device.mac) : device.name;
}

Reply DeviceCommands::reply(int command, const char* result_type,
                            const std::vector<Outcome>& outcomes,
                            std::string general_message) const {
    bool all_succeeded = true;
    nlohmann::ordered_json results = nlohmann::ordered_json::array();
    CommandDocument document;
    for (const auto& outcome : outcomes) {
        all_succeeded = all_succeeded && outcome.success;
        results.push_back({{"mac", outcome.mac},
                           {"name", outcome.name},
                           {"success", outcome.success},
                           {"errors", outcome.errors},
                           {"message", outcome.message}});
        document.tidewells.push_back(
            {outcome.model, outcome.mac, outcome.name, outcome.errors, outcome.message});
    }
    uint32_t code = all_succeeded ? kSessionDone : kSessionInternalProblem;
    document.general_message =
        general_message.empty() ? session_message(code, command) : general_message;
    document.command = command_name(command);
    nlohmann::ordered_json command_result;
    command_result["type"] = result_type;
    command_result["results"] = results;
    document.command_result = document_text(command_result);
    return {command_document(document), session_status(code, 200)};
}

Reply DeviceCommands::restart(const std::vector<std::string>& macs) {
    std::vector<Outcome> outcomes;
    for (const auto& mac : macs) {
        Outcome outcome;
        outcome.mac = mac;
        try {
            devices::StatsThreadInfo device = devices::find_device_by_mac(mac);
            outcome.name = device_name(device);
            outcome.model = devices::model_name(device.type);
            uint32_t result = devices::api_restart_device(device);
            outcome.success = result == devices::kDeviceSuccess;
            outcome.message =
                outcome.success ? "Successfully restarted device" : "Failed to restart device";
            if (!outcome.success) outcome.errors = devices::result_text(result);
        } catch (const devices::TidewellMissingException& missing) {
            outcome.errors = missing.what();
            outcome.message = "Failed to restart device";
        }
        outcomes.push_back(outcome);
    }
    return reply(kCommandRestartDevice, "restart_device", outcomes);
}

TidewellAPIFeatures DeviceCommands::default_features(uint16_t hw_firmware_id) {
    return tidewell_factory_features(hw_firmware_id);
}

TidewellAPIPortsSpeed DeviceCommands::default_port_speeds(const TidewellAPIPortsSpeed& current) {
    TidewellAPIPortsSpeed speeds = current;
    for (auto& speed : speeds.Speed) speed = TidewellAPIPortSpeed_Auto;
    speeds.AutoNegotiation = TidewellAPIState_On;
    return speeds;
}

DeviceCommands::Outcome DeviceCommands::save_one(const std::string& mac,
                                                 const SaveRequest* request) {
    const bool restore = request == nullptr;
    Outcome outcome;
    outcome.mac = mac;
    try {
        devices::StatsThreadInfo registered = devices::find_device_by_mac(mac);
        devices::StatsThreadInfo device = registered;
        outcome.name = device_name(device);
        outcome.model = devices::model_name(device.type);
        LOG_DEBUG("Saving Tidewell for handle =  %p", as_pointer(device.handle));
        // Features and port speeds as the device has them now; the request changes only what
        // it names.
        devices::get_iface_status(device);
        if (restore) {
            device.features = default_features(registered.features.HWFirmwareId);
            device.port_speeds = default_port_speeds(device.port_speeds);
        } else {
            apply_features(request->features, device.features);
            apply_port_speeds(request->port_speeds, device.port_speeds);
        }
        bool saved = devices::set_features(device) && devices::save_features(device);
        outcome.success = saved;
        if (restore) {
            outcome.message = format_with(
                saved ? "Successfully restored device %s (%s)" : "Could not restore device %s (%s)",
                mac, outcome.name);
        } else {
            outcome.message = format_with(saved ? "Successfully saved tidewell features for "
                                                  "device %s (%s)"
                                                : "Could not save tidewell features for device "
                                                  "%s (%s)",
                                          mac, outcome.name);
        }
        if (!saved) outcome.errors = outcome.message;
        if (saved && device.features.HWFirmwareId != registered.features.HWFirmwareId) {
            int result = devices::restart_device(device) ? 0 : 1;
            LOG_DEBUG("Save Tidewell required reset device with result = %d", result);
            outcome.message =
                "The device firmware mode was changed, and the device will be "
                "restarted";
        }
    } catch (const devices::TidewellMissingException& missing) {
        outcome.errors = missing.what();
        outcome.message = missing.what();
    }
    return outcome;
}

Reply DeviceCommands::save(const std::vector<SaveRequest>& requests) {
    std::vector<Outcome> outcomes;
    for (const auto& request : requests) outcomes.push_back(save_one(request.mac, &request));
    return reply(kCommandSaveTidewells, "save_device", outcomes);
}

Reply DeviceCommands::restore(const std::vector<std::string>& macs) {
    std::vector<Outcome> outcomes;
    for (const auto& mac : macs) outcomes.push_back(save_one(mac, nullptr));
    return reply(kCommandRestoreDevice, "restore_device", outcomes);
}

Reply DeviceCommands::set_time(const std::vector<TimeRequest>& requests) {
    std::vector<Outcome> outcomes;
    for (const auto& request : requests) {
        Outcome outcome;
        outcome.mac = request.mac;
        const bool sntp = request.timing.Source == TidewellAPITimeSource_SNTP;
        try {
            devices::StatsThreadInfo device = devices::find_device_by_mac(request.mac);
            outcome.name = device_name(device);
            outcome.model = devices::model_name(device.type);
            devices::DeviceHandle handle{device.handle, request.timing};
            outcome.success = devices::set_device_time(handle);
            if (sntp) {
                outcome.message = outcome.success ? "Successfully set device time from SNTP"
                                                  : "Could not set device time from SNTP";
            } else {
                outcome.message = outcome.success ? "Successfully set device time from GPS"
                                                  : "Could not set device time from GPS";
            }
            if (!outcome.success) outcome.errors = outcome.message;
        } catch (const devices::TidewellMissingException& missing) {
            outcome.errors = missing.what();
            outcome.message =
                sntp ? "Could not set device time from SNTP" : "Could not set device time from GPS";
        }
        outcomes.push_back(outcome);
    }
    return reply(kCommandSetDeviceTime, "set_device_time", outcomes);
}

std::string DeviceCommands::resolve_firmware_file(const std::string& file) {
    if (file.empty()) return "";
    if (host::file_exists(file) && !host::folder_exists(file)) return file;
    std::vector<devices::FirmwareImage> images;
    if (!devices::read_firmware_catalogue(host::firmware_catalogue_path(), images)) return "";
    for (const auto& image : images) {
        if ((image.file == file || image.name == file) && host::file_exists(image.path)) {
            return image.path;
        }
    }
    return "";
}

Reply DeviceCommands::update_firmware(const std::vector<FirmwareRequest>& requests) {
    if (devices::any_capturing()) {
        LOG_WARNING("Cannot start firmware update, a capture session is running.");
        CommandDocument document;
        document.general_message =
            session_message(kSessionFirmwareWhileCapturing, kCommandFlushFirmware);
        document.command = command_name(kCommandFlushFirmware);
        return {command_document(document), session_status(kSessionFirmwareWhileCapturing, 400)};
    }
    std::vector<Outcome> outcomes;
    bool unusable_input = false;
    for (const auto& request : requests) {
        Outcome outcome;
        outcome.mac = request.mac;
        // A path too long for the updater goes to it as it is, so that it says why.
        const bool too_long = request.firmware_file.size() > devices::MaxFirmwarePathLength;
        std::string path =
            too_long ? request.firmware_file : resolve_firmware_file(request.firmware_file);
        if (path.empty()) {
            unusable_input = true;
            outcome.message = "Incorrect input firmware. Failure to update device.";
            outcome.errors = outcome.message;
            outcomes.push_back(outcome);
            continue;
        }
        try {
            devices::StatsThreadInfo device = devices::find_device_by_mac(request.mac);
            outcome.name = device_name(device);
            outcome.model = devices::model_name(device.type);
            devices::FirmwareStartResult started = updater_.start_update(request.mac, path);
            outcome.success = started.success;
            outcome.message = started.message;
            if (!started.success) outcome.errors = started.message;
        } catch (const devices::TidewellMissingException& missing) {
            outcome.errors = missing.what();
            outcome.message = missing.what();
        }
        outcomes.push_back(outcome);
    }
    Reply answer = reply(kCommandFlushFirmware, "flush_tidewell_firmware", outcomes,
                         outcomes.empty() ? "" : outcomes.front().message);
    if (unusable_input) answer.status = 400;
    return answer;
}

Reply DeviceCommands::firmware_status(const std::vector<std::string>& macs) {
    CommandDocument document;
    document.command = command_name(kCommandFirmwareStatus);
    nlohmann::ordered_json results = nlohmann::ordered_json::array();
    for (const auto& mac : macs) {
        devices::FirmwareUpdateStatus status = updater_.status(mac);
        if (document.general_message.empty()) document.general_message = status.message;
        nlohmann::ordered_json entry;
        entry["mac"] = mac;
        entry["firmware_update"] = status.message;
        entry["update_in_progress"] = status.update_in_progress;
        entry["update_progress"] = status.update_progress;
        entry["update_success"] = status.update_success;
        entry["start_success"] = status.start_success;
        results.push_back(entry);
    }
    nlohmann::ordered_json command_result;
    command_result["type"] = "firmware_update_status";
    command_result["results"] = results;
    document.command_result = document_text(command_result);
    return {command_document(document), 200};
}

}  // namespace vistrel::session
