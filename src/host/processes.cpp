#include "host/processes.h"

#include <dirent.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

namespace vistrel::host {

namespace {

struct ProcessEntry {
    pid_t pid;
    std::string command;
};

std::vector<ProcessEntry> list_processes() {
    std::vector<ProcessEntry> processes;
    DIR* proc = opendir("/proc");
    if (proc == nullptr) return processes;
    while (struct dirent* entry = readdir(proc)) {
        char* end = nullptr;
        long pid = std::strtol(entry->d_name, &end, 10);
        if (pid <= 0 || *end != '\0') continue;
        std::ifstream comm(std::string("/proc/") + entry->d_name + "/comm");
        std::string command;
        if (!std::getline(comm, command)) continue;
        // A zombie has ended already: it only waits for its parent to collect it.
        std::ifstream stat(std::string("/proc/") + entry->d_name + "/stat");
        std::string stat_line;
        std::getline(stat, stat_line);
        size_t close_paren = stat_line.rfind(')');
        if (close_paren != std::string::npos && close_paren + 2 < stat_line.size() &&
            stat_line[close_paren + 2] == 'Z') {
            continue;
        }
        processes.push_back({static_cast<pid_t>(pid), command});
    }
    closedir(proc);
    return processes;
}

std::string upper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return text;
}

}  // namespace

bool process_exists(const std::string& name) {
    for (const auto& process : list_processes()) {
        if (process.command == name) return true;
    }
    return false;
}

std::optional<double> process_start_time(pid_t pid) {
    // Field 22 of the stat line is the start in clock ticks after boot; the fields after the
    // command name, which may hold blanks and parentheses, start behind its last ')'.
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(stat, line)) return std::nullopt;
    const size_t close_paren = line.rfind(')');
    if (close_paren == std::string::npos) return std::nullopt;
    std::istringstream fields(line.substr(close_paren + 2));
    std::string field;
    for (int index = 3; index < 22 && fields >> field; ++index) {
    }
    unsigned long long ticks = 0;
    if (!(fields >> ticks)) return std::nullopt;
    std::ifstream system_stat("/proc/stat");
    std::string key;
    long long boot_time = -1;
    while (system_stat >> key) {
        if (key == "btime") {
            system_stat >> boot_time;
            break;
        }
        std::getline(system_stat, line);
    }
    const long ticks_per_second = sysconf(_SC_CLK_TCK);
    if (boot_time < 0 || ticks_per_second <= 0) return std::nullopt;
    return static_cast<double>(boot_time) +
           static_cast<double>(ticks) / static_cast<double>(ticks_per_second);
}

std::optional<double> earliest_start_time(const std::string& name) {
    std::optional<double> earliest;
    for (const auto& process : list_processes()) {
        if (process.command != name) continue;
        std::optional<double> started = process_start_time(process.pid);
        if (started && (!earliest || *started < *earliest)) earliest = started;
    }
    return earliest;
}

bool end_process_by_name(const std::string& name) {
    std::string wanted = upper(name);
    if (wanted.empty()) return true;  // an empty name would match every process
    std::vector<pid_t> matches;
    for (const auto& process : list_processes()) {
        if (process.pid != getpid() && upper(process.command).find(wanted) != std::string::npos) {
            matches.push_back(process.pid);
        }
    }
    if (matches.empty()) return true;
    // An interrupt first, as Ctrl+C would be, so the program can end by itself.
    for (pid_t pid : matches) kill(pid, SIGINT);
    std::this_thread::sleep_for(std::chrono::milliseconds(2000));
    bool all_ended = true;
    for (pid_t pid : matches) {
        if (kill(pid, SIGKILL) != 0 && errno != ESRCH) all_ended = false;
    }
    return all_ended;
}

}  // namespace vistrel::host
