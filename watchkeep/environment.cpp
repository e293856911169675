#include "environment.h"

#include <unistd.h>

#include <charconv>
#include <cstdlib>

#include "arguments.h"
#include "host/paths.h"

namespace vistrel::watchkeep {

namespace {

std::string variable(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

}  // namespace

EngineEnvironment read_environment() {
    EngineEnvironment environment;
    environment.server_url = variable("VISTREL_SERVER_URL");
    if (environment.server_url.empty()) environment.server_url = "http://localhost:8081";
    while (environment.server_url.size() > 1 && environment.server_url.back() == '/') {
        environment.server_url.pop_back();
    }
    if (environment.server_url.rfind("http://", 0) != 0 &&
        environment.server_url.rfind("https://", 0) != 0) {
        throw ArgumentError("VISTREL_SERVER_URL must begin with http:// or https://, got '" +
                            environment.server_url + "'");
    }

    environment.server_certificate = variable("VISTREL_SERVER_CA");
    if (!environment.server_certificate.empty() &&
        access(environment.server_certificate.c_str(), R_OK) != 0) {
        throw ArgumentError("VISTREL_SERVER_CA names a file that cannot be read: '" +
                            environment.server_certificate + "'");
    }

    environment.capture_path = variable("VISTREL_CAPTURE_PATH");
    if (environment.capture_path.empty()) {
        const std::string profile = host::profile_folder();
        if (profile.empty()) throw ArgumentError("no VISTREL_CAPTURE_PATH and no home folder");
        environment.capture_path = profile + "/Documents/Vistrel/captures";
    }
    while (environment.capture_path.size() > 1 && environment.capture_path.back() == '/') {
        environment.capture_path.pop_back();
    }

    const std::string seconds = variable("VISTREL_FILE_SECONDS");
    if (!seconds.empty()) {
        int value = 0;
        auto [end, error] = std::from_chars(seconds.data(), seconds.data() + seconds.size(), value);
        if (error != std::errc() || end != seconds.data() + seconds.size() || value < 1) {
            throw ArgumentError("VISTREL_FILE_SECONDS must be a positive number of seconds, got '" +
                                seconds + "'");
        }
        environment.file_seconds = value;
    }
    return environment;
}

}  // namespace vistrel::watchkeep
