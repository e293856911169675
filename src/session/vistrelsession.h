#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "common/reply.h"
#include "devices/statsthreadinfo.h"
#include "engine/engineoptions.h"
#include "engine/watchkeepprocess.h"
#include "host/interfaces.h"
#include "session/replies.h"
#include "session/startrequest.h"

namespace vistrel::session {

// What the last capture or analysis was, for "/getLastSession".
struct LastSession {
    int command = -1;  // kCommandStart or kCommandAnalyze; -1 before the first
    uint32_t code = 0;
    std::string uuid;
    uint64_t start_ns = 0;
    uint64_t end_ns = 0;  // 0 while it runs
    std::vector<std::string> device_macs;
    std::vector<std::string> interface_names;
    std::string file_path;     // analyses only
    std::string command_line;  // what the engine was started with
};

// The one capture or analysis job of the machine: checks a command, starts or stops the
// devices and the capture engine, and answers with a command reply.
//
// Commands that change the session (start, analysis, stop) run one at a time; status
// questions never wait for them. "Running" is always the presence of a watchkeep process.
class VistrelSession {
  public:
    explicit VistrelSession(engine::WatchkeepProcess& engine);
    VistrelSession(const VistrelSession&) = delete;
    VistrelSession& operator=(const VistrelSession&) = delete;

    Reply start_capture(StartRequest request);
    Reply start_analysis(StartRequest request, const std::string& file_path);
    // Stops the named devices, or without a request those of the running capture; then the
    // engine, unless some device still captures.
    Reply stop_capture(std::optional<StartRequest> request = std::nullopt);

    // 2 GiB free, or 5% of the volume free, under the capture folder.
    static bool is_enough_disk_space();
    static bool is_enough_disk_space(int64_t free_bytes, int64_t total_bytes);
    // Creates <capture folder>/<device name> for each chosen device.
    bool prepare_capture_folders() const;

    // The capture name a device had in the last start command, if any (the registry knows no
    // names of its own).
    std::string remembered_name(const devices::MacAddress& mac) const;

    std::string last_session_document() const;

    // Pause between the engine's start and its presence checks, and before a stop (1 s).
    void set_pause_for_tests(std::chrono::milliseconds pause) { pause_ = pause; }

  private:
    Reply answer(uint32_t code, int command, uint32_t engine_result,
                 const std::vector<DeviceLine>& lines) const;
    std::vector<DeviceLine> device_lines(const std::vector<uint32_t>* results) const;
    static std::vector<DeviceLine> device_lines(const std::vector<devices::StatsThreadInfo>& list,
                                                const std::vector<uint32_t>* results);
    void remember(int command, uint32_t code, const std::string& file_path);
    void record_in_database(bool active);
    // What the engine is told besides its command line, for the options of this command.
    std::vector<std::pair<std::string, std::string>> engine_environment() const;

    engine::WatchkeepProcess& engine_;
    std::mutex command_mutex_;
    // The devices and interfaces of the command being answered.
    std::vector<devices::StatsThreadInfo> devices_;
    std::vector<host::NetworkInterface> interfaces_;
    // Why a requested interface cannot be captured, by name; shown in the reply's line.
    std::map<std::string, std::string> interface_errors_;
    // Those of the capture that runs, which a stop without a list ends.
    std::vector<devices::StatsThreadInfo> running_devices_;
    std::vector<host::NetworkInterface> running_interfaces_;
    std::optional<engine::EngineOptions> options_;
    std::string analysis_path_;
    std::chrono::milliseconds pause_{1000};

    mutable std::mutex last_mutex_;
    LastSession last_;
    std::vector<std::pair<devices::MacAddress, std::string>> names_;
};

}  // namespace vistrel::session
