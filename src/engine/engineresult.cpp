#include "engine/engineresult.h"

namespace vistrel::engine {

std::string result_text(uint32_t code) {
    switch (code) {
        case kEngineDone:
            return "Sucessfully executed command";
        case kEngineError:
            return "Error executing command";
        case kEngineInvalidCommand:
            return "Invalid command";
        case kEngineAlreadyRunning:
            return "It is already running";
        case kEngineAlreadyStopped:
            return "It  is already stopped";
        case kEngineRemainsRunning:
            return "It will remain running";
        case kEngineNotExecuted:
            return "Unable to execute command";
        default:
            return "Unhandled error type";
    }
}

}  // namespace vistrel::engine
