#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace vistrel::sim {

// Writes a pcapng file: one section, Ethernet interfaces with nanosecond timestamps
// (if_tsresol 9), enhanced packet blocks.
class PcapngWriter {
  public:
    PcapngWriter() = default;
    ~PcapngWriter();
    PcapngWriter(const PcapngWriter&) = delete;
    PcapngWriter& operator=(const PcapngWriter&) = delete;

    // Creates `path` with the section header and one interface per name; false on failure.
    bool open(const std::string& path, const std::vector<std::string>& interface_names);
    bool write_packet(uint32_t interface_id, uint64_t timestamp_ns, const uint8_t* data,
                      uint32_t length);
    bool flush();
    void close();
    bool is_open() const { return file_ != nullptr; }
    uint64_t bytes_written() const { return bytes_; }

  private:
    bool write_block(uint32_t type, const std::vector<uint8_t>& body);

    FILE* file_ = nullptr;
    uint64_t bytes_ = 0;
};

}  // namespace vistrel::sim
