#pragma once

#include <string>

#include "common/reply.h"
#include "devices/tidewellfirmwareupdater.h"
#include "session/vistrelsession.h"

// Endpoints of the capture session and of the device commands. POST handlers take the body
// text; a body that is no JSON answers 400 "Bad Json document (Parse Error) for the given
// request", one that can't be used 400 "Bad Json document for the given request", and nothing
// else is done.
namespace vistrel::session {

// POST /startCapture
Reply handle_start_capture(VistrelSession& session, const std::string& body);
// GET /stopCaptureAll
Reply handle_stop_capture_all(VistrelSession& session);
// GET /getCMStatus
Reply handle_cm_status();
// GET /getDevices
Reply handle_get_devices(const VistrelSession& session);
// GET /getLastSession
Reply handle_last_session(const VistrelSession& session);
// GET /getTidewells
Reply handle_get_tidewells(const VistrelSession& session);
// GET /getAvailability
Reply handle_availability();
// GET /getTidewellFirmwares
Reply handle_tidewell_firmwares(const VistrelSession& session);

// POST /restartTidewell, /saveTidewell, /restoreTidewell, /setDeviceTime,
// /updateTidewellFirmware, /getTidewellFirmwareUpdateStatus
Reply handle_restart_tidewell(const VistrelSession& session,
                              devices::TidewellFirmwareUpdater& updater, const std::string& body);
Reply handle_save_tidewell(const VistrelSession& session, devices::TidewellFirmwareUpdater& updater,
                           const std::string& body);
Reply handle_restore_tidewell(const VistrelSession& session,
                              devices::TidewellFirmwareUpdater& updater, const std::string& body);
Reply handle_set_device_time(const VistrelSession& session,
                             devices::TidewellFirmwareUpdater& updater, const std::string& body);
Reply handle_update_firmware(const VistrelSession& session,
                             devices::TidewellFirmwareUpdater& updater, const std::string& body);
Reply handle_firmware_update_status(const VistrelSession& session,
                                    devices::TidewellFirmwareUpdater& updater,
                                    const std::string& body);

// The 400 replies of unreadable bodies, under the command's name.
Reply parse_error_reply(const std::string& command);
Reply bad_json_reply(const std::string& command);

}  // namespace vistrel::session
