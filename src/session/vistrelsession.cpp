#include "session/vistrelsession.h"

#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <random>
#include <thread>

#include "database/sessionrecords.h"
#include "devices/deviceoperations.h"
#include "devices/deviceregistry.h"
#include "engine/commandline.h"
#include "engine/engineresult.h"
#include "host/disk.h"
#include "host/interfaces.h"
#include "searchindex/searchindexclient.h"
#include "session/devicedocuments.h"
#include "session/sessionresult.h"
#include "startup/configuration.h"
#include "startup/logger.h"

namespace vistrel::session {

namespace {

constexpr int64_t kAlwaysEnoughBytes = 2147483648LL;  // 2 GiB
constexpr int kPresenceChecks = 5;

uint64_t now_ns() {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                     std::chrono::system_clock::now().time_since_epoch())
                                     .count());
}

std::string new_uuid() {
    std::random_device random;
    std::uniform_int_distribution<int> byte(0, 255);
    std::string text;
    char part[3];
    for (int i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
        std::snprintf(part, sizeof part, "%02x", byte(random));
        text += part;
    }
    return text;
}

engine::EngineDevice engine_device(const devices::StatsThreadInfo& device) {
    engine::EngineDevice result;
    result.name = device.name;
    result.capture_folder = devices::capture_folder_of(device);
    result.first_number = device.dd_config.CaptureTime;
    result.second_number = device.dd_config.MaxNrFiles;
    result.index_flag = device.dd_config.IndexTraffic != 0;
    result.dump_mode = device.dd_config.Mode;
    return result;
}

}  // namespace

VistrelSession::VistrelSession(engine::WatchkeepProcess& engine) : engine_(engine) {}

bool VistrelSession::is_enough_disk_space(int64_t free_bytes, int64_t total_bytes) {
    if (free_bytes < 0 || total_bytes < 0) return false;
    float five_percent = static_cast<float>(total_bytes) * 0.05f;
    return five_percent <= static_cast<float>(free_bytes) || free_bytes >= kAlwaysEnoughBytes;
}

bool VistrelSession::is_enough_disk_space() {
    const std::string& root = configuration().capture_path;
    // free_space creates a missing folder, so it must come first.
    int64_t free_bytes = host::free_space(root);
    return is_enough_disk_space(free_bytes, host::total_space(root));
}

bool VistrelSession::prepare_capture_folders() const {
    for (const auto& device : devices_) {
        std::string folder = devices::capture_folder_of(device);
        if (host::folder_exists(folder)) {
            LOG_NORMAL("[Prepare Capture] Folder at %s already exists, let's go", folder.c_str());
        } else if (!host::create_folder(folder)) {
            LOG_NORMAL(
                "[Prepare Capture] Failed to create folder for '%s' at '%s' - Unable to "
                "continue",
                device.name.c_str(), folder.c_str());
            return false;
        }
    }
    return true;
}

std::vector<DeviceLine> VistrelSession::device_lines(const std::vector<uint32_t>* results) const {
    return device_lines(devices_, results);
}

std::vector<DeviceLine> VistrelSession::device_lines(
    const std::vector<devices::StatsThreadInfo>& list, const std::vector<uint32_t>* results) {
    std::vector<DeviceLine> lines;
    for (size_t i = 0; i < list.size(); ++i) {
        const auto& device = list[i];
        DeviceLine line{devices::model_name(device.type), device.mac_text(), device.name, "", ""};
        if (results != nullptr && i < results->size()) {
            line.message = devices::result_text((*results)[i]);
            if ((*results)[i] != devices::kDeviceSuccess) line.errors = line.message;
        }
        lines.push_back(std::move(line));
    }
    return lines;
}

Reply VistrelSession::answer(uint32_t code, int command, uint32_t engine_result,
                             const std::vector<DeviceLine>& lines) const {
    CommandDocument document;
    engine::EngineOptions defaults;
    const engine::EngineOptions& options = options_ ? *options_ : defaults;
    document.general_message = session_message(code, command, options.es_host, options.es_port);
    document.command = command_name(command);
    document.engine_result = engine_result;
    for (const auto& interface : interfaces_) {
        auto error = interface_errors_.find(interface.name);
        if (error == interface_errors_.end()) {
            document.interfaces.push_back({interface.mac, interface.name, "", "No errors"});
        } else {
            document.interfaces.push_back(
                {interface.mac, interface.name, error->second, error->second});
        }
    }
    document.tidewells = lines;
    return {command_document(document), session_status(code, 200)};
}

