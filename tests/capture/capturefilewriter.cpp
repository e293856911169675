#include "capturefilewriter.h"

#include <arpa/inet.h>

#include <cstring>

namespace vistrel::testing {

void append_u16(std::string& bytes, uint16_t value) {
    bytes.append(reinterpret_cast<const char*>(&value), sizeof value);
}

void append_u32(std::string& bytes, uint32_t value) {
    bytes.append(reinterpret_cast<const char*>(&value), sizeof value);
}

void append_u64(std::string& bytes, uint64_t value) {
    bytes.append(reinterpret_cast<const char*>(&value), sizeof value);
}

namespace {

void append_be16(std::string& bytes, uint16_t value) {
    bytes.push_back(char(value >> 8));
    bytes.push_back(char(value & 0xff));
}

void pad4(std::string& bytes) {
    while (bytes.size() % 4 != 0) bytes.push_back('\0');
}

uint32_t read_u32(const std::string& bytes, size_t at) {
    uint32_t value;
    std::memcpy(&value, bytes.data() + at, sizeof value);
    return value;
}

}  // namespace

std::string udp_frame(size_t length, const std::string& source, const std::string& destination,
                      uint16_t source_port, uint16_t destination_port) {
    if (length < 42) length = 42;
    std::string frame;
    frame += std::string("\x00\x1b\xc5\x00\x00\x02", 6);  // destination MAC
    frame += std::string("\x00\x1b\xc5\x00\x00\x01", 6);  // source MAC
    append_be16(frame, 0x0800);
    const size_t ip_start = frame.size();
    frame.push_back(0x45);
    frame.push_back(0);
    append_be16(frame, static_cast<uint16_t>(length - 14));
    append_be16(frame, 0x1234);
    append_be16(frame, 0);
    frame.push_back(64);
    frame.push_back(17);    // UDP
    append_be16(frame, 0);  // checksum, filled in below
    in_addr address{};
    inet_pton(AF_INET, source.c_str(), &address);
    frame.append(reinterpret_cast<const char*>(&address), 4);
    inet_pton(AF_INET, destination.c_str(), &address);
    frame.append(reinterpret_cast<const char*>(&address), 4);
    uint32_t sum = 0;
    for (size_t i = ip_start; i < ip_start + 20; i += 2) {
        sum += (uint8_t(frame[i]) << 8) | uint8_t(frame[i + 1]);
    }
    while (sum >> 16) sum = (sum & 0xffff) + (sum >> 16);
    const uint16_t checksum = static_cast<uint16_t>(~sum);
    frame[ip_start + 10] = char(checksum >> 8);
    frame[ip_start + 11] = char(checksum & 0xff);
    append_be16(frame, source_port);
    append_be16(frame, destination_port);
    append_be16(frame, static_cast<uint16_t>(length - 34));
    append_be16(frame, 0);
    for (size_t i = frame.size(); i < length; ++i) frame.push_back(char('a' + i % 26));
    return frame;
}

PcapBuilder::PcapBuilder(uint32_t magic, uint32_t link_type) {
    append_u32(bytes_, magic);
    append_u16(bytes_, 2);
    append_u16(bytes_, 4);
    append_u32(bytes_, 0);
    append_u32(bytes_, 0);
    append_u32(bytes_, 65535);
    append_u32(bytes_, link_type);
}

PcapBuilder& PcapBuilder::record(uint32_t seconds, uint32_t fraction, const std::string& data,
                                 std::optional<uint32_t> original_length) {
    append_u32(bytes_, seconds);
    append_u32(bytes_, fraction);
    append_u32(bytes_, static_cast<uint32_t>(data.size()));
    append_u32(bytes_, original_length.value_or(static_cast<uint32_t>(data.size())));
    bytes_ += data;
    return *this;
}

PcapngBuilder& PcapngBuilder::block(uint32_t type, const std::string& body) {
    std::string padded = body;
    pad4(padded);
    const uint32_t total = static_cast<uint32_t>(padded.size() + 12);
    append_u32(bytes_, type);
    append_u32(bytes_, total);
    bytes_ += padded;
    append_u32(bytes_, total);
    return *this;
}

PcapngBuilder& PcapngBuilder::section() {
    std::string body;
    append_u32(body, 0x1A2B3C4D);
    append_u16(body, 1);
    append_u16(body, 0);
    append_u64(body, ~uint64_t{0});
    return block(0x0A0D0D0A, body);
}

PcapngBuilder& PcapngBuilder::interface(std::optional<uint8_t> resolution, uint16_t link_type) {
    std::string body;
    append_u16(body, link_type);
    append_u16(body, 0);
    append_u32(body, 65535);
    if (resolution) {
        append_u16(body, 9);
        append_u16(body, 1);
        body.push_back(char(*resolution));
        pad4(body);
        append_u16(body, 0);
        append_u16(body, 0);
    }
    return block(1, body);
}

PcapngBuilder& PcapngBuilder::packet(uint32_t interface_id, uint64_t timestamp,
                                     const std::string& data) {
    std::string body;
    append_u32(body, interface_id);
    append_u32(body, static_cast<uint32_t>(timestamp >> 32));
    append_u32(body, static_cast<uint32_t>(timestamp));
    append_u32(body, static_cast<uint32_t>(data.size()));
    append_u32(body, static_cast<uint32_t>(data.size()));
    body += data;
    return block(6, body);
}

PcapngBuilder& PcapngBuilder::raw(const std::string& bytes) {
    bytes_ += bytes;
    return *this;
}

std::string expected_epb(uint32_t interface_id, uint64_t timestamp, const std::string& data,
                         std::optional<uint32_t> original_length) {
    std::string body;
    append_u32(body, interface_id);
    append_u32(body, static_cast<uint32_t>(timestamp >> 32));
    append_u32(body, static_cast<uint32_t>(timestamp));
    append_u32(body, static_cast<uint32_t>(data.size()));
    append_u32(body, original_length.value_or(static_cast<uint32_t>(data.size())));
    body += data;
    pad4(body);
    std::string block;
    append_u32(block, 6);
    append_u32(block, static_cast<uint32_t>(body.size() + 12));
    block += body;
    append_u32(block, static_cast<uint32_t>(body.size() + 12));
    return block;
}

bool parse_extract(const std::string& bytes, std::vector<ExtractedPacket>& packets,
                   std::string* reason) {
    auto fail = [&](const std::string& why) {
        if (reason != nullptr) *reason = why;
        return false;
    };
    packets.clear();
    if (bytes.size() < 92) return fail("shorter than the header");
    PcapngBuilder header;
    header.section().interface(9).interface(9);
    if (bytes.compare(0, 92, header.bytes()) != 0) return fail("header differs");
    size_t at = 92;
    while (at < bytes.size()) {
        if (bytes.size() - at < 32) return fail("short block at " + std::to_string(at));
        const uint32_t type = read_u32(bytes, at);
        const uint32_t total = read_u32(bytes, at + 4);
        if (type != 6) return fail("block type " + std::to_string(type));
        if (total < 32 || total % 4 != 0 || at + total > bytes.size()) return fail("bad length");
        if (read_u32(bytes, at + total - 4) != total) return fail("trailing length differs");
        ExtractedPacket packet;
        packet.interface_id = read_u32(bytes, at + 8);
        packet.timestamp = (uint64_t{read_u32(bytes, at + 12)} << 32) | read_u32(bytes, at + 16);
        packet.captured_length = read_u32(bytes, at + 20);
        packet.original_length = read_u32(bytes, at + 24);
        if (packet.captured_length + 32 > total) return fail("data overruns its block");
        packet.data = bytes.substr(at + 28, packet.captured_length);
        packet.block = bytes.substr(at, total);
        packets.push_back(std::move(packet));
        at += total;
    }
    return true;
}

}  // namespace vistrel::testing
