#pragma once

#include <cstdint>
#include <cstring>

#include "index/decodedpacket.h"

namespace vistrel::watchkeep {

// The two ends of a conversation, the lower (address, port) first, so that both directions of
// a flow find the same key. 40 bytes, compared as bytes.
struct FlowKey {
    uint8_t address_a[16];
    uint8_t address_b[16];
    uint16_t port_a;
    uint16_t port_b;
    uint16_t vlan_id;
    uint8_t protocol;
    uint8_t ip_version;

    bool operator==(const FlowKey& other) const {
        return std::memcmp(this, &other, sizeof(FlowKey)) == 0;
    }
};
static_assert(sizeof(FlowKey) == 40);

// The key of a packet's flow; `from_a` tells whether the packet went from end a to end b.
inline FlowKey flow_key_of(const DecodedPacket& packet, uint16_t src_port, uint16_t dst_port,
                           bool& from_a) {
    FlowKey key;
    std::memset(&key, 0, sizeof key);
    int order = std::memcmp(packet.src, packet.dst, 16);
    from_a = order < 0 || (order == 0 && src_port <= dst_port);
    std::memcpy(key.address_a, from_a ? packet.src : packet.dst, 16);
    std::memcpy(key.address_b, from_a ? packet.dst : packet.src, 16);
    key.port_a = from_a ? src_port : dst_port;
    key.port_b = from_a ? dst_port : src_port;
    key.vlan_id = packet.has_vlan ? packet.vlan_id : 0;
    key.protocol = packet.protocol;
    key.ip_version = packet.ip_version;
    return key;
}

inline uint64_t flow_hash(const FlowKey& key) {
    uint64_t words[5];
    std::memcpy(words, &key, sizeof words);
    uint64_t hash = 0x9e3779b97f4a7c15ULL;
    for (uint64_t word : words) {
        hash ^= word;
        hash *= 0xff51afd7ed558ccdULL;
        hash ^= hash >> 32;
    }
    return hash;
}

}  // namespace vistrel::watchkeep
