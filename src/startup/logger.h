#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

namespace vistrel {

// Severity levels; the same numbers are the configured threshold.
enum LogLevel : uint32_t {
    kLogError = 0,
    kLogWarning = 1,
    kLogNormal = 2,
    kLogInfo = 3,
    kLogDebug = 6,
    kLogTrace = 9,
};

// The one process-wide logger: every line goes to the log file (when open) and to standard
// output, each flushed at once so that a killed process leaves a complete log.
class Logger {
  public:
    Logger() = default;
    ~Logger();
    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    // Truncates (or creates) the log file at `path`; on failure the logger writes to standard
    // output only. Logs "Logging into ..." or "Unable to create log ...". Level becomes 2.
    void open(const std::string& path);
    // Closes the file; later lines go to standard output only.
    void close();

    void log(uint32_t level, const char* source_file, int32_t source_line, const char* format, ...)
        __attribute__((format(printf, 5, 6)));

    void set_level(uint32_t level) { level_ = level > 9 ? 9 : level; }
    uint32_t level() const { return level_; }
    bool enabled(uint32_t level) const { return level_ != 0 && level <= level_; }

  private:
    FILE* stream_ = nullptr;
    uint32_t level_ = kLogNormal;
};

// The process-wide logger.
Logger& logger();

// "trace" 9, "debug" 6, "info" 3, "normal" 2, "warning" 1, "error" 0; anything else 2.
uint32_t level_from_name(const std::string& name);
// The inverse; numbers without a name give "invalid".
std::string name_from_level(uint32_t level);

}  // namespace vistrel

// The compiler's base name keeps log lines short ("[main.cpp:136]").
#define VLOG(level, ...) ::vistrel::logger().log((level), __FILE_NAME__, __LINE__, __VA_ARGS__)
#define LOG_ERROR(...) VLOG(::vistrel::kLogError, __VA_ARGS__)
#define LOG_WARNING(...) VLOG(::vistrel::kLogWarning, __VA_ARGS__)
#define LOG_NORMAL(...) VLOG(::vistrel::kLogNormal, __VA_ARGS__)
#define LOG_INFO(...) VLOG(::vistrel::kLogInfo, __VA_ARGS__)
#define LOG_DEBUG(...) VLOG(::vistrel::kLogDebug, __VA_ARGS__)
#define LOG_TRACE(...) VLOG(::vistrel::kLogTrace, __VA_ARGS__)
