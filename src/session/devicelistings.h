#pragma once

#include <string>

#include "common/reply.h"
#include "session/vistrelsession.h"

// The documents that list the attached devices and the firmware offered to them.
namespace vistrel::session {

// "\"devices\":[<summary>, ...]" over the registry ("/getDevices" wraps it in braces).
std::string devices_list_text(const VistrelSession& session);

// "/getTidewells": {"general_message":"Successfully retrieved all tidewell tidewell_devices",
// "command":"get_tidewells","devices":[<details>, ...]}
Reply tidewells_reply(const VistrelSession& session);

// "/getTidewellFirmwares": the catalogue and, per device, the images meant for it.
Reply firmwares_reply(const VistrelSession& session);

}  // namespace vistrel::session
