#include "session/sessionendpoints.h"

#include <exception>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>

#include "devices/firmwareguard.h"
#include "engine/watchkeepprocess.h"
#include "session/devicecommands.h"
#include "session/devicelistings.h"
#include "session/devicerequests.h"
#include "session/replies.h"
#include "session/sessionresult.h"
#include "session/startrequest.h"

namespace vistrel::session {

namespace {

// Reads the body with `read`, then runs `act`; unreadable bodies answer 400 without acting.
template <typename Request>
Reply with_request(const std::string& command, const std::function<Request()>& read,
                   const std::function<Reply(Request&)>& act) {
    Request request;
    try {
        request = read();
    } catch (const nlohmann::json::parse_error&) {
        return parse_error_reply(command);
    } catch (const std::exception&) {
        return bad_json_reply(command);
    }
    return act(request);
}

}  // namespace

Reply parse_error_reply(const std::string& command) {
    return {message_document("Bad Json document (Parse Error) for the given request", command),
            400};
}

Reply bad_json_reply(const std::string& command) {
    return {message_document("Bad Json document for the given request", command), 400};
}

Reply handle_start_capture(VistrelSession& session, const std::string& body) {
    const std::string command = command_name(kCommandStart);
    return with_request<std::optional<StartRequest>>(
        command,
        [&body]() -> std::optional<StartRequest> {
            StartRequest request;
            if (!read_start_request(body, false, request)) return std::nullopt;
            return request;
        },
        [&](std::optional<StartRequest>& request) {
            if (!request) return bad_json_reply(command);
            return session.start_capture(std::move(*request));
        });
}

Reply handle_stop_capture_all(VistrelSession& session) {
    return session.stop_capture();
}

Reply handle_cm_status() {
    return {analyzer_status_document(engine::WatchkeepProcess::is_running()), 200};
}

Reply handle_get_devices(const VistrelSession& session) {
    return {"{" + devices_list_text(session) + "}", 200};
}

Reply handle_last_session(const VistrelSession& session) {
    return {session.last_session_document(), 200};
}

Reply handle_get_tidewells(const VistrelSession& session) {
    return tidewells_reply(session);
}

Reply handle_availability() {
    return {availability_document(devices::update_running()), 200};
}

Reply handle_tidewell_firmwares(const VistrelSession& session) {
    return firmwares_reply(session);
}

Reply handle_restart_tidewell(const VistrelSession& session,
                              devices::TidewellFirmwareUpdater& updater, const std::string& body) {
    return with_request<std::vector<std::string>>(
        command_name(kCommandRestartDevice), [&body] { return read_restart_request(body); },
        [&](std::vector<std::string>& macs) {
            return DeviceCommands(session, updater).restart(macs);
        });
}

Reply handle_save_tidewell(const VistrelSession& session, devices::TidewellFirmwareUpdater& updater,
                           const std::string& body) {
    return with_request<std::vector<SaveRequest>>(
        command_name(kCommandSaveTidewells), [&body] { return read_save_request(body); },
        [&](std::vector<SaveRequest>& requests) {
            return DeviceCommands(session, updater).save(requests);
        });
}

Reply handle_restore_tidewell(const VistrelSession& session,
                              devices::TidewellFirmwareUpdater& updater, const std::string& body) {
    return with_request<std::vector<std::string>>(
        command_name(kCommandRestoreDevice), [&body] { return read_restore_request(body); },
        [&](std::vector<std::string>& macs) {
            return DeviceCommands(session, updater).restore(macs);
        });
}

Reply handle_set_device_time(const VistrelSession& session,
                             devices::TidewellFirmwareUpdater& updater, const std::string& body) {
    return with_request<std::vector<TimeRequest>>(
        command_name(kCommandSetDeviceTime), [&body] { return read_time_request(body); },
        [&](std::vector<TimeRequest>& requests) {
            return DeviceCommands(session, updater).set_time(requests);
        });
}

Reply handle_update_firmware(const VistrelSession& session,
                             devices::TidewellFirmwareUpdater& updater, const std::string& body) {
    return with_request<std::vector<FirmwareRequest>>(
        command_name(kCommandFlushFirmware), [&body] { return read_firmware_request(body); },
        [&](std::vector<FirmwareRequest>& requests) {
            return DeviceCommands(session, updater).update_firmware(requests);
        });
}

Reply handle_firmware_update_status(const VistrelSession& session,
                                    devices::TidewellFirmwareUpdater& updater,
                                    const std::string& body) {
    return with_request<std::vector<std::string>>(
        command_name(kCommandFirmwareStatus),
        [&body] { return read_firmware_status_request(body); },
        [&](std::vector<std::string>& macs) {
            return DeviceCommands(session, updater).firmware_status(macs);
        });
}

}  // namespace vistrel::session
