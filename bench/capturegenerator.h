#pragma once

#include <cstdint>
#include <string>

namespace vistrel::bench {

// What one generated file holds.
struct GeneratedFile {
    std::string path;
    uint64_t first_ns = 0;
    uint64_t last_ns = 0;
    uint64_t packets = 0;
    uint64_t bytes = 0;
};

// Writes a capture of about `target_bytes` with mixed packet sizes (small, medium and
// full-size Ethernet/IPv4/UDP frames, ports 53, 80 and 443), packets `spacing_ns` apart from
// `start_ns`: classic pcap in microseconds, or pcapng with two nanosecond interfaces.
GeneratedFile generate_capture(const std::string& path, bool pcapng, uint64_t target_bytes,
                               uint64_t start_ns, uint64_t spacing_ns);

}  // namespace vistrel::bench
