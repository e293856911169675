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

std::string transport(const FrameSpec& shape) {
    std::string out;
    if (shape.protocol == 6) {
        put16(out, shape.port_src);
        put16(out, shape.port_dst);
        out.append(8, '\0');  // sequence and acknowledgement numbers
        out += static_cast<char>(5 << 4);
        out += static_cast<char>(shape.tcp_flags);
        put16(out, 65535);
        out.append(4, '\0');
    } else if (shape.protocol == 17) {
        put16(out, shape.port_src);
        put16(out, shape.port_dst);
        put16(out, static_cast<uint16_t>(8 + shape.payload.size()));
        out.append(2, '\0');
    } else if (shape.protocol == 1 || shape.protocol == 58) {
        out += static_cast<char>(8);  // echo request
        out.append(7, '\0');
    }
    return out + shape.payload;
}

}  // namespace

FrameSpec reply(FrameSpec shape) {
    std::swap(shape.ip_src, shape.ip_dst);
    std::swap(shape.port_src, shape.port_dst);
    std::swap(shape.mac_src, shape.mac_dst);
    return shape;
}

std::string build_frame(const FrameSpec& shape) {
    const bool six = shape.ip_src.find(':') != std::string::npos;
    const bool fragmented = shape.more_fragments || shape.fragment_offset != 0;
    const std::string body = shape.fragment_offset != 0 ? shape.payload : transport(shape);
    std::string frame;
    put_mac(frame, shape.mac_dst);
    put_mac(frame, shape.mac_src);
    if (shape.vlan) {
        put16(frame, shape.inner_vlan ? 0x88a8 : 0x8100);
        put16(frame, *shape.vlan);
        if (shape.inner_vlan) {
            put16(frame, 0x8100);
            put16(frame, *shape.inner_vlan);
        }
    }
    put16(frame, six ? 0x86dd : 0x0800);
    if (six) {
        frame.append("\x60\0\0\0", 4);
        put16(frame, static_cast<uint16_t>(body.size() + (fragmented ? 8 : 0)));
        frame += static_cast<char>(fragmented ? 44 : shape.protocol);
        frame += static_cast<char>(64);
        frame += address(shape.ip_src, true) + address(shape.ip_dst, true);
        if (fragmented) {
            frame += static_cast<char>(shape.protocol);
            frame += '\0';
            put16(frame, static_cast<uint16_t>(shape.fragment_offset << 3 |
                                               (shape.more_fragments ? 1 : 0)));
            put16(frame, static_cast<uint16_t>(shape.fragment_id >> 16));
            put16(frame, static_cast<uint16_t>(shape.fragment_id & 0xffff));
        }
    } else {
        frame.append("\x45\0", 2);
        put16(frame, static_cast<uint16_t>(20 + body.size()));
        put16(frame, static_cast<uint16_t>(shape.fragment_id));
        put16(frame, static_cast<uint16_t>((shape.more_fragments ? 0x2000 : 0) |
                                           (shape.fragment_offset & 0x1fff)));
        frame += static_cast<char>(64);
        frame += static_cast<char>(shape.protocol);
        frame.append(2, '\0');
        frame += address(shape.ip_src, false) + address(shape.ip_dst, false);
    }
    frame += body;
    // Ethernet minimum, padding included as on the wire.
    if (frame.size() < 60) frame.append(60 - frame.size(), '\0');
    return frame;
}

std::string arp_frame(uint16_t opcode, const std::string& sender_mac, const std::string& sender_ip,
                      const std::string& target_mac, const std::string& target_ip) {
    std::string frame;
    put_mac(frame, opcode == 1 ? "ff:ff:ff:ff:ff:ff" : target_mac);
    put_mac(frame, sender_mac);
    // ARP, Ethernet hardware, IPv4 protocol, address sizes 6 and 4.
    frame.append("\x08\x06\x00\x01\x08\x00\x06\x04", 8);
    put16(frame, opcode);
    put_mac(frame, sender_mac);
    frame += address(sender_ip, false);
    put_mac(frame, target_mac);
    frame += address(target_ip, false);
    frame.append(60 - frame.size(), '\0');
    return frame;
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

}  // namespace vistrel::testing
