#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "index/applicationparsers.h"
#include "index/decodedpacket.h"
#include "index/flow.h"

// The documents the engine indexes, one JSON object each. Field names are the dashboard's
// filter keys (see config/grafana_to_tshark.yaml); every record has "@timestamp" (epoch
// milliseconds) and "INTERFACE" (the source). Each is written into `out`, replacing what it held.
namespace vistrel::watchkeep {

// Why a flow record was made.
enum class FlowEnd { idle, active, capture_end, table_full };

void flow_record(std::string& out, const Flow& flow, FlowEnd reason, std::string_view source);
void dns_record(std::string& out, const DecodedPacket& packet, const DnsQuestion& question,
                uint64_t timestamp_ns, std::string_view source);
void arp_record(std::string& out, const DecodedPacket& packet, uint64_t timestamp_ns,
                std::string_view source);
void http_record(std::string& out, const DecodedPacket& packet, const HttpRequest& request,
                 uint64_t timestamp_ns, std::string_view source);

// What a source saw during one statistics period.
struct PacketStatistics {
    uint64_t packets = 0;
    uint64_t bytes = 0;
    uint64_t ipv4 = 0;
    uint64_t ipv6 = 0;
    uint64_t tcp = 0;
    uint64_t udp = 0;
    uint64_t other = 0;
    uint64_t kernel_drops = 0;
    uint64_t engine_drops = 0;
};

void statistics_record(std::string& out, const PacketStatistics& statistics, uint64_t period_ns,
                       uint64_t active_flows, uint64_t timestamp_ns, std::string_view source);

}  // namespace vistrel::watchkeep
