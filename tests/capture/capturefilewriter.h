#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// Small capture files made by the tests themselves, byte by byte, including broken ones.
namespace vistrel::testing {

// An Ethernet/IPv4/UDP frame of `length` bytes (at least 42), so that display filters on
// addresses and ports have something to match.
std::string udp_frame(size_t length, const std::string& source, const std::string& destination,
                      uint16_t source_port, uint16_t destination_port);

void append_u16(std::string& bytes, uint16_t value);
void append_u32(std::string& bytes, uint32_t value);
void append_u64(std::string& bytes, uint64_t value);

// Classic pcap: a 24-byte global header and records.
class PcapBuilder {
  public:
    explicit PcapBuilder(uint32_t magic = 0xA1B2C3D4, uint32_t link_type = 1);
    PcapBuilder& record(uint32_t seconds, uint32_t fraction, const std::string& data,
                        std::optional<uint32_t> original_length = std::nullopt);
    const std::string& bytes() const { return bytes_; }

  private:
    std::string bytes_;
};

// pcapng: blocks in the order they are added.
class PcapngBuilder {
  public:
    PcapngBuilder& section();
    // An Interface Description Block; `resolution` adds an if_tsresol option.
    PcapngBuilder& interface(std::optional<uint8_t> resolution = std::nullopt,
                             uint16_t link_type = 1);
    PcapngBuilder& packet(uint32_t interface_id, uint64_t timestamp, const std::string& data);
    // Any block: type, body (padded to 4), both lengths filled in.
    PcapngBuilder& block(uint32_t type, const std::string& body);
    PcapngBuilder& raw(const std::string& bytes);
    const std::string& bytes() const { return bytes_; }

  private:
    std::string bytes_;
};

// One EPB of an extract, as the tests look at it.
struct ExtractedPacket {
    uint32_t interface_id = 0;
    uint64_t timestamp = 0;
    uint32_t captured_length = 0;
    uint32_t original_length = 0;
    std::string data;
    std::string block;
};

// Splits an extract into its packets; false (with a reason) when it does not begin with the
// 92-byte output header or a block is malformed.
bool parse_extract(const std::string& bytes, std::vector<ExtractedPacket>& packets,
                   std::string* reason = nullptr);

// The EPB the readers must deliver for a packet of `data` stamped `timestamp` ns.
std::string expected_epb(uint32_t interface_id, uint64_t timestamp, const std::string& data,
                         std::optional<uint32_t> original_length = std::nullopt);

}  // namespace vistrel::testing
