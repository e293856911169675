#include "index/packetdecoder.h"

#include <cstring>

namespace vistrel::watchkeep {

namespace {

constexpr uint16_t kTypeIpv4 = 0x0800;
constexpr uint16_t kTypeArp = 0x0806;
constexpr uint16_t kTypeIpv6 = 0x86dd;
constexpr uint16_t kTypeVlan = 0x8100;
constexpr uint16_t kTypeQinQ = 0x88a8;
constexpr uint16_t kTypeQinQOld = 0x9100;

constexpr uint8_t kProtoTcp = 6;
constexpr uint8_t kProtoUdp = 17;

inline uint16_t be16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] << 8 | p[1]);
}
inline uint32_t be32(const uint8_t* p) {
    return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}

void decode_transport(const uint8_t* data, uint32_t length, DecodedPacket& out) {
    if (out.protocol == kProtoTcp) {
        if (length < 20) return;
        uint32_t header = (data[12] >> 4) * 4u;
        if (header < 20 || header > length) return;
        out.has_ports = true;
        out.src_port = be16(data);
        out.dst_port = be16(data + 2);
        out.tcp_flags = data[13];
        out.payload = data + header;
        out.payload_length = length - header;
    } else if (out.protocol == kProtoUdp) {
        if (length < 8) return;
        out.has_ports = true;
        out.src_port = be16(data);
        out.dst_port = be16(data + 2);
        out.payload = data + 8;
        out.payload_length = length - 8;
    }
}

void decode_ipv4(const uint8_t* data, uint32_t length, DecodedPacket& out) {
    if (length < 20 || (data[0] >> 4) != 4) return;
    uint32_t header = (data[0] & 0x0f) * 4u;
    if (header < 20 || header > length) return;
    out.ip_version = 4;
    out.protocol = data[9];
    out.ttl = data[8];
    std::memcpy(out.src, data + 12, 4);
    std::memcpy(out.dst, data + 16, 4);
    uint16_t fragment = be16(data + 6);
    uint16_t offset = fragment & 0x1fff;
    if ((fragment & 0x2000) != 0 || offset != 0) {
        out.is_fragment = true;
        out.first_fragment = offset == 0;
        out.fragment_id = be16(data + 4);
    }
    if (!out.first_fragment) return;
    // The total length bounds the datagram: Ethernet padding is not payload.
    uint32_t total = be16(data + 2);
    if (total >= header && total < length) length = total;
    decode_transport(data + header, length - header, out);
}

void decode_ipv6(const uint8_t* data, uint32_t length, DecodedPacket& out) {
    if (length < 40 || (data[0] >> 4) != 6) return;
    out.ip_version = 6;
    out.ttl = data[7];
    std::memcpy(out.src, data + 8, 16);
    std::memcpy(out.dst, data + 24, 16);
    uint32_t payload = be16(data + 4);
    if (payload + 40 < length) length = payload + 40;
    uint8_t next = data[6];
    uint32_t offset = 40;
    // Extension headers, a bounded number of them.
    for (int hops = 0; hops < 8; ++hops) {
        if (next == 0 || next == 43 || next == 60) {
            if (offset + 8 > length) return;
            uint8_t following = data[offset];
            offset += (data[offset + 1] + 1u) * 8;
            next = following;
        } else if (next == 51) {
            if (offset + 8 > length) return;
            uint8_t following = data[offset];
            offset += (data[offset + 1] + 2u) * 4;
            next = following;
        } else if (next == 44) {
            if (offset + 8 > length) return;
            uint8_t following = data[offset];
            uint16_t field = be16(data + offset + 2);
            out.is_fragment = true;
            out.first_fragment = (field & 0xfff8) == 0;
            out.fragment_id = be32(data + offset + 4);
            offset += 8;
            next = following;
            if (!out.first_fragment) {
                out.protocol = next;
                return;
            }
        } else {
            break;
        }
    }
    out.protocol = next;
    if (offset > length) return;
    decode_transport(data + offset, length - offset, out);
}

void decode_network(uint16_t type, const uint8_t* data, uint32_t length, DecodedPacket& out) {
    if (type == kTypeIpv4) {
        decode_ipv4(data, length, out);
    } else if (type == kTypeIpv6) {
        decode_ipv6(data, length, out);
    } else if (type == kTypeArp && length >= 28 && be16(data) == 1 && be16(data + 2) == kTypeIpv4 &&
               data[4] == 6 && data[5] == 4) {
        out.arp = data;
    }
}

bool decode_ethernet(const uint8_t* data, uint32_t length, DecodedPacket& out) {
    if (length < 14) return false;
    out.has_ethernet = true;
    std::memcpy(out.mac_dst, data, 6);
    std::memcpy(out.mac_src, data + 6, 6);
    uint16_t type = be16(data + 12);
    out.eth_type = type;
    uint32_t offset = 14;
    // VLAN and QinQ tags; the outer one names the VLAN.
    for (int tags = 0; tags < 4 && (type == kTypeVlan || type == kTypeQinQ || type == kTypeQinQOld);
         ++tags) {
        if (offset + 4 > length) return true;
        if (!out.has_vlan) {
            out.has_vlan = true;
            out.vlan_id = be16(data + offset) & 0x0fff;
        }
        type = be16(data + offset + 2);
        offset += 4;
    }
    decode_network(type, data + offset, length - offset, out);
    return true;
}

}  // namespace

bool decode_packet(uint32_t link_type, const uint8_t* data, uint32_t length, DecodedPacket& out) {
    out = DecodedPacket{};
    switch (link_type) {
        case kLinkEthernet:
            return decode_ethernet(data, length, out);
        case kLinkRaw:
            if (length < 1) return false;
            decode_network((data[0] >> 4) == 6 ? kTypeIpv6 : kTypeIpv4, data, length, out);
            return true;
        case kLinkNull: {
            if (length < 4) return false;
            // Address family in the capturing host's order; 2 is IPv4, 10/24/28/30 IPv6.
            uint32_t family = data[0] != 0 ? data[0] : data[3];
            decode_network(family == 2 ? kTypeIpv4 : kTypeIpv6, data + 4, length - 4, out);
            return true;
        }
        case kLinkLinuxSll:
            if (length < 16) return false;
            decode_network(be16(data + 14), data + 16, length - 16, out);
            return true;
        case kLinkLinuxSll2:
            if (length < 20) return false;
            decode_network(be16(data), data + 20, length - 20, out);
            return true;
        default:
            return false;
    }
}

}  // namespace vistrel::watchkeep
