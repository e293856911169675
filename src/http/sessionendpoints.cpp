#include "http/sessionendpoints.h"

#include <exception>
#include <functional>
#include <nlohmann/json.hpp>

#include "devices/firmwareguard.h"
#include "engine/watchkeepprocess.h"
#include "session/devicecommands.h"
#include "session/devicelistings.h"
#include "session/devicerequests.h"
#include "session/replies.h"
#include "session/sessionresult.h"
#include "session/startrequest.h"

namespace vistrel::http {

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
    return {
        session::message_document("Bad Json document (Parse Error) for the given request", command),
        400};
}

Reply bad_json_reply(const std::string& command) {
    return {session::message_document("Bad Json document for the given request", command), 400};
}

Reply handle_start_capture(session::VistrelSession& session, const std::string& body) {
    const std::string command = session::command_name(session::kCommandStart);
    session::StartRequest request;
    try {
        if (!session::read_start_request(body, false, request)) return bad_json_reply(command);
    } catch (const nlohmann::json::parse_error&) {
        return parse_error_reply(command);
    } catch (const std::exception&) {
        return bad_json_reply(command);
    }
    return session.start_capture(std::move(request));
}

Reply handle_stop_capture_all(session::VistrelSession& session) {
    return session.stop_capture();
}

Reply handle_cm_status() {
    return {session::analyzer_status_document(engine::WatchkeepProcess::is_running()), 200};
}

Reply handle_get_devices(const session::VistrelSession& session) {
    return {"{" + session::devices_list_text(session) + "}", 200};
}

Reply handle_last_session(const session::VistrelSession& session) {
    return {session.last_session_document(), 200};
}

Reply handle_get_tidewells(const session::VistrelSession& session) {
    return session::tidewells_reply(session);
}

Reply handle_availability() {
    return {session::availability_document(devices::update_running()), 200};
}

Reply handle_tidewell_firmwares(const session::VistrelSession& session) {
    return session::firmwares_reply(session);
}

Reply handle_restart_tidewell(const session::VistrelSession& session,
                              devices::TidewellFirmwareUpdater& updater, const std::string& body) {
    return with_request<std::vector<std::string>>(
        session::command_name(session::kCommandRestartDevice),
        [&body] { return session::read_restart_request(body); },
        [&](std::vector<std::string>& macs) {
            return session::DeviceCommands(session, updater).restart(macs);
        });
}

Reply handle_save_tidewell(const session::VistrelSession& session,
                           devices::TidewellFirmwareUpdater& updater, const std::string& body) {
    return with_request<std::vector<session::SaveRequest>>(
        session::command_name(session::kCommandSaveTidewells),
        [&body] { return session::read_save_request(body); },
        [&](std::vector<session::SaveRequest>& requests) {
            return session::DeviceCommands(session, updater).save(requests);
        });
}

Reply handle_restore_tidewell(const session::VistrelSession& session,
                              devices::TidewellFirmwareUpdater& updater, const std::string& body) {
    return with_request<std::vector<std::string>>(
        session::command_name(session::kCommandRestoreDevice),
        [&body] { return session::read_restore_request(body); },
        [&](std::vector<std::string>& macs) {
            return session::DeviceCommands(session, updater).restore(macs);
        });
}

Reply handle_set_device_time(const session::VistrelSession& session,
                             devices::TidewellFirmwareUpdater& updater, const std::string& body) {
    return with_request<std::vector<session::TimeRequest>>(
        session::command_name(session::kCommandSetDeviceTime),
        [&body] { return session::read_time_request(body); },
        [&](std::vector<session::TimeRequest>& requests) {
            return session::DeviceCommands(session, updater).set_time(requests);
        });
}

Reply handle_update_firmware(const session::VistrelSession& session,
                             devices::TidewellFirmwareUpdater& updater, const std::string& body) {
    return with_request<std::vector<session::FirmwareRequest>>(
        session::command_name(session::kCommandFlushFirmware),
        [&body] { return session::read_firmware_request(body); },
        [&](std::vector<session::FirmwareRequest>& requests) {
            return session::DeviceCommands(session, updater).update_firmware(requests);
        });
}

Reply handle_firmware_update_status(const session::VistrelSession& session,
                                    devices::TidewellFirmwareUpdater& updater,
                                    const std::string& body) {
    return with_request<std::vector<std::string>>(
        session::command_name(session::kCommandFirmwareStatus),
        [&body] { return session::read_firmware_status_request(body); },
        [&](std::vector<std::string>& macs) {
            return session::DeviceCommands(session, updater).firmware_status(macs);
        });
}

}  // namespace vistrel::http
