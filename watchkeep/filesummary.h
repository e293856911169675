#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>

namespace vistrel::watchkeep {

class SourceIndexer;

// What the capture index is told about one finished capture file.
struct FileSummary {
    std::string path;       // absolute
    uint64_t first_ns = 0;  // earliest packet
    uint64_t last_ns = 0;   // latest packet
    uint64_t packets = 0;
    bool complete = true;  // false when reading stopped before the end of the file

    void add(uint64_t timestamp_ns) {
        if (packets == 0 || timestamp_ns < first_ns) first_ns = timestamp_ns;
        if (packets == 0 || timestamp_ns > last_ns) last_ns = timestamp_ns;
        ++packets;
    }
};

// Reads a capture file (pcapng or pcap) with the capture library's readers, handing every
// packet to `indexer` when there is one. `cancel` set stops the reading early (the summary is
// then marked incomplete). Nothing when the file is not a capture file.
std::optional<FileSummary> read_capture_file(const std::string& path, SourceIndexer* indexer,
                                             const std::atomic<bool>* cancel = nullptr);

}  // namespace vistrel::watchkeep
