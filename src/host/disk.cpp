#include "host/disk.h"

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace vistrel::host {

bool create_folder(const std::string& path) {
    if (path.empty()) return false;
    std::string partial;
    size_t position = 0;
    while (position != std::string::npos) {
        position = path.find('/', position + 1);
        partial = path.substr(0, position);
        if (partial.empty()) continue;
        if (mkdir(partial.c_str(), 0755) != 0 && errno != EEXIST) return false;
    }
    return folder_exists(path);
}

bool folder_exists(const std::string& path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool file_exists(const std::string& path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0;
}

namespace {
int64_t volume_bytes(const std::string& folder, bool available) {
    struct statvfs volume {};
    if (statvfs(folder.c_str(), &volume) != 0) return -1;
    uint64_t blocks = available ? volume.f_bavail : volume.f_blocks;
    return static_cast<int64_t>(blocks * volume.f_frsize);
}
}  // namespace

int64_t free_space(const std::string& folder) {
    create_folder(folder);
    return volume_bytes(folder, true);
}

int64_t total_space(const std::string& folder) {
    return volume_bytes(folder, false);
}

std::string disk_space_document(const std::string& folder, const std::string& unit) {
    create_folder(folder);
    int64_t available = volume_bytes(folder, true);
    int64_t total = volume_bytes(folder, false);
    if (available == -1 || total == -1) {
        available = 0;
        total = 0;
    } else if (unit == "KB") {
        available >>= 10;
        total >>= 10;
    } else if (unit == "MB") {
        available >>= 20;
        total >>= 20;
    } else if (unit == "GB") {
        available >>= 30;
        total >>= 30;
    } else {
        return {};
    }
    return std::string("{") + "\"total_space\":\"" + std::to_string(total) + "\"," +
           "\"available_space\":\"" + std::to_string(available) + "\"," + "\"unit\":\"" + unit +
           "\"" + "}";
}

std::string dated_folder_name(const std::string& base, const std::string& name) {
    time_t now = std::time(nullptr);
    struct tm utc {};
    gmtime_r(&now, &utc);
    std::string pattern = name + "_%Y-%m-%d";
    char formatted[256] = {0};
    std::strftime(formatted, sizeof formatted, pattern.c_str(), &utc);
    char joined[256] = {0};
    // At most 255 characters, cut silently like the rest of the folder names.
    if (std::snprintf(joined, sizeof joined, "%s/%s", base.c_str(), formatted) < 0) return {};
    return joined;
}

}  // namespace vistrel::host
