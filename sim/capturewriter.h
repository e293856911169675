#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

#include "capture/pcapngwriter.h"
#include "trafficgenerator.h"

namespace vistrel::sim {

struct CaptureOptions {
    std::string folder;
    std::string file_name = "capture";
    std::string extension = ".pcapng";
    uint32_t capture_time = 0;  // seconds per file; 0 = one file
    uint32_t max_files = 0;     // 0 = no limit
    bool loop = false;          // after max_files: replace the oldest file instead of stopping
    bool keep_files = false;    // a loop keeps the files it rotates out
    uint32_t packets_per_second = 100;
    uint64_t seed = 1;
};

struct CaptureCounters {
    bool running = false;
    uint32_t current_file_index = 0;
    uint64_t files_written = 0;
    uint64_t packets = 0;
    uint64_t bytes = 0;
    uint64_t start_time_ns = 0;
};

// One disk-dump capture: a thread that writes synthetic traffic at the configured rate into
// rotating pcapng files until it is stopped or has written its last file.
class CaptureWriter {
  public:
    explicit CaptureWriter(CaptureOptions options);
    ~CaptureWriter();
    CaptureWriter(const CaptureWriter&) = delete;
    CaptureWriter& operator=(const CaptureWriter&) = delete;

    // Creates the folder and the first file, then starts the thread; false (and `error`) when
    // the folder or the file can't be created.
    bool start(std::string& error);
    // Ends the capture; the current file is complete when this returns.
    void stop();
    void set_rate(uint32_t packets_per_second);
    CaptureCounters counters() const;

  private:
    void run();
    bool open_next_file(uint64_t now_ns);
    void finish_file();
    // Closes the current file when its time is up at time `at` and opens the next one; false when
    // the capture has written its last file (or can't open the next).
    bool rotate_if_due(uint64_t at);

    CaptureOptions options_;
    TrafficGenerator generator_;
    capture::PcapngWriter writer_;
    std::deque<std::string> files_;  // files of this capture, oldest first
    uint64_t closed_bytes_ = 0;      // bytes of the files already closed

    mutable std::mutex mutex_;  // guards counters_, stop_, rate fields
    std::condition_variable wake_;
    bool stop_ = false;
    CaptureCounters counters_;
    uint32_t rate_;
    uint64_t rate_base_ns_ = 0;
    uint64_t rate_base_packets_ = 0;
    uint64_t file_start_ns_ = 0;
    uint64_t last_timestamp_ns_ = 0;
    std::thread thread_;
};

}  // namespace vistrel::sim
