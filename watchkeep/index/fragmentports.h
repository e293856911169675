#pragma once

#include <array>
#include <cstdint>

#include "index/decodedpacket.h"

namespace vistrel::watchkeep {

// Remembers the ports of recent first fragments so that the later fragments of a datagram,
// which carry no transport header, count in the same flow. A small direct-mapped cache: a
// datagram whose entry was overwritten, or whose first fragment came late, counts its other
// fragments in a flow without ports.
class FragmentPorts {
  public:
    // For a first fragment with ports: remember them.
    void remember(const DecodedPacket& packet, uint64_t now_ns);
    // For a later fragment: the ports of its first fragment, if known and recent.
    bool find(const DecodedPacket& packet, uint64_t now_ns, uint16_t& src_port,
              uint16_t& dst_port) const;

  private:
    struct Entry {
        uint8_t src[16];
        uint8_t dst[16];
        uint32_t id;
        uint8_t protocol;
        bool used;
        uint16_t src_port;
        uint16_t dst_port;
        uint64_t time_ns;
    };
    static uint32_t slot(const DecodedPacket& packet);
    static bool same(const Entry& entry, const DecodedPacket& packet);

    std::array<Entry, 4096> entries_{};
};

}  // namespace vistrel::watchkeep
