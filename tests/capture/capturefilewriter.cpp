#include "capturefilewriter.h"

#include <cstdio>
#include <cstring>

#include "capture/pcapngblocks.h"
#include "framebuilder.h"

namespace vistrel::testing {

std::string udp_frame(size_t length, const std::string& source, const std::string& destination,
                      uint16_t source_port, uint16_t destination_port) {
    return build_frame({.mac_src = "00:1b:c5:00:00:01",
                        .mac_dst = "00:1b:c5:00:00:02",
                        .ip_src = source,
                        .ip_dst = destination,
                        .port_src = source_port,
                        .port_dst = destination_port,
                        .payload = filler(length > 42 ? length - 42 : 0, 0),
                        .fragment_id = 0x1234});
}

PcapBuilder::PcapBuilder(uint32_t magic) {
    append(bytes_, magic);
    append(bytes_, uint16_t{2});
    append(bytes_, uint16_t{4});
    append(bytes_, uint64_t{0});
    append(bytes_, uint32_t{65535});
    append(bytes_, uint32_t{1});  // Ethernet
}

PcapBuilder& PcapBuilder::record(uint32_t seconds, uint32_t fraction, const std::string& data,
                                 std::optional<uint32_t> original_length) {
    append(bytes_, seconds);
    append(bytes_, fraction);
    append(bytes_, static_cast<uint32_t>(data.size()));
    append(bytes_, original_length.value_or(static_cast<uint32_t>(data.size())));
    bytes_ += data;
    return *this;
}

PcapngBuilder& PcapngBuilder::block(uint32_t type, const std::string& body) {
    capture::pcapng::append_block(bytes_, type, body);
    return *this;
}

PcapngBuilder& PcapngBuilder::section() {
    capture::pcapng::append_section_header(bytes_);
    return *this;
}

PcapngBuilder& PcapngBuilder::interface(std::optional<uint8_t> resolution) {
    capture::pcapng::append_interface(bytes_, capture::pcapng::kLinkTypeEthernet, {}, resolution);
    return *this;
}

PcapngBuilder& PcapngBuilder::packet(uint32_t interface_id, uint64_t timestamp,
                                     const std::string& data,
                                     std::optional<uint32_t> original_length) {
    const auto length = static_cast<uint32_t>(data.size());
    capture::pcapng::append_enhanced_packet(bytes_, interface_id, timestamp,
                                            reinterpret_cast<const uint8_t*>(data.data()), length,
                                            original_length.value_or(length));
    return *this;
}

std::string expected_epb(uint32_t interface_id, uint64_t timestamp, const std::string& data,
                         std::optional<uint32_t> original_length) {
    return PcapngBuilder().packet(interface_id, timestamp, data, original_length).bytes();
}

std::string extract_header() {
    return PcapngBuilder().section().interface(9).interface(9).bytes();
}

PacketList pcapng_packets(const std::string& stream) {
    PacketList packets;
    for (size_t at = 0; at + 12 <= stream.size();) {
        uint32_t type, length;
        std::memcpy(&type, stream.data() + at, 4);
        std::memcpy(&length, stream.data() + at + 4, 4);
        if (length < 12 || at + length > stream.size()) {
            break;
        }
        if (type == 6) {
            uint32_t high, low, captured;
            std::memcpy(&high, stream.data() + at + 12, 4);
            std::memcpy(&low, stream.data() + at + 16, 4);
            std::memcpy(&captured, stream.data() + at + 20, 4);
            packets.emplace_back(uint64_t{high} << 32 | low, stream.substr(at + 28, captured));
        }
        at += length;
    }
    return packets;
}

std::string run_command(const std::string& command) {
    std::string output;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return output;
    char buffer[4096];
    size_t got;
    while ((got = fread(buffer, 1, sizeof buffer, pipe)) > 0) output.append(buffer, got);
    pclose(pipe);
    return output;
}

}  // namespace vistrel::testing
