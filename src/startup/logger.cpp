#include "startup/logger.h"

#include <cstdarg>
#include <cstring>
#include <ctime>

namespace vistrel {

Logger& logger() {
    static Logger instance;
    return instance;
}

Logger::~Logger() {
    close();
}

void Logger::close() {
    if (stream_ != nullptr) {
        std::fclose(stream_);
        stream_ = nullptr;
    }
}

void Logger::open(const std::string& path) {
    close();
    stream_ = std::fopen(path.c_str(), "w");
    level_ = kLogNormal;
    if (stream_ != nullptr) {
        LOG_NORMAL("Logging into %s", path.c_str());
    } else {
        LOG_ERROR("Unable to create log %s", path.c_str());
    }
    level_ = kLogNormal;
}

void Logger::log(uint32_t level, const char* source_file, int32_t source_line, const char* format,
                 ...) {
    // The filter comes first: a dropped message costs one comparison.
    if (level > level_ || level_ == 0) return;

    time_t now = std::time(nullptr);
    struct tm local {};
    localtime_r(&now, &local);

    char source_name[260];
    const char* last_backslash = std::strrchr(source_file, '\\');
    if (last_backslash != nullptr) {
        if (std::snprintf(source_name, sizeof source_name, "%s", last_backslash + 1) < 0) return;
        source_file = source_name;
    }

    char message[8192] = {0};
    va_list args;
    va_start(args, format);
    std::vsnprintf(message, 8191, format, args);
    va_end(args);
    size_t length = std::strlen(message);
    while (length > 0 && message[length - 1] == '\n') message[--length] = '\0';

    char time_text[32];
    std::strftime(time_text, sizeof time_text, "%d/%b/%Y %H:%M:%S", &local);

    const char* prefix = level == kLogError ? "ERROR: " : level == kLogWarning ? "WARNING: " : "";
    char line[8192];
    // Over-long lines are cut silently; the logger never fails its caller.
    if (std::snprintf(line, sizeof line, "%s [%s:%d] %s%s", time_text, source_file, source_line,
                      prefix, message) < 0) {
        return;
    }

    if (stream_ != nullptr) {
        std::fprintf(stream_, "%s\n", line);
        std::fflush(stream_);
    }
    std::fprintf(stdout, "%s\n", line);
    std::fflush(stdout);
}

uint32_t level_from_name(const std::string& name) {
    if (name == "trace") return kLogTrace;
    if (name == "debug") return kLogDebug;
    if (name == "info") return kLogInfo;
    if (name == "normal") return kLogNormal;
    if (name == "warning") return kLogWarning;
    if (name == "error") return kLogError;
    return kLogNormal;
}

std::string name_from_level(uint32_t level) {
    switch (level) {
        case kLogError:
            return "error";
        case kLogWarning:
            return "warning";
        case kLogNormal:
            return "normal";
        case kLogInfo:
            return "info";
        case kLogDebug:
            return "debug";
        case kLogTrace:
            return "trace";
        default:
            return "invalid";
    }
}

}  // namespace vistrel
