#pragma once

#include <cstdint>
#include <functional>

#include "index/decodedpacket.h"
#include "index/flowtable.h"
#include "index/fragmentports.h"
#include "index/records.h"

namespace vistrel::watchkeep {

// What the flow table needs of one IP packet, taken while its frame is at hand.
struct FlowPacket {
    FlowKey key;
    uint64_t hash;
    uint64_t timestamp_ns;
    uint32_t length;
    uint16_t eth_type;
    uint8_t tcp_flags;
    bool from_a;   // sent from the key's end a
    bool answers;  // a SYN+ACK: if it begins a flow, its receiver is the initiator
    bool has_ethernet;
    bool has_ports;
    bool is_fragment;
    uint8_t mac_src[6];
    uint8_t mac_dst[6];
};

// Aggregates IP packets into bidirectional flows and hands each finished part to `report`:
// after `idle_s` without packets (the flow ends), every `active_s` while it lasts (counts
// restart), when the table is full (the table's positions take turns making room: roughly
// the oldest flows, cheaply, since a removal moves the last flow into the freed position),
// and at the end.
// A packet goes in in two steps, prepare() then add(), so that a caller can prepare the next
// packets (and prefetch their flows) before adding one: the table's memory is mostly
// uncached, and a lookup started early has arrived by the time it is needed.
class FlowTracker {
  public:
    using Report = std::function<void(const Flow&, FlowEnd)>;

    FlowTracker(uint32_t idle_s, uint32_t active_s, uint32_t max_flows, Report report);

    // One decoded IP packet (ip_version 4 or 6) of `length` bytes on the wire; packets are
    // prepared in their order. Starts loading the packet's index slot.
    void prepare(const DecodedPacket& packet, uint64_t timestamp_ns, uint32_t length,
                 FlowPacket& out);
    // Starts loading the flow of a prepared packet (once its slot is in).
    void prefetch(const FlowPacket& packet) const { table_.prefetch_flow(packet.hash); }
    // Counts a prepared packet in its flow; packets are added in the order they were prepared.
    void add(const FlowPacket& packet);
    // Reports idle and long flows as of `now_ns`.
    void expire(uint64_t now_ns);
    // Reports and forgets every flow.
    void finish();

    uint32_t active_flows() const { return table_.size(); }

  private:
    Flow& flow_for(const FlowPacket& packet, bool& forward);

    uint64_t idle_ns_;
    uint64_t active_ns_;
    FlowTable table_;
    FragmentPorts fragments_;
    Report report_;
    uint32_t evict_cursor_ = 0;
};

}  // namespace vistrel::watchkeep
