#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "engine/engineresult.h"

namespace vistrel::session {

// One network interface line of a command reply.
struct InterfaceLine {
    std::string mac;  // left out of the line when empty
    std::string name;
    std::string errors;
    std::string message = "No errors";
};

// One device line of a command reply.
struct DeviceLine {
    std::string model;
    std::string mac;
    std::string name;
    std::string errors;
    std::string message;
};

// Everything a command reply says, written in a fixed key order that clients rely on.
struct CommandDocument {
    std::string general_message;
    std::string command;
    uint32_t engine_result = engine::kEngineNotExecuted;
    // A JSON text (object or array) of per-device results, for the device commands.
    std::optional<std::string> command_result;
    std::vector<InterfaceLine> interfaces;
    std::vector<DeviceLine> tidewells;
};

// {"general_message":..,"command":..,"analyzer": {"errors":..,"message":..},
//  ["command_result":..,]"interfaces":[..],"tidewells":[..]} built by concatenation, values
// unescaped. The analyser's "errors" repeats the engine text unless the engine result is 0 or 6.
std::string command_document(const CommandDocument& document);

// A reply that only carries a message under a command text (uploads, bad requests), with the
// engine result its analyser section shows.
std::string message_document(const std::string& message, const std::string& command,
                             uint32_t engine_result = engine::kEngineNotExecuted);

// The capture status of the machine ("/getCMStatus"), from whether the engine runs.
std::string analyzer_status_document(bool running);

// "Capture machine available" or, during a firmware flash, the refusal.
std::string availability_document(bool firmware_flash_running);

}  // namespace vistrel::session
