#include "traffic.h"

#include <arpa/inet.h>

#include "capturefilewriter.h"

namespace vistrel::testing {

namespace {

void put16(std::string& out, uint16_t value) {
    append(out, htons(value));
}

std::string mac_bytes(const std::string& text) {
    std::string bytes;
    for (size_t i = 0; i < text.size(); i += 3) {
        bytes.push_back(static_cast<char>(std::stoi(text.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

std::string address_bytes(int family, const std::string& text) {
    unsigned char buffer[16];
    inet_pton(family, text.c_str(), buffer);
    return std::string(reinterpret_cast<char*>(buffer), family == AF_INET ? 4 : 16);
}

// Payload bytes that vary from frame to frame without looking like another header.
std::string filler(size_t size, size_t seed) {
    std::string bytes;
    for (size_t i = 0; i < size; ++i) bytes.push_back(static_cast<char>('a' + (i * 7 + seed) % 26));
    return bytes;
}

std::string ethernet(const std::string& destination_mac, const std::string& source_mac,
                     uint16_t type, const std::string& payload) {
    std::string frame = mac_bytes(destination_mac) + mac_bytes(source_mac);
    put16(frame, type);
    frame += payload;
    // Short frames are padded to the Ethernet minimum, as on the wire.
    if (frame.size() < 60) frame.resize(60, '\0');
    return frame;
}

// The tag after its type (the frame's or the outer tag's EtherType), then the inner type.
std::string vlan_tag(uint16_t id, uint16_t type) {
    std::string tag;
    put16(tag, id);
    put16(tag, type);
    return tag;
}

std::string ipv4(const std::string& source, const std::string& destination, uint8_t protocol,
                 const std::string& payload, uint8_t ttl = 64, uint16_t fragment = 0,
                 const std::string& options = "") {
    std::string header;
    header.push_back(static_cast<char>(0x40 | (5 + options.size() / 4)));
    header.push_back(0);
    put16(header, static_cast<uint16_t>(20 + options.size() + payload.size()));
    put16(header, 0x1234);
    put16(header, fragment);
    header.push_back(static_cast<char>(ttl));
    header.push_back(static_cast<char>(protocol));
    put16(header, 0);
    return header + address_bytes(AF_INET, source) + address_bytes(AF_INET, destination) + options +
           payload;
}

std::string ipv6(const std::string& source, const std::string& destination, uint8_t next_header,
                 const std::string& payload) {
    std::string header("\x60\x00\x00\x00", 4);
    put16(header, static_cast<uint16_t>(payload.size()));
    header.push_back(static_cast<char>(next_header));
    header.push_back(64);
    return header + address_bytes(AF_INET6, source) + address_bytes(AF_INET6, destination) +
           payload;
}

std::string udp(uint16_t source_port, uint16_t destination_port, const std::string& payload) {
    std::string header;
    put16(header, source_port);
    put16(header, destination_port);
    put16(header, static_cast<uint16_t>(8 + payload.size()));
    put16(header, 0);
    return header + payload;
}

// `flags`: the 12 bits below the data offset (reserved, NS, CWR ... FIN).
std::string tcp(uint16_t source_port, uint16_t destination_port, uint16_t flags,
                const std::string& payload = "") {
    std::string header;
    put16(header, source_port);
    put16(header, destination_port);
    append(header, htonl(1000));
    append(header, htonl((flags & 0x10) ? 2000 : 0));
    put16(header, static_cast<uint16_t>(0x5000 | (flags & 0x0fff)));
    put16(header, 8192);
    put16(header, 0);
    put16(header, 0);
    return header + payload;
}

std::string icmp(uint8_t type, uint8_t code, const std::string& body) {
    std::string message;
    message.push_back(static_cast<char>(type));
    message.push_back(static_cast<char>(code));
    put16(message, 0);
    return message + body;
}

std::string arp(uint16_t operation, const std::string& sender_mac, const std::string& sender_ip,
                const std::string& target_ip) {
    std::string body;
    put16(body, 1);
    put16(body, 0x0800);
    body += std::string("\x06\x04", 2);
    put16(body, operation);
    return body + mac_bytes(sender_mac) + address_bytes(AF_INET, sender_ip) + std::string(6, '\0') +
           address_bytes(AF_INET, target_ip);
}

std::string gre(uint16_t protocol, const std::string& payload) {
    std::string header(2, '\0');
    put16(header, protocol);
    return header + payload;
}

}  // namespace

// Checksums are left at zero: neither tshark nor libpcap checks them.
std::string udp_frame(size_t length, const std::string& source, const std::string& destination,
                      uint16_t source_port, uint16_t destination_port) {
    const size_t payload = length > 42 ? length - 42 : 0;
    return ethernet(
        "00:1b:c5:00:00:02", "00:1b:c5:00:00:01", 0x0800,
        ipv4(source, destination, 17, udp(source_port, destination_port, filler(payload, 0))));
}

std::vector<std::string> plain_traffic() {
    std::vector<std::string> frames;
    const std::string hosts[] = {kHostA, kHostB, kHostC};
    const std::string macs[] = {kMacA, kMacB};
    const uint16_t ports[] = {53, 80, 443, 40000, 1024};
    const uint8_t ttls[] = {1, 64, 128, 255};
    size_t n = 0;
    for (const auto& source : hosts) {
        for (const auto& destination : hosts) {
            for (uint16_t port : ports) {
                ++n;
                const std::string& mac = macs[n % 2];
                const std::string& other = macs[(n + 1) % 2];
                const uint8_t ttl = ttls[n % 4];
                frames.push_back(ethernet(
                    other, mac, 0x0800,
                    ipv4(source, destination, 17,
                         udp(static_cast<uint16_t>(31000 + n), port, filler(20 + n % 50, n)),
                         ttl)));
                frames.push_back(ethernet(mac, other, 0x0800,
                                          ipv4(source, destination, 6,
                                               tcp(port, static_cast<uint16_t>(50000 + n),
                                                   static_cast<uint16_t>(0x18), filler(n % 30, n)),
                                               ttl)));
            }
        }
    }
    // Every TCP flag alone and in common pairs, reserved bits and NS included.
    for (uint16_t flags : {0x001, 0x002, 0x004, 0x008, 0x010, 0x020, 0x040, 0x080, 0x100, 0x012,
                           0x011, 0x014, 0x018, 0x0c2, 0xe02, 0x000, 0x03f, 0x1ff}) {
        frames.push_back(
            ethernet(kMacB, kMacA, 0x0800, ipv4(kHostA, kHostB, 6, tcp(80, 1024, flags))));
        frames.push_back(
            ethernet(kMacA, kMacB, 0x86dd, ipv6(kHost6B, kHost6A, 6, tcp(1024, 80, flags))));
    }
    // IPv6 UDP and ICMPv6 echo and neighbour discovery; ICMP echo; IPv4 options.
    frames.push_back(
        ethernet(kMacB, kMacA, 0x86dd, ipv6(kHost6A, kHost6B, 17, udp(5353, 53, filler(30, 1)))));
    frames.push_back(
        ethernet(kMacA, kMacB, 0x86dd, ipv6(kHost6B, kHost6A, 17, udp(53, 5353, filler(60, 2)))));
    frames.push_back(
        ethernet(kMacB, kMacA, 0x86dd, ipv6(kHost6A, kHost6B, 58, icmp(128, 0, filler(16, 3)))));
    frames.push_back(ethernet(kMacA, kMacB, 0x86dd,
                              ipv6(kHost6B, kHost6A, 58, icmp(135, 0, std::string(20, '\0')))));
    frames.push_back(
        ethernet(kMacB, kMacA, 0x0800, ipv4(kHostA, kHostC, 1, icmp(8, 0, filler(24, 4)))));
    frames.push_back(
        ethernet(kMacA, kMacB, 0x0800, ipv4(kHostC, kHostA, 1, icmp(0, 0, filler(24, 4)), 250)));
    frames.push_back(ethernet(kMacB, kMacA, 0x0800,
                              ipv4(kHostA, kHostB, 17, udp(40000, 53, filler(10, 5)), 64, 0,
                                   std::string("\x94\x04\x00\x00", 4))));
    frames.push_back(
        ethernet(kMacB, kMacA, 0x0800, ipv4(kHostB, kHostA, 2, std::string(8, '\x11'))));
    // A UDP payload that looks like an IPv6 packet: tshark leaves it undissected off port 3544.
    frames.push_back(ethernet(
        kMacB, kMacA, 0x0800,
        ipv4(kHostA, kHostB, 17,
             udp(40001, 40002, ipv6(kHost6A, kHost6B, 17, udp(40000, 53, filler(8, 1)))))));
    // ARP both ways, an LLC frame (spanning tree) and another EtherType (LLDP).
    frames.push_back(ethernet("ff:ff:ff:ff:ff:ff", kMacA, 0x0806, arp(1, kMacA, kHostA, kHostB)));
    frames.push_back(ethernet(kMacA, kMacB, 0x0806, arp(2, kMacB, kHostB, kHostA)));
    frames.push_back(
        ethernet("01:80:c2:00:00:00", kMacA, 38,
                 std::string("\x42\x42\x03\x00\x00\x00\x00\x00", 8) + std::string(30, '\0')));
    frames.push_back(ethernet("01:80:c2:00:00:0e", kMacB, 0x88cc, std::string(20, '\0')));
    return frames;
}

std::vector<TrapTraffic> trap_traffic() {
    const std::string dns_query = udp(40000, 53, filler(20, 9));
    const std::string quoted = ipv4(kHostC, kHostB, 17, dns_query).substr(0, 28);
    std::vector<TrapTraffic> traps = {
        {"vlan",
         {ethernet(kMacB, kMacA, 0x8100,
                   vlan_tag(7, 0x0800) + ipv4(kHostA, kHostB, 17, dns_query))}},
        {"double-vlan",
         {ethernet(kMacB, kMacA, 0x88a8,
                   vlan_tag(100, 0x8100) + vlan_tag(7, 0x86dd) +
                       ipv6(kHost6A, kHost6B, 6, tcp(80, 1024, 0x002)))}},
        {"fragments",
         {ethernet(
              kMacB, kMacA, 0x0800,
              ipv4(kHostA, kHostB, 17, udp(40000, 53, filler(32, 1)).substr(0, 24), 64, 0x2000)),
          ethernet(kMacB, kMacA, 0x0800, ipv4(kHostA, kHostB, 17, filler(16, 1), 64, 0x0003))}},
        {"icmp-error",
         {ethernet(kMacA, kMacB, 0x0800,
                   ipv4(kHostB, kHostA, 1, icmp(3, 3, std::string(4, '\0') + quoted))),
          ethernet(
              kMacA, kMacB, 0x86dd,
              ipv6(kHost6B, kHost6A, 58,
                   icmp(1, 4,
                        std::string(4, '\0') + ipv6("2001:db8::99", kHost6B, 17, dns_query))))}},
        {"ip-in-ip",
         {ethernet(kMacB, kMacA, 0x0800,
                   ipv4(kHostA, kHostB, 4, ipv4(kHostC, kHostB, 17, dns_query)))}},
        {"gre",
         {ethernet(
             kMacB, kMacA, 0x0800,
             ipv4(kHostA, kHostB, 47, gre(0x0800, ipv4(kHostC, kHostA, 6, tcp(443, 80, 0x012)))))}},
        {"vxlan",
         {ethernet(kMacB, kMacA, 0x0800,
                   ipv4(kHostA, kHostB, 17,
                        udp(40000, 4789,
                            std::string("\x08\x00\x00\x00\x00\x00\x01\x00", 8) +
                                ethernet(kMacA, "00:1b:c5:00:00:99", 0x0800,
                                         ipv4(kHostC, kHostA, 17, dns_query)))))}},
        {"truncated",
         {ethernet(kMacB, kMacA, 0x0800, ipv4(kHostA, kHostB, 6, tcp(80, 1024, 0x002)))},
         true},
    };
    return traps;
}

}  // namespace vistrel::testing
