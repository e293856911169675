#include "framebuilder.h"

#include <arpa/inet.h>

#include <sstream>
#include <stdexcept>

namespace vistrel::testing {

namespace {

void put16(std::string& out, uint16_t value) {
    out += static_cast<char>(value >> 8);
    out += static_cast<char>(value & 0xff);
}

void put32(std::string& out, uint32_t value) {
    put16(out, static_cast<uint16_t>(value >> 16));
    put16(out, static_cast<uint16_t>(value & 0xffff));
}

void put_mac(std::string& out, const std::string& text) {
    for (size_t at = 0; at < 18; at += 3)
        out += static_cast<char>(std::stoul(text.substr(at, 2), nullptr, 16));
}

std::string address(const std::string& text, bool six) {
    unsigned char bytes[16];
    if (inet_pton(six ? AF_INET6 : AF_INET, text.c_str(), bytes) != 1) {
        throw std::invalid_argument("bad address " + text);
    }
    return std::string(reinterpret_cast<char*>(bytes), six ? 16 : 4);
}

bool is_six(const FrameSpec& shape) {
    return shape.ip_src.find(':') != std::string::npos;
}

}  // namespace

FrameSpec reply(FrameSpec shape) {
    std::swap(shape.ip_src, shape.ip_dst);
    std::swap(shape.port_src, shape.port_dst);
    std::swap(shape.mac_src, shape.mac_dst);
    return shape;
}

std::string transport(const FrameSpec& shape) {
    std::string out;
    if (shape.protocol == 6) {
        put16(out, shape.port_src);
        put16(out, shape.port_dst);
        put32(out, shape.tcp_seq);
        put32(out, (shape.tcp_flags & 0x10) != 0 ? shape.tcp_ack : 0);
        put16(out, static_cast<uint16_t>(0x5000 | (shape.tcp_flags & 0x0fff)));
        put16(out, shape.tcp_window);
        out.append(4, '\0');
    } else if (shape.protocol == 17) {
        put16(out, shape.port_src);
        put16(out, shape.port_dst);
        put16(out, static_cast<uint16_t>(8 + shape.payload.size()));
        out.append(2, '\0');
    } else if (shape.protocol == 1 || shape.protocol == 58) {
        out += static_cast<char>(shape.icmp_type);
        out += static_cast<char>(shape.icmp_code);
        out.append(2, '\0');
    }
    return out + shape.payload;
}

std::string ip_packet(const FrameSpec& shape) {
    const bool six = is_six(shape);
    const bool fragmented = shape.more_fragments || shape.fragment_offset != 0;
    const std::string body = shape.ip_payload             ? *shape.ip_payload
                             : shape.fragment_offset != 0 ? shape.payload
                                                          : transport(shape);
    std::string packet;
    if (six) {
        packet.append("\x60\0\0\0", 4);
        put16(packet, static_cast<uint16_t>(body.size() + (fragmented ? 8 : 0)));
        packet += static_cast<char>(fragmented ? 44 : shape.protocol);
        packet += static_cast<char>(shape.ttl);
        packet += address(shape.ip_src, true) + address(shape.ip_dst, true);
        if (fragmented) {
            packet += static_cast<char>(shape.protocol);
            packet += '\0';
            put16(packet, static_cast<uint16_t>(shape.fragment_offset << 3 |
                                                (shape.more_fragments ? 1 : 0)));
            put32(packet, shape.fragment_id);
        }
    } else {
        const size_t header = 20 + shape.ip_options.size();
        packet += static_cast<char>(0x40 | header / 4);
        packet += '\0';
        put16(packet, static_cast<uint16_t>(header + body.size()));
        put16(packet, static_cast<uint16_t>(shape.fragment_id));
        put16(packet, static_cast<uint16_t>((shape.more_fragments ? 0x2000 : 0) |
                                            (shape.fragment_offset & 0x1fff)));
        packet += static_cast<char>(shape.ttl);
        packet += static_cast<char>(shape.protocol);
        packet.append(2, '\0');
        packet += address(shape.ip_src, false) + address(shape.ip_dst, false) + shape.ip_options;
    }
    return packet + body;
}

std::string build_frame(const FrameSpec& shape) {
    const uint16_t ip_type = is_six(shape) ? 0x86dd : 0x0800;
    if (!shape.vlan) return ethernet_frame(shape.mac_dst, shape.mac_src, ip_type, ip_packet(shape));
    // Each tag: its ID, then the EtherType that follows it.
    std::string tags;
    put16(tags, *shape.vlan);
    if (shape.inner_vlan) {
        put16(tags, 0x8100);
        put16(tags, *shape.inner_vlan);
    }
    put16(tags, ip_type);
    return ethernet_frame(shape.mac_dst, shape.mac_src, shape.inner_vlan ? 0x88a8 : 0x8100,
                          tags + ip_packet(shape));
}

std::string ethernet_frame(const std::string& mac_dst, const std::string& mac_src, uint16_t type,
                           const std::string& payload) {
    std::string frame;
    put_mac(frame, mac_dst);
    put_mac(frame, mac_src);
    put16(frame, type);
    frame += payload;
    if (frame.size() < 60) frame.append(60 - frame.size(), '\0');
    return frame;
}

std::string arp_frame(uint16_t opcode, const std::string& sender_mac, const std::string& sender_ip,
                      const std::string& target_mac, const std::string& target_ip) {
    // Ethernet hardware, IPv4 protocol, address sizes 6 and 4.
    std::string body("\x00\x01\x08\x00\x06\x04", 6);
    put16(body, opcode);
    put_mac(body, sender_mac);
    body += address(sender_ip, false);
    put_mac(body, target_mac);
    body += address(target_ip, false);
    return ethernet_frame(opcode == 1 ? "ff:ff:ff:ff:ff:ff" : target_mac, sender_mac, 0x0806, body);
}

std::string dns_message(const std::string& name, uint16_t id, uint16_t type, bool response,
                        uint8_t return_code) {
    std::string out;
    put16(out, id);
    put16(out, static_cast<uint16_t>((response ? 0x8180 : 0x0100) | return_code));
    put16(out, 1);
    out.append(6, '\0');
    std::istringstream labels(name);
    for (std::string label; std::getline(labels, label, '.');)
        out += static_cast<char>(label.size()) + label;
    out += '\0';
    put16(out, type);
    put16(out, 1);
    return out;
}

std::string filler(size_t size, size_t seed) {
    std::string bytes;
    for (size_t i = 0; i < size; ++i) bytes += static_cast<char>('a' + (i * 7 + seed) % 26);
    return bytes;
}

}  // namespace vistrel::testing
