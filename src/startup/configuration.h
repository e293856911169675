#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "host/interfaces.h"
#include "startup/securitysettings.h"

namespace vistrel {

// The one configuration record of the process: what the command line and the YAML file set.
// Written at start-up (command line, YAML, binding); read everywhere afterwards.
struct Configuration {
    static constexpr uint32_t kDefaultPort = 8081;

    std::string mode = "invalid";
    uint32_t port = kDefaultPort;
    uint32_t loglevel = 2;
    std::string host;
    std::optional<host::NetworkInterface> interface;
    std::string database;
    std::string captures;              // root of the captures tree
    std::string capture_path;          // device capture folders live here
    std::string analyze_capture_path;  // uploads for analysis land here
    std::string config_file;
    bool bindall = false;
    bool loaded_from_file = false;
    bool captures_ready = false;
    bool from_manager = false;  // recorded, never read
    // SNTP server as "host" or "host:port"; YAML general/ntp_server.
    std::string ntp_server = "pool.ntp.org";
    // Every filtered download through tshark, none through libpcap; YAML general/force_tshark.
    bool force_tshark = false;
    SecuritySettings security;
    // The last option argument the command-line parser handled; the invalid-host message
    // shows it instead of the host text.
    std::string last_option_argument;

    const std::set<std::string> valid_modes{"start", "stop", "debug", "daemon", "cleanup"};

    // Back to the defaults (construction and "--config").
    void reset();
    // Reads `config_file`; prints the "[Config Load]" messages on failure.
    bool load_yaml();
    // Derives and creates the captures tree; sets `captures_ready`.
    bool make_captures_tree();
    // Whether the server may start; corrects the port, "localhost", and missing binding.
    bool validate();
    // The folders whose files /cleanup may delete: capture and analysis folders and the
    // configured extra capture folders.
    std::vector<std::string> owned_capture_folders() const;
    // Writes the effective configuration as YAML; 0 on success.
    int write_yaml(const std::string& path) const;
};

// The process-wide configuration. The first call builds it with its defaults.
Configuration& configuration();

// Builds the configuration and opens the log (truncated at every start).
void initialise_configuration_and_log();

// The log file: the system temporary folder and "vistrelserveres.log".
std::string log_file_path();

// This server's own address for clients: the configured host; else the configured interface's
// IPv4 address (or "localhost"); else the first IPv4 address of a non-loopback adapter, or
// "localhost".
std::string own_server_address();

}  // namespace vistrel