void VistrelSession::remember(int command, uint32_t code, const std::string& file_path) {
    std::lock_guard lock(last_mutex_);
    last_ = LastSession{};
    last_.command = command;
    last_.code = code;
    last_.uuid = new_uuid();
    last_.start_ns = now_ns();
    for (const auto& device : devices_) {
        last_.device_macs.push_back(device.mac_text());
        bool known = false;
        for (auto& [mac, name] : names_) {
            if (mac == device.mac) {
                name = device.name;
                known = true;
            }
        }
        if (!known) names_.emplace_back(device.mac, device.name);
    }
    for (const auto& interface : interfaces_) last_.interface_names.push_back(interface.name);
    last_.file_path = file_path;
    if (options_) last_.command_line = options_->extra;
}

void VistrelSession::record_in_database(bool active) {
    LastSession copy;
    {
        std::lock_guard lock(last_mutex_);
        copy = last_;
    }
    if (database::save_session(copy.uuid, active ? 1 : 0, 0, copy.start_ns, copy.end_ns, "UTC") !=
        0) {
        LOG_WARNING("Could not record session '%s' in the database", copy.uuid.c_str());
    }
}

std::vector<std::pair<std::string, std::string>> VistrelSession::engine_environment() const {
    const auto& security = configuration().security;
    return engine::engine_environment(*options_, configuration().capture_path,
                                      security.tls() ? security.tls_certificate : std::string());
}

std::string VistrelSession::remembered_name(const devices::MacAddress& mac) const {
    std::lock_guard lock(last_mutex_);
    for (const auto& [known_mac, name] : names_) {
        if (known_mac == mac) return name;
    }
    return "";
}

