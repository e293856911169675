#pragma once

#include <string>
#include <vector>

#include "common/reply.h"
#include "devices/tidewellfirmwareupdater.h"
#include "session/devicerequests.h"
#include "session/vistrelsession.h"

namespace vistrel::session {

// The commands on single devices named by MAC: restart, save, restore, set time, firmware
// update and its status. Each answers with a command reply whose "command_result" is
// {"type":"<result type>","results":[{"mac","name","success","errors","message"}, ...]};
// "tidewells" repeats each device's outcome. All devices succeeding answers 200, else 500.
class DeviceCommands {
  public:
    DeviceCommands(const VistrelSession& session, devices::TidewellFirmwareUpdater& updater);

    Reply restart(const std::vector<std::string>& macs);
    Reply save(const std::vector<SaveRequest>& requests);
    Reply restore(const std::vector<std::string>& macs);
    Reply set_time(const std::vector<TimeRequest>& requests);
    Reply update_firmware(const std::vector<FirmwareRequest>& requests);
    Reply firmware_status(const std::vector<std::string>& macs);

    // The factory settings a restore writes (the firmware image stays as it is).
    static TidewellAPIFeatures default_features(uint16_t hw_firmware_id);
    static TidewellAPIPortsSpeed default_port_speeds(const TidewellAPIPortsSpeed& current);

    // A firmware file as a request names it: an existing path, or the "file" or "name" of a
    // catalogue entry; empty when none of these exists.
    static std::string resolve_firmware_file(const std::string& file);

  private:
    struct Outcome {
        std::string mac;
        std::string name;
        std::string model;
        bool success = false;
        std::string errors;
        std::string message;
    };

    // Writes the features of `request` (or the defaults) and restarts the device when its
    // firmware mode changed.
    Outcome save_one(const std::string& mac, const SaveRequest* request);
    std::string device_name(const devices::StatsThreadInfo& device) const;
    Reply reply(int command, const char* result_type, const std::vector<Outcome>& outcomes,
                std::string general_message = "") const;

    const VistrelSession& session_;
    devices::TidewellFirmwareUpdater& updater_;
};

}  // namespace vistrel::session
