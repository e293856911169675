#include "capture/packetselector.h"

#include <algorithm>

#include "capture/bytes.h"
#include "capture/outputheader.h"
#include "capture/packet.h"

namespace vistrel::capture {

namespace {

// UDP and TCP ports on which tshark finds whole packets inside the payload (VXLAN, Geneve,
// GTP, Teredo, L2TP, LISP, sFlow, TZSP, AMT, GRE and MPLS over UDP, CAPWAP, LWAPP, PeekRemote,
// rpcap, Juniper packet mirror, B.A.T.M.A.N., WASSP, OpenFlow).
constexpr const char* kTunnelPorts[] = {
    "4789", "8472",  "4790",  "6081", "2152", "2123", "3544",  "1701",  "4341",  "4342",
    "6343", "37008", "2268",  "4754", "6635", "5246", "5247",  "12220", "12222", "12223",
    "5000", "2002",  "30030", "4305", "4306", "4307", "13907", "13910", "6633",  "6653"};

// EtherTypes that carry further headers (VLAN tags, MPLS, PPPoE, PBB, transparent bridging,
// NSH, VN-tag, ERSPAN) or that tshark reads as ARP (RARP).
constexpr const char* kEncapsulatingEtherTypes[] = {
    "0x8100", "0x88a8", "0x9100", "0x9200", "0x8847", "0x8848", "0x8863",
    "0x8864", "0x88e7", "0x6558", "0x894f", "0x8926", "0x88be", "0x8035"};

std::string one_of(const std::string& load, std::initializer_list<const char*> values) {
    std::string text = "(";
    bool first = true;
    for (const char* value : values) {
        text += (first ? "" : " or ") + load + " = " + value;
        first = false;
    }
    return text + ")";
}

std::string build_plain_traffic_bpf() {
    auto tunnel_ports = [](const std::string& protocol) {
        std::string text = "(";
        for (const char* port : kTunnelPorts) {
            text += std::string(text.size() > 1 ? " or " : "") + protocol + " port " + port;
        }
        return text + ")";
    };
    std::string encapsulating = "(";
    for (const char* type : kEncapsulatingEtherTypes) {
        encapsulating +=
            std::string(encapsulating.size() > 1 ? " or " : "") + "ether[12:2] = " + type;
    }
    encapsulating += ")";

    const std::string ihl = "(ip[0] & 0xf) * 4";

    const std::string ipv4 =
        "(ether[12:2] = 0x800 and (ip[0] & 0xf0) = 0x40 and (ip[0] & 0xf) >= 5 and ip[2:2] >= " +
        ihl + " and len >= 14 + ip[2:2] and (ip[6:2] & 0x3fff) = 0 and (" +
        // TCP: a whole header inside the IP payload.
        "(ip[9] = 6 and ip[2:2] >= " + ihl +
        " + 20 and (tcp[12] & 0xf0) >= 0x50 and ip[2:2] >= " + ihl +
        " + (tcp[12] & 0xf0) / 4 and not " + tunnel_ports("tcp") + ")" +
        // UDP: a consistent length, no tunnel port.
        " or (ip[9] = 17 and ip[2:2] >= " + ihl + " + 8 and udp[4:2] >= 8 and ip[2:2] >= " + ihl +
        " + udp[4:2] and not " + tunnel_ports("udp") + ")" +
        // ICMP other than errors, which quote another packet.
        " or (ip[9] = 1 and ip[2:2] >= " + ihl + " + 8 and " +
        one_of("icmp[0]", {"0", "8", "13", "14"}) + ")" +
        // IGMP, ESP, OSPF, VRRP, SCTP: no further IP header.
        " or " + one_of("ip[9]", {"2", "50", "89", "112", "132"}) + "))";

    const std::string ipv6 =
        "(ether[12:2] = 0x86dd and (ip6[0] & 0xf0) = 0x60 and len >= 54 + ip6[4:2] and (" +
        std::string(
            "(ip6[6] = 6 and ip6[4:2] >= 20 and (ip6[52] & 0xf0) >= 0x50 and ip6[4:2] >= "
            "(ip6[52] & 0xf0) / 4 and not ") +
        tunnel_ports("tcp") + ")" +
        " or (ip6[6] = 17 and ip6[4:2] >= 8 and ip6[44:2] >= 8 and ip6[4:2] >= ip6[44:2] and "
        "not " +
        tunnel_ports("udp") + ")" +
        // ICMPv6 informational messages other than redirects, which quote a packet.
        " or (ip6[6] = 58 and ip6[4:2] >= 4 and " +
        one_of("ip6[40]", {"128", "129", "130", "131", "132", "133", "134", "135", "136", "143"}) +
        ")" + " or ip6[6] = 59 or ip6[6] = 50))";

    // Cisco ISL frames hide a whole frame behind their first bytes.
    const std::string isl = "((ether[0] = 0x01 or ether[0] = 0x0c) and ether[1:4] = 0x000c0000)";
    return "not " + isl + " and (" + ipv4 + " or " + ipv6 + " or ether[12:2] = 0x806" +
           " or (ether[12:2] <= 1500 and ether[14:2] != 0xaaaa)" +
           " or (ether[12:2] > 1500 and not " + encapsulating +
           " and ether[12:2] != 0x800 and ether[12:2] != 0x86dd))";
}

}  // namespace

const std::string& plain_traffic_bpf() {
    static const std::string text = build_plain_traffic_bpf();
    return text;
}

int extract_link_type() {
    // The link type field of the header's first Interface Description Block.
    return load_u16(output_header_bytes().data() + 36);
}

PacketSelector::PacketSelector(std::string expression, std::unique_ptr<BpfProgram> filter,
                               std::unique_ptr<BpfProgram> plain)
    : expression_(std::move(expression)), filter_(std::move(filter)), plain_(std::move(plain)) {}

std::unique_ptr<PacketSelector> PacketSelector::create(const std::string& expression, int link_type,
                                                       std::string& error) {
    auto filter = BpfProgram::compile(expression, link_type, error);
    if (!filter) return nullptr;
    auto plain = BpfProgram::compile(plain_traffic_bpf(), link_type, error);
    if (!plain) return nullptr;
    return std::make_unique<PacketSelector>(expression, std::move(filter), std::move(plain));
}

namespace {

// The packet bytes the block really holds, whatever its captured-length field claims.
uint32_t held_length(const uint8_t* epb) {
    const uint32_t room = load_u32(epb + kEpbTotalLength) - kEpbMinimumSize;
    return std::min(load_u32(epb + kEpbCapturedLength), room);
}

}  // namespace

bool PacketSelector::plain(const uint8_t* epb) const {
    const uint32_t captured = load_u32(epb + kEpbCapturedLength);
    // A cut packet's headers may end early: libpcap and tshark disagree on those.
    if (captured != held_length(epb) || captured != load_u32(epb + kEpbOriginalLength)) {
        return false;
    }
    return plain_->matches(epb + kEpbData, captured, captured);
}

bool PacketSelector::selects(const uint8_t* epb) const {
    return filter_->matches(epb + kEpbData, held_length(epb), load_u32(epb + kEpbOriginalLength));
}

}  // namespace vistrel::capture
