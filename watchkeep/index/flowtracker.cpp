#include "index/flowtracker.h"

#include <cstring>

namespace vistrel::watchkeep {

namespace {
constexpr uint8_t kProtoTcp = 6;
constexpr uint8_t kSyn = 0x02;
constexpr uint8_t kAck = 0x10;
constexpr uint64_t kSecond = 1'000'000'000ULL;
}  // namespace

FlowTracker::FlowTracker(uint32_t idle_s, uint32_t active_s, uint32_t max_flows, Report report)
    : idle_ns_(idle_s * kSecond),
      active_ns_(active_s * kSecond),
      table_(max_flows),
      report_(std::move(report)) {}

void FlowTracker::prepare(const DecodedPacket& packet, uint64_t timestamp_ns, uint32_t length,
                          FlowPacket& out) {
    uint16_t src_port = packet.src_port;
    uint16_t dst_port = packet.dst_port;
    if (packet.is_fragment) {
        if (packet.first_fragment) {
            if (packet.has_ports) fragments_.remember(packet, timestamp_ns);
        } else if (!fragments_.find(packet, timestamp_ns, src_port, dst_port)) {
            src_port = dst_port = 0;
        }
    }
    out.key = flow_key_of(packet, src_port, dst_port, out.from_a);
    out.hash = flow_hash(out.key);
    table_.prefetch_slot(out.hash);
    out.timestamp_ns = timestamp_ns;
    out.length = length;
    out.eth_type = packet.eth_type;
    out.tcp_flags = packet.tcp_flags;
    out.answers = packet.protocol == kProtoTcp && packet.has_ports &&
                  (packet.tcp_flags & (kSyn | kAck)) == (kSyn | kAck);
    out.has_ethernet = packet.has_ethernet;
    out.has_ports = packet.has_ports || src_port != 0 || dst_port != 0;
    out.is_fragment = packet.is_fragment;
    std::memcpy(out.mac_src, packet.mac_src, 6);
    std::memcpy(out.mac_dst, packet.mac_dst, 6);
}

Flow& FlowTracker::flow_for(const FlowPacket& packet, bool& forward) {
    if (Flow* flow = table_.find(packet.key, packet.hash)) {
        forward = packet.from_a == flow->initiator_is_a;
        return *flow;
    }
    if (table_.full()) {
        uint32_t victim = evict_cursor_++ % table_.size();
        report_(table_.at(victim), FlowEnd::table_full);
        table_.erase(victim);
    }
    Flow& flow = table_.insert(packet.key, packet.hash);
    // The sender of the first packet began the flow, unless it answers a handshake we missed.
    flow.initiator_is_a = packet.answers ? !packet.from_a : packet.from_a;
    forward = !packet.answers;
    flow.has_ethernet = packet.has_ethernet;
    flow.eth_type = packet.eth_type;
    flow.has_ports = packet.has_ports;
    std::memcpy(flow.mac_src, forward ? packet.mac_src : packet.mac_dst, 6);
    std::memcpy(flow.mac_dst, forward ? packet.mac_dst : packet.mac_src, 6);
    flow.first_ns = packet.timestamp_ns;
    return flow;
}

void FlowTracker::add(const FlowPacket& packet) {
    bool forward = true;
    Flow& flow = flow_for(packet, forward);
    int side = forward ? 0 : 1;
    if (flow.packets[0] + flow.packets[1] == 0) flow.first_ns = packet.timestamp_ns;
    ++flow.packets[side];
    flow.bytes[side] += packet.length;
    flow.tcp_flags |= packet.tcp_flags;
    if (packet.is_fragment) ++flow.fragments;
    if (packet.timestamp_ns > flow.last_ns) flow.last_ns = packet.timestamp_ns;
}

void FlowTracker::expire(uint64_t now_ns) {
    for (uint32_t position = 0; position < table_.size();) {
        Flow& flow = table_.at(position);
        if (now_ns >= flow.last_ns + idle_ns_) {
            if (flow.packets[0] + flow.packets[1] > 0) report_(flow, FlowEnd::idle);
            table_.erase(position);
            continue;
        }
        if (flow.packets[0] + flow.packets[1] > 0 && now_ns >= flow.first_ns + active_ns_) {
            report_(flow, FlowEnd::active);
            flow.packets[0] = flow.packets[1] = 0;
            flow.bytes[0] = flow.bytes[1] = 0;
            flow.fragments = 0;
            flow.tcp_flags = 0;
        }
        ++position;
    }
}

void FlowTracker::finish() {
    while (table_.size() > 0) {
        Flow& flow = table_.at(table_.size() - 1);
        if (flow.packets[0] + flow.packets[1] > 0) report_(flow, FlowEnd::capture_end);
        table_.erase(table_.size() - 1);
    }
}

}  // namespace vistrel::watchkeep
