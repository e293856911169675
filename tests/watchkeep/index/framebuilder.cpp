#include "framebuilder.h"

#include <arpa/inet.h>

#include <cstdio>
#include <stdexcept>

namespace vistrel::testing {

namespace {

void put16(std::string& out, uint16_t value) {
    out += static_cast<char>(value >> 8);
    out += static_cast<char>(value & 0xff);
}

void put_mac(std::string& out, const std::string& text) {
    unsigned bytes[6];
    if (std::sscanf(text.c_str(), "%x:%x:%x:%x:%x:%x", &bytes[0], &bytes[1], &bytes[2], &bytes[3],
                    &bytes[4], &bytes[5]) != 6) {
        throw std::invalid_argument("bad MAC " + text);
    }
    for (unsigned byte : bytes) out += static_cast<char>(byte);
}

std::string address(const std::string& text, bool six) {
    unsigned char bytes[16];
    if (inet_pton(six ? AF_INET6 : AF_INET, text.c_str(), bytes) != 1) {
        throw std::invalid_argument("bad address " + text);
    }
    return std::string(reinterpret_cast<char*>(bytes), six ? 16 : 4);
}

std::string transport(const FrameSpec& spec) {
    std::string out;
    if (spec.protocol == 6) {
        put16(out, spec.port_src);
        put16(out, spec.port_dst);
        out.append(8, '\0');  // sequence and acknowledgement numbers
        out += static_cast<char>(5 << 4);
        out += static_cast<char>(spec.tcp_flags);
        put16(out, 65535);
        out.append(4, '\0');
    } else if (spec.protocol == 17) {
        put16(out, spec.port_src);
        put16(out, spec.port_dst);
        put16(out, static_cast<uint16_t>(8 + spec.payload.size()));
        out.append(2, '\0');
    } else if (spec.protocol == 1 || spec.protocol == 58) {
        out += static_cast<char>(8);  // echo request
        out.append(7, '\0');
    }
    return out + spec.payload;
}

}  // namespace

std::string build_frame(const FrameSpec& spec) {
    const bool six = spec.ip_src.find(':') != std::string::npos;
    const bool fragmented = spec.more_fragments || spec.fragment_offset != 0;
    const std::string body = spec.fragment_offset != 0 ? spec.payload : transport(spec);
    std::string frame;
    put_mac(frame, spec.mac_dst);
    put_mac(frame, spec.mac_src);
    if (spec.vlan) {
        put16(frame, spec.inner_vlan ? 0x88a8 : 0x8100);
        put16(frame, *spec.vlan);
        if (spec.inner_vlan) {
            put16(frame, 0x8100);
            put16(frame, *spec.inner_vlan);
        }
    }
    put16(frame, six ? 0x86dd : 0x0800);
    if (six) {
        frame += static_cast<char>(0x60);
        frame.append(3, '\0');
        put16(frame, static_cast<uint16_t>(body.size() + (fragmented ? 8 : 0)));
        frame += static_cast<char>(fragmented ? 44 : spec.protocol);
        frame += static_cast<char>(64);
        frame += address(spec.ip_src, true) + address(spec.ip_dst, true);
        if (fragmented) {
            frame += static_cast<char>(spec.protocol);
            frame += '\0';
            put16(frame,
                  static_cast<uint16_t>(spec.fragment_offset << 3 | (spec.more_fragments ? 1 : 0)));
            put16(frame, static_cast<uint16_t>(spec.fragment_id >> 16));
            put16(frame, static_cast<uint16_t>(spec.fragment_id & 0xffff));
        }
    } else {
        frame += static_cast<char>(0x45);
        frame += '\0';
        put16(frame, static_cast<uint16_t>(20 + body.size()));
        put16(frame, static_cast<uint16_t>(spec.fragment_id));
        put16(frame, static_cast<uint16_t>((spec.more_fragments ? 0x2000 : 0) |
                                           (spec.fragment_offset & 0x1fff)));
        frame += static_cast<char>(64);
        frame += static_cast<char>(spec.protocol);
        frame.append(2, '\0');
        frame += address(spec.ip_src, false) + address(spec.ip_dst, false);
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
    put16(frame, 0x0806);
    put16(frame, 1);
    put16(frame, 0x0800);
    frame += static_cast<char>(6);
    frame += static_cast<char>(4);
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
    size_t start = 0;
    while (start < name.size()) {
        size_t dot = name.find('.', start);
        if (dot == std::string::npos) dot = name.size();
        out += static_cast<char>(dot - start);
        out += name.substr(start, dot - start);
        start = dot + 1;
    }
    out += '\0';
    put16(out, type);
    put16(out, 1);
    return out;
}

}  // namespace vistrel::testing
