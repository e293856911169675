#include "traffic.h"

#include <utility>

#include "framebuilder.h"

namespace vistrel::testing {

namespace {

// A frame from kMacA to kMacB with this traffic's IP identification and TCP numbers.
FrameSpec shape_of(const std::string& source, const std::string& destination, uint8_t protocol,
                   uint16_t source_port, uint16_t destination_port,
                   const std::string& payload = "") {
    return {.mac_src = kMacA,
            .mac_dst = kMacB,
            .ip_src = source,
            .ip_dst = destination,
            .protocol = protocol,
            .port_src = source_port,
            .port_dst = destination_port,
            .tcp_seq = 1000,
            .tcp_ack = 2000,
            .tcp_window = 8192,
            .payload = payload,
            .fragment_id = 0x1234};
}

// The same packet from kMacB to kMacA.
FrameSpec from_b(FrameSpec shape) {
    std::swap(shape.mac_src, shape.mac_dst);
    return shape;
}

// The DNS question the traps carry.
FrameSpec question(const std::string& source, const std::string& destination) {
    return shape_of(source, destination, 17, 40000, 53, filler(20, 9));
}

}  // namespace

std::vector<std::string> plain_traffic() {
    std::vector<std::string> frames;
    const std::string hosts[] = {kHostA, kHostB, kHostC};
    const uint16_t ports[] = {53, 80, 443, 40000, 1024};
    const uint8_t ttls[] = {1, 64, 128, 255};
    size_t n = 0;
    for (const auto& source : hosts) {
        for (const auto& destination : hosts) {
            for (uint16_t port : ports) {
                ++n;
                FrameSpec udp = shape_of(source, destination, 17, static_cast<uint16_t>(31000 + n),
                                         port, filler(20 + n % 50, n));
                FrameSpec tcp = shape_of(source, destination, 6, port,
                                         static_cast<uint16_t>(50000 + n), filler(n % 30, n));
                udp.ttl = tcp.ttl = ttls[n % 4];
                // The two go opposite ways between the MACs, alternating.
                frames.push_back(build_frame(n % 2 == 0 ? udp : from_b(udp)));
                frames.push_back(build_frame(n % 2 == 0 ? from_b(tcp) : tcp));
            }
        }
    }
    // Every TCP flag alone and in common pairs, reserved bits and NS included.
    for (uint16_t flags : {0x001, 0x002, 0x004, 0x008, 0x010, 0x020, 0x040, 0x080, 0x100, 0x012,
                           0x011, 0x014, 0x018, 0x0c2, 0xe02, 0x000, 0x03f, 0x1ff}) {
        FrameSpec tcp = shape_of(kHostA, kHostB, 6, 80, 1024);
        tcp.tcp_flags = flags;
        frames.push_back(build_frame(tcp));
        tcp.ip_src = kHost6A;
        tcp.ip_dst = kHost6B;
        frames.push_back(build_frame(reply(tcp)));
    }
    // IPv6 UDP and ICMPv6 echo and neighbour discovery; ICMP echo; IPv4 options.
    FrameSpec udp6 = shape_of(kHost6A, kHost6B, 17, 5353, 53, filler(30, 1));
    frames.push_back(build_frame(udp6));
    udp6.payload = filler(60, 2);
    frames.push_back(build_frame(reply(udp6)));
    FrameSpec icmp6 = shape_of(kHost6A, kHost6B, 58, 0, 0, filler(16, 3));
    icmp6.icmp_type = 128;
    frames.push_back(build_frame(icmp6));
    icmp6.icmp_type = 135;
    icmp6.payload = std::string(20, '\0');
    frames.push_back(build_frame(reply(icmp6)));
    FrameSpec echo = shape_of(kHostA, kHostC, 1, 0, 0, filler(24, 4));
    frames.push_back(build_frame(echo));
    echo.ttl = 250;
    echo.icmp_type = 0;
    frames.push_back(build_frame(reply(echo)));
    FrameSpec options = shape_of(kHostA, kHostB, 17, 40000, 53, filler(10, 5));
    options.ip_options = std::string("\x94\x04\x00\x00", 4);
    frames.push_back(build_frame(options));
    frames.push_back(build_frame(shape_of(kHostB, kHostA, 2, 0, 0, std::string(8, '\x11'))));
    // A UDP payload that looks like an IPv6 packet: tshark leaves it undissected off port 3544.
    const std::string inner = ip_packet(shape_of(kHost6A, kHost6B, 17, 40000, 53, filler(8, 1)));
    frames.push_back(build_frame(shape_of(kHostA, kHostB, 17, 40001, 40002, inner)));
    // ARP both ways, an LLC frame (spanning tree) and another EtherType (LLDP).
    frames.push_back(arp_frame(1, kMacA, kHostA, "00:00:00:00:00:00", kHostB));
    frames.push_back(arp_frame(2, kMacB, kHostB, kMacA, kHostA));
    frames.push_back(ethernet_frame("01:80:c2:00:00:00", kMacA, 38,
                                    std::string("\x42\x42\x03", 3) + std::string(35, '\0')));
    frames.push_back(ethernet_frame("01:80:c2:00:00:0e", kMacB, 0x88cc, std::string(20, '\0')));
    return frames;
}

std::vector<TrapTraffic> trap_traffic() {
    FrameSpec syn = shape_of(kHostA, kHostB, 6, 80, 1024);
    syn.tcp_flags = 0x002;
    FrameSpec tagged = question(kHostA, kHostB);
    tagged.vlan = 7;
    FrameSpec double_tagged = shape_of(kHost6A, kHost6B, 6, 80, 1024);
    double_tagged.tcp_flags = 0x002;
    double_tagged.vlan = 100;
    double_tagged.inner_vlan = 7;
    // A datagram's first 24 bytes, then a later piece of it.
    FrameSpec first_fragment = shape_of(kHostA, kHostB, 17, 40000, 53, filler(32, 1));
    first_fragment.ip_payload = transport(first_fragment).substr(0, 24);
    first_fragment.more_fragments = true;
    FrameSpec later_fragment = shape_of(kHostA, kHostB, 17, 0, 0, filler(16, 1));
    later_fragment.fragment_offset = 3;
    // ICMP errors quoting a packet: its first 28 bytes, or all of it.
    FrameSpec unreachable =
        shape_of(kHostB, kHostA, 1, 0, 0,
                 std::string(4, '\0') + ip_packet(question(kHostC, kHostB)).substr(0, 28));
    unreachable.icmp_type = 3;
    unreachable.icmp_code = 3;
    FrameSpec unreachable6 =
        shape_of(kHost6B, kHost6A, 58, 0, 0,
                 std::string(4, '\0') + ip_packet(question("2001:db8::99", kHost6B)));
    unreachable6.icmp_type = 1;
    unreachable6.icmp_code = 4;
    FrameSpec tunnelled = shape_of(kHostC, kHostA, 6, 443, 80);
    tunnelled.tcp_flags = 0x012;
    const std::string gre = std::string("\0\0\x08\0", 4) + ip_packet(tunnelled);
    FrameSpec vxlan_inner = question(kHostC, kHostA);
    vxlan_inner.mac_src = "00:1b:c5:00:00:99";
    vxlan_inner.mac_dst = kMacA;
    const std::string vxlan =
        std::string("\x08\x00\x00\x00\x00\x00\x01\x00", 8) + build_frame(vxlan_inner);
    return {
        {"vlan", {build_frame(tagged)}},
        {"double-vlan", {build_frame(double_tagged)}},
        {"fragments", {build_frame(first_fragment), build_frame(later_fragment)}},
        {"icmp-error", {build_frame(from_b(unreachable)), build_frame(from_b(unreachable6))}},
        {"ip-in-ip",
         {build_frame(shape_of(kHostA, kHostB, 4, 0, 0, ip_packet(question(kHostC, kHostB))))}},
        {"gre", {build_frame(shape_of(kHostA, kHostB, 47, 0, 0, gre))}},
        {"vxlan", {build_frame(shape_of(kHostA, kHostB, 17, 40000, 4789, vxlan))}},
        {"truncated", {build_frame(syn)}, true},
    };
}

}  // namespace vistrel::testing
