#pragma once

#include <cstddef>
#include <cstdint>

namespace vistrel::capture {

// Counts the packet blocks of a pcapng stream fed in pieces of any size, by walking the block
// headers only. Each section's byte order is taken from its section header. A stream that is
// not pcapng, or a block with an impossible length, stops the count where it went wrong.
class PcapngPacketCounter {
  public:
    void feed(const uint8_t* data, size_t size);
    uint64_t packets() const { return packets_; }
    bool broken() const { return broken_; }

  private:
    void end_of_header();

    uint8_t header_[12] = {};
    size_t have_ = 0;    // header bytes collected of the current block
    uint64_t skip_ = 0;  // bytes of the current block still to pass over
    bool in_section_ = false;
    bool big_endian_ = false;
    bool broken_ = false;
    uint64_t packets_ = 0;
};

}  // namespace vistrel::capture
