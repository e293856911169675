#pragma once

#include <optional>
#include <string>

#include "startup/configuration.h"

namespace vistrel {

constexpr const char* kVersion = "2019.03.25";

// What reading the command line decided: go on (when `proceed`), or end the process with
// `exit_code` (help, version, bad options...). All messages are already printed.
struct CommandLineResult {
    bool proceed = false;
    std::optional<int> exit_code;
};

// Parses the options into `config` (getopt_long; "--config" loads a YAML file).
CommandLineResult load_command_line(Configuration& config, int argc, char** argv);

void print_usage();
void print_version();

}  // namespace vistrel
