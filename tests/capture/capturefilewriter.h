#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

// Small capture files made by the tests themselves, byte by byte, including broken ones.
namespace vistrel::testing {

// An Ethernet/IPv4/UDP frame of `length` bytes (at least 60), so that display filters on
// addresses and ports have something to match.
std::string udp_frame(size_t length, const std::string& source, const std::string& destination,
                      uint16_t source_port, uint16_t destination_port);

// Appends `value` in host byte order.
template <typename T>
void append(std::string& bytes, T value) {
    bytes.append(reinterpret_cast<const char*>(&value), sizeof value);
}

// Classic pcap: a 24-byte global header and records.
class PcapBuilder {
  public:
    explicit PcapBuilder(uint32_t magic = 0xA1B2C3D4);
    PcapBuilder& record(uint32_t seconds, uint32_t fraction, const std::string& data,
                        std::optional<uint32_t> original_length = std::nullopt);
    const std::string& bytes() const { return bytes_; }

  private:
    std::string bytes_;
};

// pcapng: blocks in the order they are added, encoded as the pcapng writer does.
class PcapngBuilder {
  public:
    PcapngBuilder& section();
    // An Interface Description Block; `resolution` adds an if_tsresol option.
    PcapngBuilder& interface(std::optional<uint8_t> resolution = std::nullopt);
    PcapngBuilder& packet(uint32_t interface_id, uint64_t timestamp, const std::string& data,
                          std::optional<uint32_t> original_length = std::nullopt);
    // Any block: type, body (padded to 4), both lengths filled in.
    PcapngBuilder& block(uint32_t type, const std::string& body);
    const std::string& bytes() const { return bytes_; }

  private:
    std::string bytes_;
};

// The EPB the readers must deliver for a packet of `data` stamped `timestamp` ns.
std::string expected_epb(uint32_t interface_id, uint64_t timestamp, const std::string& data,
                         std::optional<uint32_t> original_length = std::nullopt);

// The 92-byte header every extract begins with.
std::string extract_header();

// A pcapng stream's packets (timestamp, bytes) in stream order, for streams whose interfaces
// count nanoseconds (the server's and tshark's copies of them).
using PacketList = std::vector<std::pair<uint64_t, std::string>>;
PacketList pcapng_packets(const std::string& stream);

// Standard output of a shell command (Wireshark's tools).
std::string run_command(const std::string& command);

}  // namespace vistrel::testing
