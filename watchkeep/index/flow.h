#pragma once

#include <cstdint>

#include "index/flowkey.h"

namespace vistrel::watchkeep {

// One conversation as the table holds it. "Forward" is from the side that began it (its
// first packet's sender, or the client of a TCP handshake) to the other. Counts and times
// cover the packets since the flow was last reported. Aligned so that a flow is two whole
// cache lines, both of which a packet's update touches.
struct alignas(64) Flow {
    FlowKey key;
    uint64_t hash;
    uint64_t first_ns;    // first packet since the last report
    uint64_t last_ns;     // last packet (of the whole flow)
    uint64_t packets[2];  // [0] forward, [1] reverse
    uint64_t bytes[2];
    uint32_t fragments;
    uint16_t eth_type;
    bool initiator_is_a;
    uint8_t tcp_flags;
    bool has_ethernet;
    bool has_ports;
    uint8_t mac_src[6];  // the initiator's
    uint8_t mac_dst[6];
};
// The documented memory bound of a source's table rests on this.
static_assert(sizeof(Flow) == 128);

}  // namespace vistrel::watchkeep
