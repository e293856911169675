#pragma once

#include <string>

namespace vistrel::watchkeep {

// What the server tells the engine through its environment.
struct EngineEnvironment {
    std::string server_url;    // VISTREL_SERVER_URL, without a trailing "/"
    std::string capture_path;  // VISTREL_CAPTURE_PATH
    // VISTREL_SERVER_CA: the certificate of a server that speaks HTTPS only; "" for none.
    std::string server_certificate;
    int file_seconds = 60;  // VISTREL_FILE_SECONDS

    // <capture path>/.watchkeep-spool: what could not be sent yet.
    std::string spool_folder() const { return capture_path + "/.watchkeep-spool"; }
};

// Reads the environment, with the defaults http://localhost:8081,
// $HOME/Documents/Vistrel/captures and 60. Throws ArgumentError for values it cannot use.
EngineEnvironment read_environment();

}  // namespace vistrel::watchkeep
