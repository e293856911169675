#include "index/records.h"

#include "index/jsonrecord.h"

namespace vistrel::watchkeep {

namespace {

constexpr uint8_t kProtoTcp = 6;

uint64_t milliseconds(uint64_t ns) {
    return ns / 1'000'000;
}

const char* reason_text(FlowEnd reason) {
    switch (reason) {
        case FlowEnd::idle:
            return "idle";
        case FlowEnd::active:
            return "active";
        case FlowEnd::table_full:
            return "table-full";
        case FlowEnd::capture_end:
            break;
    }
    return "capture-end";
}

JsonRecord start(std::string& out, uint64_t timestamp_ns, std::string_view source) {
    JsonRecord record(out);
    record.number("@timestamp", milliseconds(timestamp_ns)).text("INTERFACE", source);
    return record;
}

void link_fields(JsonRecord& record, const DecodedPacket& packet) {
    if (!packet.has_ethernet) return;
    record.mac("MAC_SRC", packet.mac_src).mac("MAC_DST", packet.mac_dst);
    if (packet.has_vlan) record.number("VLAN_ID", packet.vlan_id);
    record.number("ETH_TYPE", packet.eth_type);
}

void endpoint_fields(JsonRecord& record, const DecodedPacket& packet) {
    link_fields(record, packet);
    record.address("IP_SRC", packet.ip_version, packet.src)
        .address("IP_DST", packet.ip_version, packet.dst);
    if (packet.has_ports) {
        record.number("L4_SRC_PORT", packet.src_port).number("L4_DST_PORT", packet.dst_port);
    }
    record.number("IP_PROTOCOL", packet.protocol);
}

}  // namespace

void flow_record(std::string& out, const Flow& flow, FlowEnd reason, std::string_view source) {
    JsonRecord record = start(out, flow.last_ns, source);
    const FlowKey& key = flow.key;
    const bool a = flow.initiator_is_a;
    if (flow.has_ethernet) {
        record.mac("MAC_SRC", flow.mac_src).mac("MAC_DST", flow.mac_dst);
        if (key.vlan_id != 0) record.number("VLAN_ID", key.vlan_id);
        record.number("ETH_TYPE", flow.eth_type);
    }
    record.address("IP_SRC", key.ip_version, a ? key.address_a : key.address_b)
        .address("IP_DST", key.ip_version, a ? key.address_b : key.address_a);
    if (flow.has_ports) {
        record.number("L4_SRC_PORT", a ? key.port_a : key.port_b)
            .number("L4_DST_PORT", a ? key.port_b : key.port_a);
    }
    record.number("IP_PROTOCOL", key.protocol);
    if (key.protocol == kProtoTcp) record.number("TCP_FLAGS_SEEN", flow.tcp_flags);
    record.number("IN_PKTS", flow.packets[0])
        .number("IN_BYTES", flow.bytes[0])
        .number("OUT_PKTS", flow.packets[1])
        .number("OUT_BYTES", flow.bytes[1])
        .number("FIRST_SWITCHED", milliseconds(flow.first_ns))
        .number("LAST_SWITCHED", milliseconds(flow.last_ns));
    if (flow.fragments > 0) record.number("FRAGMENTED", flow.fragments);
    record.text("FLOW_END_REASON", reason_text(reason));
    record.finish();
}

void dns_record(std::string& out, const DecodedPacket& packet, const DnsQuestion& question,
                uint64_t timestamp_ns, std::string_view source) {
    JsonRecord record = start(out, timestamp_ns, source);
    endpoint_fields(record, packet);
    record.text("DNS_QUERY", question.query())
        .number("DNS_QUERY_TYPE", question.type)
        .number("DNS_QUERY_ID", question.id)
        .number("DNS_RESPONSE", question.response ? 1 : 0);
    if (question.response) record.number("DNS_RET_CODE", question.return_code);
    record.finish();
}

void arp_record(std::string& out, const DecodedPacket& packet, uint64_t timestamp_ns,
                std::string_view source) {
    JsonRecord record = start(out, timestamp_ns, source);
    link_fields(record, packet);
    const uint8_t* arp = packet.arp;
    record.number("ARP_OPCODE", static_cast<uint64_t>(arp[6] << 8 | arp[7]))
        .mac("ARP_SENDER_MAC", arp + 8)
        .address("ARP_SENDER_IP", 4, arp + 14)
        .mac("ARP_TARGET_MAC", arp + 18)
        .address("ARP_TARGET_IP", 4, arp + 24);
    record.finish();
}

void http_record(std::string& out, const DecodedPacket& packet, const HttpRequest& request,
                 uint64_t timestamp_ns, std::string_view source) {
    JsonRecord record = start(out, timestamp_ns, source);
    endpoint_fields(record, packet);
    record.text("HTTP_METHOD", request.method).text("HTTP_URL", request.url);
    if (!request.host.empty()) record.text("HTTP_HOST", request.host);
    if (!request.user_agent.empty()) record.text("HTTP_USER_AGENT", request.user_agent);
    record.finish();
}

void statistics_record(std::string& out, const PacketStatistics& statistics, uint64_t period_ns,
                       uint64_t active_flows, uint64_t timestamp_ns, std::string_view source) {
    JsonRecord record = start(out, timestamp_ns, source);
    record.number("STATS_PERIOD_MS", milliseconds(period_ns))
        .number("STATS_PACKETS", statistics.packets)
        .number("STATS_BYTES", statistics.bytes)
        .number("STATS_IPV4_PACKETS", statistics.ipv4)
        .number("STATS_IPV6_PACKETS", statistics.ipv6)
        .number("STATS_TCP_PACKETS", statistics.tcp)
        .number("STATS_UDP_PACKETS", statistics.udp)
        .number("STATS_OTHER_PACKETS", statistics.other)
        .number("STATS_KERNEL_DROPS", statistics.kernel_drops)
        .number("STATS_ENGINE_DROPS", statistics.engine_drops)
        .number("STATS_ACTIVE_FLOWS", active_flows);
    record.finish();
}

}  // namespace vistrel::watchkeep
