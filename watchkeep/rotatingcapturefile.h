#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "capture/pcapngwriter.h"
#include "filesummary.h"

namespace vistrel::watchkeep {

// The capture files of one live interface: `<folder>/<name>_<YYYYmmdd_HHMMSS>_<NNNNN>.pcapng`
// (UTC, numbered from 00001 in each run), a new one every `period_ns` of wall-clock time. A
// file is created with its first packet, so an idle interface leaves no empty files; every
// file closed with packets in it is handed to `on_closed`. Used from one thread.
class RotatingCaptureFile {
  public:
    using ClosedCallback = std::function<void(const FileSummary&)>;

    RotatingCaptureFile(std::string folder, std::string name, uint16_t link_type,
                        uint64_t period_ns, ClosedCallback on_closed);
    ~RotatingCaptureFile();
    RotatingCaptureFile(const RotatingCaptureFile&) = delete;
    RotatingCaptureFile& operator=(const RotatingCaptureFile&) = delete;

    // Writes one whole frame; false when it could not be written (no file, disk full).
    bool write(uint64_t timestamp_ns, const uint8_t* data, uint32_t length, uint64_t now_ns);
    // Closes the current file when its period is over and hands buffered bytes to the system.
    void tick(uint64_t now_ns);
    // Closes the current file.
    void close();

    // "<name>_<YYYYmmdd_HHMMSS>_<NNNNN>.pcapng" for a file opened at `now_ns`.
    static std::string file_name(const std::string& name, uint64_t now_ns, uint32_t number);

  private:
    bool open_file(uint64_t now_ns);

    const std::string folder_;
    const std::string name_;
    const uint16_t link_type_;
    const uint64_t period_ns_;
    const ClosedCallback on_closed_;

    capture::PcapngWriter writer_;
    FileSummary current_;
    uint64_t opened_ns_ = 0;
    uint64_t retry_after_ns_ = 0;  // after a failed open or write, wait before trying again
    uint32_t number_ = 0;
};

}  // namespace vistrel::watchkeep
