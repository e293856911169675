#pragma once

#include <cstdint>
#include <functional>

#include "index/decodedpacket.h"
#include "index/flowtable.h"
#include "index/fragmentports.h"
#include "index/records.h"

namespace vistrel::watchkeep {

// Aggregates IP packets into bidirectional flows and hands each finished part to `report`:
// after `idle_s` without packets (the flow ends), every `active_s` while it lasts (counts
// restart), when the table is full (the oldest-placed flow makes room), and at the end.
class FlowTracker {
  public:
    using Report = std::function<void(const Flow&, FlowEnd)>;

    FlowTracker(uint32_t idle_s, uint32_t active_s, uint32_t max_flows, Report report);

    // One decoded IP packet (ip_version 4 or 6) of `length` bytes on the wire.
    void add(const DecodedPacket& packet, uint64_t timestamp_ns, uint32_t length);
    // Reports idle and long flows as of `now_ns`.
    void expire(uint64_t now_ns);
    // Reports and forgets every flow.
    void finish();

    uint32_t active_flows() const { return table_.size(); }

  private:
    Flow& flow_for(const DecodedPacket& packet, uint16_t src_port, uint16_t dst_port,
                   uint64_t timestamp_ns, bool& forward);

    uint64_t idle_ns_;
    uint64_t active_ns_;
    FlowTable table_;
    FragmentPorts fragments_;
    Report report_;
    uint32_t evict_cursor_ = 0;
};

}  // namespace vistrel::watchkeep