Reply VistrelSession::start_capture(StartRequest request) {
    std::lock_guard command_lock(command_mutex_);
    LOG_NORMAL("Start capture command received");
    devices_ = std::move(request.devices);
    interfaces_ = std::move(request.interfaces);
    options_ = std::move(request.options);
    analysis_path_.clear();
    interface_errors_.clear();

    if (!is_enough_disk_space()) {
        LOG_WARNING("[Start Capture] Failed because disk space is not enough");
        return answer(kSessionLowDiskSpace, kCommandStart, engine::kEngineNotExecuted,
                      device_lines(nullptr));
    }
    if (!options_ || (devices_.empty() && interfaces_.empty())) {
        LOG_WARNING(
            "[Start Capture] Failed because we miss information or tidewell_devices for "
            "the capture");
        return answer(kSessionInternalProblem, kCommandStart, engine::kEngineNotExecuted,
                      device_lines(nullptr));
    }
    for (const auto& interface : interfaces_) {
        if (!host::adapter_exists(interface.name)) {
            interface_errors_[interface.name] =
                "Network interface '" + interface.name + "' does not exist on this machine";
        }
    }
    if (!interface_errors_.empty()) {
        LOG_WARNING("[Start Capture] Failed because a requested network interface does not exist");
        return answer(kSessionInternalProblem, kCommandStart, engine::kEngineNotExecuted,
                      device_lines(nullptr));
    }
    if (!devices_.empty()) {
        if (!devices::all_available(devices_)) {
            LOG_WARNING(
                "[Start Capture] Failed because the requested tidewell_devices are not "
                "available");
            std::vector<DeviceLine> lines = device_lines(nullptr);
            for (auto& line : lines) {
                try {
                    devices::find_handle_by_mac(line.mac);
                } catch (const devices::TidewellMissingException& missing) {
                    line.errors = missing.what();
                }
            }
            return answer(kSessionDevicesUnavailable, kCommandStart, engine::kEngineNotExecuted,
                          lines);
        }
    }
    if (devices_.size() > kMaxCaptureDevices) {
        LOG_WARNING("[Start Capture] Failed because too many tidewell_devices in parallel");
        return answer(kSessionTooManyDevices, kCommandStart, engine::kEngineNotExecuted,
                      device_lines(nullptr));
    }
    if (!searchindex::check_health(
            {}, searchindex::base_address(options_->es_host, options_->es_port))) {
        LOG_WARNING(
            "[Start Capture] Failed because elastic is not available at the given "
            "address. Using remote machine with local Elastic?");
        return answer(kSessionElasticsearchOffline, kCommandStart, engine::kEngineNotExecuted,
                      device_lines(nullptr));
    }
    if (!prepare_capture_folders()) {
        return answer(kSessionInternalProblem, kCommandStart, engine::kEngineNotExecuted,
                      device_lines(nullptr));
    }

    std::vector<engine::EngineDevice> engine_devices;
    for (const auto& device : devices_) engine_devices.push_back(engine_device(device));
    std::vector<std::string> interface_names;
    for (const auto& interface : interfaces_) interface_names.push_back(interface.name);
    options_->extra = engine::live_command_line(engine_devices, interface_names, &*options_);

    uint32_t launched = engine_.launch(options_->extra, engine_environment());
    bool present = false;
    for (int check = 0; check < kPresenceChecks && !present; ++check) {
        std::this_thread::sleep_for(pause_);
        present = engine::WatchkeepProcess::is_running();
    }
    if (launched == engine::kEngineInvalidCommand) {
        LOG_WARNING("[Start Capture] Failed because the Watchkeep command is invalid");
        return answer(kSessionInternalProblem, kCommandStart, launched, device_lines(nullptr));
    }
    if (launched == engine::kEngineAlreadyRunning) {
        LOG_WARNING("[Start Capture] Failed because Watchkeep was already running");
        return answer(kSessionAlreadyRunning, kCommandStart, launched, device_lines(nullptr));
    }
    if (launched == engine::kEngineError) {
        LOG_WARNING("[Start Capture] Failed because Watchkeep could not be started");
        return answer(kSessionInternalProblem, kCommandStart, launched, device_lines(nullptr));
    }
    if (!present) {
        // A child that came up and went again may still hold the input pipe.
        engine_.stop();
        LOG_WARNING("[Start Capture] Failed because Watchkeep could not be started");
        return answer(kSessionInternalProblem, kCommandStart, launched, device_lines(nullptr));
    }

    std::vector<uint32_t> results;
    for (auto& device : devices_) {
        std::string mac = device.mac_text();
        LOG_NORMAL("Starting APIs Capture for device [%s]", mac.c_str());
        uint32_t result = devices::kDeviceInvalid;
        try {
            // The request names the device; the registry knows its handle and model.
            devices::StatsThreadInfo present_device = devices::find_device_by_mac(mac);
            device.handle = present_device.handle;
            device.type = present_device.type;
            device.capabilities = present_device.capabilities;
            result = devices::api_start(device);
        } catch (const devices::TidewellMissingException& missing) {
            LOG_WARNING("%s", missing.what());
        }
        results.push_back(result);
    }
    bool all_failed = !devices_.empty();
    for (uint32_t result : results) all_failed = all_failed && result != devices::kDeviceSuccess;
    if (all_failed) {
        LOG_ERROR("All Tidewell devices failed to start, stopping Watchkeep");
        engine_.stop();
        return answer(kSessionInternalProblem, kCommandStart, launched, device_lines(&results));
    }
    running_devices_ = devices_;
    running_interfaces_ = interfaces_;
    remember(kCommandStart, kSessionDone, "");
    record_in_database(true);
    return answer(kSessionDone, kCommandStart, launched, device_lines(&results));
}

Reply VistrelSession::start_analysis(StartRequest request, const std::string& file_path) {
    std::lock_guard command_lock(command_mutex_);
    LOG_NORMAL("Start pcap analysys command received");
    interface_errors_.clear();
    devices_.clear();
    interfaces_.clear();
    options_ = std::move(request.options);
    analysis_path_ = file_path;
    if (!is_enough_disk_space()) {
        LOG_WARNING("[Start Analysis] Failed because disk space is not enough");
        return answer(kSessionLowDiskSpace, kCommandAnalyze, engine::kEngineNotExecuted, {});
    }
    if (!options_) {
        LOG_WARNING("[Start Analysis] Failed because the analyzer options are missing");
        return answer(kSessionInternalProblem, kCommandAnalyze, engine::kEngineNotExecuted, {});
    }
    options_->extra = engine::analysis_command_line(analysis_path_, &*options_);
    uint32_t launched = engine_.launch(options_->extra, engine_environment());
    uint32_t code = kSessionDone;
    if (launched == engine::kEngineInvalidCommand) code = kSessionInternalProblem;
    if (launched == engine::kEngineAlreadyRunning) code = kSessionAlreadyRunning;
    if (code == kSessionDone) remember(kCommandAnalyze, code, analysis_path_);
    return answer(code, kCommandAnalyze, launched, {});
}

