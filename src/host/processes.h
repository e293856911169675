#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

// Finding and ending other programs by their command name (/proc/PID/comm).
namespace vistrel::host {

// True when some process's command name equals `name` exactly.
bool process_exists(const std::string& name);

// When the process started, in seconds since the Unix epoch; nothing when it does not exist.
std::optional<double> process_start_time(pid_t pid);
// The earliest start among the processes whose command name equals `name` exactly.
std::optional<double> earliest_start_time(const std::string& name);

// Every process whose upper-cased command name contains the upper-cased `name` gets SIGINT,
// 2000 ms to end by itself, then SIGKILL. True when none matched or every kill succeeded.
bool end_process_by_name(const std::string& name);

}  // namespace vistrel::host
