#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "capture/pcapngpacketcounter.h"
#include "metrics/registry.h"

namespace vistrel::http {

// Counts one /getCapture stream into the download metrics as its blocks are handed to the
// client, whichever path produced them, and keeps it among the downloads in flight while it
// lives.
class DownloadMeter {
  public:
    explicit DownloadMeter(std::string path);
    ~DownloadMeter();
    DownloadMeter(const DownloadMeter&) = delete;
    DownloadMeter& operator=(const DownloadMeter&) = delete;

    // `result` is what the block reader returned: bytes written into `block`, or an end mark.
    void sent(const char* block, ssize_t result);

  private:
    metrics::Counter& bytes_;
    metrics::Counter& packet_counter_;
    capture::PcapngPacketCounter packets_;
    uint64_t counted_packets_ = 0;
};

}  // namespace vistrel::http