Reply VistrelSession::stop_capture(std::optional<StartRequest> request) {
    std::lock_guard command_lock(command_mutex_);
    LOG_NORMAL("Stop capture command received");
    interface_errors_.clear();
    // A stop names some devices, or else means the devices of the running capture. The
    // capture's own list stays, so a later stop of everything still knows all of them.
    const bool partial = request.has_value();
    std::vector<devices::StatsThreadInfo> stopping = partial ? request->devices : running_devices_;
    interfaces_ = partial ? request->interfaces : running_interfaces_;
    const bool no_interfaces = interfaces_.empty();
    if (stopping.empty() && no_interfaces && engine::WatchkeepProcess::is_running()) {
        LOG_WARNING(
            "[Stop Capture] Stopping Watchkeep session while missing interfaces "
            "information");
        uint32_t stopped = engine_.stop();
        return answer(kSessionInternalProblem, kCommandStop, stopped, {});
    }

    std::vector<uint32_t> results;
    for (auto& device : stopping) {
        std::string mac = device.mac_text();
        uint32_t result = devices::kDeviceSuccess;
        try {
            // A device that was restarted since the start may carry a new handle.
            device.handle = devices::find_handle_by_mac(mac);
            if (devices::is_device_capturing(device)) {
                result = devices::api_stop(device);
                if (result != devices::kDeviceSuccess) {
                    LOG_WARNING("[Stop Capture] Failed to stop capture on Tidewell (%s)",
                                mac.c_str());
                }
            }
        } catch (const devices::TidewellMissingException& missing) {
            LOG_WARNING("%s", missing.what());
            result = devices::kDeviceInvalid;
        }
        results.push_back(result);
    }
    if (devices::any_capturing()) {
        return answer(kSessionPartlyStopped, kCommandStop, engine::kEngineRemainsRunning,
                      device_lines(stopping, &results));
    }
    LOG_WARNING("[Stop Capture] Sleeping 1 sec before watchkeep stop");
    std::this_thread::sleep_for(pause_);
    uint32_t stopped = engine_.stop();
    if (stopped != engine::kEngineDone) {
        LOG_WARNING("[Stop Capture] Failed to stop because watchkeep kill returned error");
        return answer(kSessionInternalProblem, kCommandStop, stopped,
                      device_lines(stopping, &results));
    }
    Reply reply = answer(kSessionDone, kCommandStop, stopped, device_lines(stopping, &results));
    bool was_capture = false;
    {
        std::lock_guard lock(last_mutex_);
        if (last_.command >= 0 && last_.end_ns == 0) {
            last_.end_ns = now_ns();
            was_capture = last_.command == kCommandStart;
        }
    }
    if (was_capture) record_in_database(false);
    running_devices_.clear();
    running_interfaces_.clear();
    return reply;
}

std::string VistrelSession::last_session_document() const {
    bool running = engine::WatchkeepProcess::is_running();
    std::lock_guard lock(last_mutex_);
    nlohmann::ordered_json document;
    document["running"] = running ? "true" : "false";
    document["message"] = running ? "There is a session running" : "No session is running";
    if (last_.command < 0) {
        document["last_session"] = nullptr;
        return document_text(document);
    }
    nlohmann::ordered_json& last = document["last_session"];
    last["uuid"] = last_.uuid;
    last["command"] = command_name(last_.command);
    last["start_ts"] = last_.start_ns;
    last["end_ts"] = last_.end_ns;
    last["tidewells"] = last_.device_macs;
    last["interfaces"] = last_.interface_names;
    last["file_path"] = last_.file_path;
    last["engine_command"] = last_.command_line;
    return document_text(document);
}

}  // namespace vistrel::session
