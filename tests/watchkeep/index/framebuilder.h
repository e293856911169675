#pragma once

#include <cstdint>
#include <optional>
#include <string>

// Ethernet frames made field by field, for the indexing tests and the indexing benchmark.
namespace vistrel::testing {

struct FrameSpec {
    std::string mac_src = "02:00:00:00:00:01";
    std::string mac_dst = "02:00:00:00:00:02";
    std::optional<uint16_t> vlan{};        // outer tag (0x8100)
    std::optional<uint16_t> inner_vlan{};  // with vlan: QinQ (outer 0x88a8)
    std::string ip_src = "10.0.0.1";       // IPv6 when it holds a ':'
    std::string ip_dst = "10.0.0.2";
    uint8_t protocol = 17;  // 6 TCP, 17 UDP, 1 ICMP
    uint16_t port_src = 40000;
    uint16_t port_dst = 80;
    uint8_t tcp_flags = 0x18;  // PSH|ACK
    std::string payload{};
    // Fragmentation (IPv4 header fields; IPv6 adds a fragment header when either is set).
    uint32_t fragment_id = 0;
    bool more_fragments = false;
    uint16_t fragment_offset = 0;  // in 8-byte units
};

// The same conversation the other way (addresses, ports and MACs swapped).
FrameSpec reply(FrameSpec shape);

// The frame; a non-first fragment carries `payload` directly after the IP header.
std::string build_frame(const FrameSpec& shape);

// An ARP request (opcode 1) or reply (2) over Ethernet.
std::string arp_frame(uint16_t opcode, const std::string& sender_mac, const std::string& sender_ip,
                      const std::string& target_mac, const std::string& target_ip);

// A DNS message with one question.
std::string dns_message(const std::string& name, uint16_t id, uint16_t type, bool response,
                        uint8_t return_code = 0);

}  // namespace vistrel::testing
