#include "rotatingcapturefile.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>

#include "startup/logger.h"

namespace vistrel::watchkeep {

namespace {
constexpr uint64_t kRetryAfterNs = 1'000'000'000ULL;
}  // namespace

RotatingCaptureFile::RotatingCaptureFile(std::string folder, std::string name, uint16_t link_type,
                                         uint64_t period_ns, ClosedCallback on_closed)
    : folder_(std::move(folder)),
      name_(std::move(name)),
      link_type_(link_type),
      period_ns_(period_ns),
      on_closed_(std::move(on_closed)) {
    writer_.set_application("watchkeep");
}

RotatingCaptureFile::~RotatingCaptureFile() {
    close();
}

std::string RotatingCaptureFile::file_name(const std::string& name, uint64_t now_ns,
                                           uint32_t number) {
    const std::time_t seconds = static_cast<std::time_t>(now_ns / 1'000'000'000ULL);
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y%m%d_%H%M%S", &parts);
    char text[32];
    std::snprintf(text, sizeof text, "_%05u.pcapng", number);
    return name + "_" + stamp + text;
}

bool RotatingCaptureFile::open_file(uint64_t now_ns) {
    std::string path;
    // A file of the same name, left by a run in the same second, is never overwritten.
    do {
        path = folder_ + "/" + file_name(name_, now_ns, ++number_);
    } while (std::filesystem::exists(path));
    if (!writer_.open(path, {name_}, link_type_)) {
        LOG_ERROR("Could not create %s: %s", path.c_str(), std::strerror(errno));
        retry_after_ns_ = now_ns + kRetryAfterNs;
        return false;
    }
    current_ = FileSummary{};
    current_.path = path;
    opened_ns_ = now_ns;
    LOG_INFO("Capturing %s into %s", name_.c_str(), path.c_str());
    return true;
}

bool RotatingCaptureFile::write(uint64_t timestamp_ns, const uint8_t* data, uint32_t length,
                                uint64_t now_ns) {
    if (writer_.is_open() && now_ns >= opened_ns_ + period_ns_) close();
    if (!writer_.is_open()) {
        if (now_ns < retry_after_ns_ || !open_file(now_ns)) return false;
    }
    if (!writer_.write_packet(0, timestamp_ns, data, length)) {
        LOG_ERROR("Could not write to %s: %s", current_.path.c_str(), std::strerror(errno));
        close();
        retry_after_ns_ = now_ns + kRetryAfterNs;
        return false;
    }
    current_.add(timestamp_ns);
    return true;
}

void RotatingCaptureFile::tick(uint64_t now_ns) {
    if (!writer_.is_open()) return;
    if (now_ns >= opened_ns_ + period_ns_) {
        close();
    } else if (!writer_.flush()) {
        LOG_ERROR("Could not write to %s: %s", current_.path.c_str(), std::strerror(errno));
    }
}

void RotatingCaptureFile::close() {
    if (!writer_.is_open()) return;
    if (!writer_.close()) {
        LOG_ERROR("The end of %s could not be written: %s", current_.path.c_str(),
                  std::strerror(errno));
        // What did reach the disk is still a readable file: describe that, not what was meant.
        std::optional<FileSummary> on_disk = read_capture_file(current_.path, nullptr);
        current_ = on_disk ? *on_disk : FileSummary{current_.path};
    }
    if (current_.packets == 0) {
        std::error_code error;
        std::filesystem::remove(current_.path, error);
        return;
    }
    LOG_NORMAL("Closed %s: %llu packets", current_.path.c_str(),
               static_cast<unsigned long long>(current_.packets));
    on_closed_(current_);
}

}  // namespace vistrel::watchkeep
