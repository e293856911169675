#pragma once

#include <cstdint>
#include <optional>
#include <string>

// Ethernet frames made field by field, for the capture and indexing tests and the indexing
// benchmark. Checksums stay zero: neither libpcap, tshark nor the indexer checks them.
namespace vistrel::testing {

struct FrameSpec {
    std::string mac_src = "02:00:00:00:00:01";
    std::string mac_dst = "02:00:00:00:00:02";
    std::optional<uint16_t> vlan{};        // outer tag (0x8100)
    std::optional<uint16_t> inner_vlan{};  // with vlan: QinQ (outer 0x88a8)
    std::string ip_src = "10.0.0.1";       // IPv6 when it holds a ':'
    std::string ip_dst = "10.0.0.2";
    uint8_t ttl = 64;          // IPv6: the hop limit
    std::string ip_options{};  // IPv4 only, whole 32-bit words
    uint8_t protocol = 17;  // 6 TCP, 17 UDP, 1 ICMP, 58 ICMPv6; any other carries `payload` alone
    uint16_t port_src = 40000;
    uint16_t port_dst = 80;
    uint16_t tcp_flags = 0x18;  // PSH|ACK; the 12 bits below the data offset
    uint32_t tcp_seq = 0;
    uint32_t tcp_ack = 0;  // written only with the ACK flag
    uint16_t tcp_window = 65535;
    uint8_t icmp_type = 8;  // echo request; `payload` begins with the header's last 4 bytes
    uint8_t icmp_code = 0;
    std::string payload{};
    // Bytes after the IP header instead of a transport header and `payload` (a cut first fragment).
    std::optional<std::string> ip_payload{};
    // IPv4's identification; an IPv6 fragment header's when fragmented.
    uint32_t fragment_id = 0;
    bool more_fragments = false;
    uint16_t fragment_offset = 0;  // in 8-byte units
};

// The same conversation the other way (addresses, ports and MACs swapped).
FrameSpec reply(FrameSpec shape);

// The transport header and payload.
std::string transport(const FrameSpec& shape);

// The IP packet alone (for tunnels and quoted packets); a non-first fragment carries `payload`
// directly after the IP header.
std::string ip_packet(const FrameSpec& shape);

// The whole frame.
std::string build_frame(const FrameSpec& shape);

// Any Ethernet frame, padded to the minimum as on the wire.
std::string ethernet_frame(const std::string& mac_dst, const std::string& mac_src, uint16_t type,
                           const std::string& payload);

// An ARP request (opcode 1) or reply (2) over Ethernet.
std::string arp_frame(uint16_t opcode, const std::string& sender_mac, const std::string& sender_ip,
                      const std::string& target_mac, const std::string& target_ip);

// A DNS message with one question.
std::string dns_message(const std::string& name, uint16_t id, uint16_t type, bool response,
                        uint8_t return_code = 0);

// Payload bytes that vary with `seed` without looking like another header.
std::string filler(size_t size, size_t seed);

}  // namespace vistrel::testing
