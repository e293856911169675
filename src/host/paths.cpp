#include "host/paths.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>

namespace vistrel::host {

namespace {
std::string environment(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? std::string(value) : std::string();
}
}  // namespace

std::string temp_folder() {
    std::string tmp = environment("TMPDIR");
    return tmp.empty() ? "/tmp" : tmp;
}

std::string profile_folder() {
    std::string home = environment("HOME");
    if (!home.empty()) return home;
    struct passwd entry {};
    struct passwd* found = nullptr;
    char buffer[4096];
    if (getpwuid_r(getuid(), &entry, buffer, sizeof buffer, &found) == 0 && found != nullptr &&
        found->pw_dir != nullptr) {
        return found->pw_dir;
    }
    return {};
}

std::string maker_folder() {
    std::string root = environment("QUELLWICK_ROOT");
    return root.empty() ? "/opt/quellwick" : root;
}

std::string server_folder() {
    return maker_folder() + "/vistrel/centralizedserver";
}

std::string watchkeep_folder() {
    return maker_folder() + "/vistrel/watchkeep";
}

std::string firmware_catalogue_path() {
    return maker_folder() + "/tidewell/firmware/firmware.xml";
}

std::string tshark_program() {
    return "/usr/bin/tshark";
}

std::string resolve_path(const std::string& path) {
    if (!path.empty() && path[0] == '/') return path;
    std::string profile = profile_folder();
    if (profile.empty()) return "'SHGetFolderPath failed'";
    std::string relative = path;
    for (char& c : relative) {
        if (c == '\\') c = '/';
    }
    if (size_t at = relative.find(profile); at != std::string::npos) {
        relative.erase(at, profile.size());
    }
    return profile + "/" + relative;
}

}  // namespace vistrel::host
