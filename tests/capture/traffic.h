#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Ethernet frames built header by header, for tests that compare libpcap's and tshark's
// reading of the same packets. Checksums are left at zero (tshark does not check them).
namespace vistrel::testing {

std::string ethernet(const std::string& destination_mac, const std::string& source_mac,
                     uint16_t type, const std::string& payload);
// One 802.1Q (or 802.1ad with `tag_type` 0x88a8) tag in front of `type`.
std::string vlan_tag(uint16_t tag_type, uint16_t id, uint16_t type);
std::string ipv4(const std::string& source, const std::string& destination, uint8_t protocol,
                 const std::string& payload, uint8_t ttl = 64, uint16_t fragment = 0,
                 const std::string& options = "");
std::string ipv6(const std::string& source, const std::string& destination, uint8_t next_header,
                 const std::string& payload);
std::string udp(uint16_t source_port, uint16_t destination_port, const std::string& payload);
// `flags`: the 12 bits below the data offset (reserved, NS, CWR ... FIN).
std::string tcp(uint16_t source_port, uint16_t destination_port, uint16_t flags,
                const std::string& payload = "");
std::string icmp(uint8_t type, uint8_t code, const std::string& body);
std::string arp(uint16_t operation, const std::string& sender_mac, const std::string& sender_ip,
                const std::string& target_ip);
std::string gre(uint16_t protocol, const std::string& payload);

// Traffic where libpcap's and tshark's readings of the filterable fields agree.
std::vector<std::string> plain_traffic();
// Each a few frames that tshark reads deeper than libpcap (name, frames).
struct TrapTraffic {
    std::string name;
    std::vector<std::string> frames;
    bool truncated = false;  // the frames are cut to 40 bytes when written
};
std::vector<TrapTraffic> trap_traffic();

// The addresses and ports the generated traffic uses, for filters that match some of it.
inline const std::string kHostA = "10.1.0.1";
inline const std::string kHostB = "10.1.0.2";
inline const std::string kHostC = "192.168.7.7";
inline const std::string kHost6A = "2001:db8::1";
inline const std::string kHost6B = "2001:db8::2";
inline const std::string kMacA = "00:1b:c5:00:00:0a";
inline const std::string kMacB = "00:1b:c5:00:00:0b";

}  // namespace vistrel::testing
