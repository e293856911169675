#include "index/fragmentports.h"

#include <cstring>

namespace vistrel::watchkeep {

namespace {
// Reassembly time-outs of common stacks are 30 to 60 seconds.
constexpr uint64_t kLifetimeNs = 60'000'000'000ULL;
}  // namespace

uint32_t FragmentPorts::slot(const DecodedPacket& packet) {
    uint32_t hash = packet.fragment_id * 2654435761U;
    for (int i = 0; i < 16; i += 4) {
        uint32_t a = 0;
        uint32_t b = 0;
        std::memcpy(&a, packet.src + i, 4);
        std::memcpy(&b, packet.dst + i, 4);
        hash = (hash ^ a ^ (b << 1)) * 2654435761U;
    }
    return (hash >> 16) % 4096;
}

bool FragmentPorts::same(const Entry& entry, const DecodedPacket& packet) {
    return entry.used && entry.id == packet.fragment_id && entry.protocol == packet.protocol &&
           std::memcmp(entry.src, packet.src, 16) == 0 &&
           std::memcmp(entry.dst, packet.dst, 16) == 0;
}

void FragmentPorts::remember(const DecodedPacket& packet, uint64_t now_ns) {
    Entry& entry = entries_[slot(packet)];
    std::memcpy(entry.src, packet.src, 16);
    std::memcpy(entry.dst, packet.dst, 16);
    entry.id = packet.fragment_id;
    entry.protocol = packet.protocol;
    entry.used = true;
    entry.src_port = packet.src_port;
    entry.dst_port = packet.dst_port;
    entry.time_ns = now_ns;
}

bool FragmentPorts::find(const DecodedPacket& packet, uint64_t now_ns, uint16_t& src_port,
                         uint16_t& dst_port) const {
    const Entry& entry = entries_[slot(packet)];
    if (!same(entry, packet) || now_ns - entry.time_ns > kLifetimeNs) return false;
    src_port = entry.src_port;
    dst_port = entry.dst_port;
    return true;
}

}  // namespace vistrel::watchkeep
