#pragma once

#include <string>

#include "common/reply.h"
#include "devices/tidewellfirmwareupdater.h"
#include "session/vistrelsession.h"

// Endpoints of the capture session and of the device commands. POST handlers take the body
// text; a body that is no JSON answers 400 "Bad Json document (Parse Error) for the given
// request", one that can't be used 400 "Bad Json document for the given request", and nothing
// else is done.
namespace vistrel::http {

// POST /startCapture
Reply handle_start_capture(session::VistrelSession& session, const std::string& body);
// GET /stopCaptureAll
Reply handle_stop_capture_all(session::VistrelSession& session);
// GET /getCMStatus
Reply handle_cm_status();
// GET /getDevices
Reply handle_get_devices(const session::VistrelSession& session);
// GET /getLastSession
Reply handle_last_session(const session::VistrelSession& session);
// GET /getTidewells
Reply handle_get_tidewells(const session::VistrelSession& session);
// GET /getAvailability
Reply handle_availability();
// GET /getTidewellFirmwares
Reply handle_tidewell_firmwares(const session::VistrelSession& session);

// POST /restartTidewell, /saveTidewell, /restoreTidewell, /setDeviceTime,
// /updateTidewellFirmware, /getTidewellFirmwareUpdateStatus
Reply handle_restart_tidewell(const session::VistrelSession& session,
                              devices::TidewellFirmwareUpdater& updater, const std::string& body);
Reply handle_save_tidewell(const session::VistrelSession& session,
                           devices::TidewellFirmwareUpdater& updater, const std::string& body);
Reply handle_restore_tidewell(const session::VistrelSession& session,
                              devices::TidewellFirmwareUpdater& updater, const std::string& body);
Reply handle_set_device_time(const session::VistrelSession& session,
                             devices::TidewellFirmwareUpdater& updater, const std::string& body);
Reply handle_update_firmware(const session::VistrelSession& session,
                             devices::TidewellFirmwareUpdater& updater, const std::string& body);
Reply handle_firmware_update_status(const session::VistrelSession& session,
                                    devices::TidewellFirmwareUpdater& updater,
                                    const std::string& body);

// The 400 replies of unreadable bodies, under the command's name.
Reply parse_error_reply(const std::string& command);
Reply bad_json_reply(const std::string& command);

}  // namespace vistrel::http
