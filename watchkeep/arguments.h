#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace vistrel::watchkeep {

// A command line or environment the engine cannot use; the text is one line for the user.
class ArgumentError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// A device that writes its own capture files into `folder` ("-P name;folder;n;n;flag").
struct DeviceSource {
    std::string name;
    std::string folder;
    long capture_time = 0;  // seconds per file, as the device was told
    long max_files = 0;
    bool index_traffic = true;
};

// Everything the engine is told on its command line.
struct EngineArguments {
    std::vector<DeviceSource> devices;
    std::vector<std::string> interfaces;  // network interfaces to capture live
    std::vector<std::string> files;       // capture files to analyse
    std::string bulk_url;                 // from --dump-flows
    std::string flows_index;              // from --dump-flows
    std::string http_index;               // from --http-tidewell-index; empty when absent
    int dns_mode = 3;
    bool arp_records = false;
    bool packet_statistics = false;
    bool shutdown_when_done = false;
    bool help = false;

    bool is_analysis() const { return !files.empty(); }
};

// Reads the arguments after the program name. An `--interface` value is a capture file when it
// holds a "/" or names an existing file and no network interface; otherwise an interface name.
// Throws ArgumentError.
EngineArguments read_arguments(const std::vector<std::string>& arguments);

// The text printed by --help.
std::string usage_text();

}  // namespace vistrel::watchkeep
