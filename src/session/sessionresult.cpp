#include "session/sessionresult.h"

namespace vistrel::session {

namespace {

const char* const kUnhandled = "Unhandled behavior";

// Device commands have no column of their own in the reply table: they share these texts.
std::string device_command_message(uint32_t code) {
    switch (code) {
        case kSessionDone:
            return "Correctly executed command";
        case kSessionInternalProblem:
            return "Unable to execute command, internal problems";
        default:
            return kUnhandled;
    }
}

}  // namespace

std::string command_name(int command) {
    switch (command) {
        case kCommandStart:
            return "start";
        case kCommandAnalyze:
            return "analyze";
        case kCommandStop:
            return "stop";
        case kCommandRestartDevice:
            return "restart_device";
        case kCommandGetTidewells:
            return "get_tidewells";
        case kCommandSaveTidewells:
            return "save_tidewells";
        case kCommandSetDeviceTime:
            return "set_device_time_from_sntp";
        case kCommandFlushFirmware:
            return "flush_tidewell_firmware";
        case kCommandFirmwareStatus:
            return "get_vistrel_firmware_update_status";
        case kCommandRestoreDevice:
            return "restore_device";
        case kCommandGetAvailability:
            return "get_availability";
        default:
            return "unknown";
    }
}

std::string session_message(uint32_t code, int command, const std::string& es_host,
                            const std::string& es_port) {
    switch (code) {
        case kSessionDevicesUnavailable:
            return "Unable to start a capture in unavailable tidewell_devices (check your device "
                   "connection)";
        case kSessionTooManyDevices:
            return "Trying to run a capture in too many tidewell_devices simultaneously, maximum " +
                   std::to_string(kMaxCaptureDevices) + " tidewell_devices allowed";
        case kSessionElasticsearchOffline:
            return "Unable to run a capture. Elasticsearch from capture machine at " + es_host +
                   ":" + es_port + " is offline. Use another Elasticsearch Instance";
        case kSessionFirmwareWhileCapturing:
            return "It is impossible to start a firmware update if any device is currently "
                   "capturing";
        default:
            break;
    }
    if (command == kCommandStart) {
        switch (code) {
            case kSessionDone:
                return "Correctly started capture";
            case kSessionInternalProblem:
                return "Unable to start capture, internal problems";
            case kSessionNeedsAdministrator:
                return "In order to use Network Interfaces, please run Vistrel as administrator "
                       "and try again";
            case kSessionAlreadyRunning:
                return "Cannot start capture, it is still running";
            case kSessionAlreadyStopped:
            case kSessionPartlyStopped:
                return "Unhandled behavior for start command";
            case kSessionLowDiskSpace:
                return "Low disk space, cannot start capture";
            default:
                return kUnhandled;
        }
    }
    if (command == kCommandAnalyze) {
        switch (code) {
            case kSessionDone:
                return "Correctly started analysis";
            case kSessionInternalProblem:
                return "Unable to start capture analysis, internal problems";
            case kSessionAlreadyRunning:
                return "Unable to start capture analysis, another capture is running";
            default:
                return kUnhandled;
        }
    }
    if (command == kCommandStop) {
        switch (code) {
            case kSessionDone:
                return "Correctly stopped capture";
            case kSessionInternalProblem:
                return "Unable to stop capture, internal problems";
            case kSessionNeedsAdministrator:
                return "In order to use Network Interfaces, please run Vistrel as administrator "
                       "and try again";
            case kSessionAlreadyStopped:
                return "Cannot stop capture, it is already stopped";
            case kSessionPartlyStopped:
                return "Correctly stopped the selected tidewell_devices, however the capture "
                       "didn't stop completely because there are still tidewell_devices "
                       "capturing";
            case kSessionLowDiskSpace:
                return "Unhandled behavior for stop command";
            default:
                return kUnhandled;
        }
    }
    return device_command_message(code);
}

int session_status(uint32_t code, int current) {
    switch (code) {
        case kSessionDone:
        case kSessionPartlyStopped:
            return 200;
        case kSessionInternalProblem:
            return 500;
        case kSessionNeedsAdministrator:
            return 401;
        case kSessionAlreadyRunning:
        case kSessionAlreadyStopped:
        case kSessionDevicesUnavailable:
        case kSessionElasticsearchOffline:
            return 503;
        case kSessionLowDiskSpace:
            return 507;
        case kSessionTooManyDevices:
        case kSessionFirmwareWhileCapturing:
            return 400;
        default:
            return current;
    }
}

}  // namespace vistrel::session
