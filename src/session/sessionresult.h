#pragma once

#include <cstdint>
#include <string>

namespace vistrel::session {

// Outcome of a session or device command; the reply's HTTP status follows from it.
enum SessionResult : uint32_t {
    kSessionDone = 0,
    kSessionInternalProblem = 1,
    kSessionNeedsAdministrator = 2,
    kSessionAlreadyRunning = 3,
    kSessionAlreadyStopped = 4,
    kSessionPartlyStopped = 5,
    kSessionLowDiskSpace = 6,
    kSessionDevicesUnavailable = 8,
    kSessionTooManyDevices = 9,
    kSessionElasticsearchOffline = 10,
    kSessionFirmwareWhileCapturing = 14,
};

// The commands whose names appear in replies.
enum Command : int {
    kCommandStart = 0,
    kCommandAnalyze = 1,
    kCommandStop = 2,
    kCommandRestartDevice = 3,
    kCommandGetTidewells = 4,
    kCommandSaveTidewells = 5,
    kCommandSetDeviceTime = 6,
    kCommandFlushFirmware = 7,
    kCommandFirmwareStatus = 8,
    kCommandRestoreDevice = 9,
    kCommandGetAvailability = 10,
};

// At most this many devices capture at once.
constexpr size_t kMaxCaptureDevices = 6;

// "start", "analyze", ... ; "unknown" for any other number.
std::string command_name(int command);

// The "general_message" of a reply for this result and command. Elasticsearch's address is
// only used by code 10.
std::string session_message(uint32_t code, int command, const std::string& es_host = "",
                            const std::string& es_port = "");

// HTTP status of a result; codes without one keep `current`.
int session_status(uint32_t code, int current);

}  // namespace vistrel::session
