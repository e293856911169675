#pragma once

#include <string>
#include <utility>
#include <vector>

#include "engine/engineoptions.h"

namespace vistrel::engine {

// One device as the engine sees it: where its capture files land and how it is indexed.
struct EngineDevice {
    std::string name;
    std::string capture_folder;
    long first_number = 0;   // first numeric field of the device's disk-dump configuration
    long second_number = 0;  // second numeric field
    bool index_flag = true;  // the device's own traffic goes to the HTTP index
    long dump_mode = 0;      // disk-dump mode; 1 keeps the capture out of the HTTP index
};

// "http://host:port/_bulk"
std::string bulk_url(const EngineOptions& options);

// The value after "--http-tidewell-index": "es;<http_index>;<bulk url>;" in double quotes.
std::string http_index_argument(const EngineOptions& options);

// The engine program: <maker>/vistrel/watchkeep/watchkeep.
std::string engine_program();

// Command line of a live capture of devices and network interfaces; empty when there is
// nothing to capture or no options.
std::string live_command_line(const std::vector<EngineDevice>& devices,
                              const std::vector<std::string>& interface_names,
                              const EngineOptions* options);

// Command line of the analysis of one capture file; empty without options or path.
std::string analysis_command_line(const std::string& file_path, const EngineOptions* options);

// The environment the engine reads besides its command line: VISTREL_SERVER_URL (this
// server, as the options name it) and VISTREL_CAPTURE_PATH. With the server's TLS certificate
// the URL is https and VISTREL_SERVER_CA names the certificate.
std::vector<std::pair<std::string, std::string>> engine_environment(
    const EngineOptions& options, const std::string& capture_path,
    const std::string& server_certificate = {});

// Splits a one-line command the way the Windows C run-time builds argv: blanks separate,
// double quotes group and are removed; 2n backslashes before a quote give n backslashes,
// 2n+1 give n and a literal quote; "" inside quotes is a literal quote.
std::vector<std::string> split_command_line(const std::string& command_line);

}  // namespace vistrel::engine
