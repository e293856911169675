#include "session/replies.h"

#include "session/sessionresult.h"

namespace vistrel::session {

namespace {

std::string pair(const std::string& key, const std::string& value) {
    return "\"" + key + "\":\"" + value + "\"";
}

}  // namespace

std::string command_document(const CommandDocument& document) {
    std::string engine_text = engine::result_text(document.engine_result);
    std::string engine_errors = (document.engine_result == engine::kEngineDone ||
                                 document.engine_result == engine::kEngineNotExecuted)
                                    ? ""
                                    : engine_text;
    std::string text = "{" + pair("general_message", document.general_message) + ",";
    text += pair("command", document.command) + ",";
    text += "\"analyzer\": {" + pair("errors", engine_errors) + "," + pair("message", engine_text) +
            "},";
    if (document.command_result) text += "\"command_result\":" + *document.command_result + ",";
    text += "\"interfaces\":[";
    for (size_t i = 0; i < document.interfaces.size(); ++i) {
        const auto& line = document.interfaces[i];
        if (i > 0) text += ",";
        text += "{";
        if (!line.mac.empty()) text += pair("mac", line.mac) + ",";
        text += pair("name", line.name) + "," + pair("errors", line.errors) + "," +
                pair("message", line.message) + "}";
    }
    text += "],\"tidewells\":[";
    for (size_t i = 0; i < document.tidewells.size(); ++i) {
        const auto& line = document.tidewells[i];
        if (i > 0) text += ",";
        text += "{" + pair("model", line.model) + "," + pair("mac", line.mac) + "," +
                pair("name", line.name) + "," + pair("errors", line.errors) + "," +
                pair("message", line.message) + "}";
    }
    text += "]}";
    return text;
}

std::string message_document(const std::string& message, const std::string& command,
                             uint32_t engine_result) {
    CommandDocument document;
    document.general_message = message;
    document.command = command;
    document.engine_result = engine_result;
    return command_document(document);
}

std::string analyzer_status_document(bool running) {
    const char* message =
        running ? "To start a new session stop your current job or wait until its finished"
                : "You can run a capture session or import a capture file";
    return "{\"analyzer\": {" + pair("running", running ? "true" : "false") + "," +
           pair("error", "false") + "," + pair("message", message) + "}}";
}

std::string availability_document(bool firmware_flash_running) {
    const char* message = firmware_flash_running
                              ? "Capture machine is not available, there is a firmware flash in "
                                "progress"
                              : "Capture machine available";
    return "{" + pair("general_message", message) + "," +
           pair("command", command_name(kCommandGetAvailability)) + "," +
           pair("available", firmware_flash_running ? "false" : "true") + "}";
}

}  // namespace vistrel::session
