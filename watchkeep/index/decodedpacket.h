#pragma once

#include <cstdint>

namespace vistrel::watchkeep {

// What the decoder found in one frame. Pointers refer into the caller's frame buffer and are
// valid only while it is.
struct DecodedPacket {
    bool has_ethernet = false;
    uint8_t mac_src[6] = {};
    uint8_t mac_dst[6] = {};
    uint16_t eth_type = 0;  // as the frame carries it: 0x8100 for a tagged frame
    uint16_t vlan_id = 0;   // outer tag; meaningful when has_vlan
    bool has_vlan = false;

    uint8_t ip_version = 0;  // 0: not IP, 4 or 6
    uint8_t protocol = 0;    // IP protocol number (after IPv6 extension headers)
    uint8_t src[16] = {};    // IPv4 addresses use the first 4 bytes
    uint8_t dst[16] = {};
    uint8_t ttl = 0;

    bool is_fragment = false;    // any fragment of a fragmented datagram
    bool first_fragment = true;  // offset 0: carries the transport header
    uint32_t fragment_id = 0;

    bool has_ports = false;  // TCP or UDP header present
    uint16_t src_port = 0;
    uint16_t dst_port = 0;
    uint8_t tcp_flags = 0;

    const uint8_t* payload = nullptr;  // transport payload, captured part only
    uint32_t payload_length = 0;

    const uint8_t* arp = nullptr;  // ARP for IPv4 over Ethernet (28 bytes), or null
};

}  // namespace vistrel::watchkeep
