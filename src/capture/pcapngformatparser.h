#pragma once

#include <vector>

#include "capture/fileformatparser.h"

namespace vistrel::capture {

// pcapng in this machine's byte order. The interfaces described before the first packet give
// each packet its timestamp resolution; packets leave with nanosecond timestamps and an
// interface id of 0 or 1, the two interfaces of the extract's header.
class PcapngFormatParser : public FileFormatParser {
  public:
    static constexpr uint32_t kSectionHeaderBlockType = 0x0A0D0D0A;
    static constexpr uint32_t kInterfaceDescriptionBlockType = 1;

    struct Interface {
        std::vector<uint8_t> block;
        uint8_t resolution = 6;
    };

    using FileFormatParser::FileFormatParser;

    bool check_header() override;
    uint32_t link_type() const override { return link_type_; }

    // Empty until the first packet has been asked for.
    const std::vector<Interface>& interfaces() const { return interfaces_; }

    // The if_tsresol of an Interface Description Block's options, 6 when it has none.
    static uint8_t interface_resolution(const std::vector<uint8_t>& block);

  protected:
    bool read_packet(Packet& packet) override;

  private:
    // One whole block into `block`; false when it is short or its length implausible.
    bool read_block(std::vector<uint8_t>& block);
    void discover_interfaces(std::vector<uint8_t>& block);

    bool initialised_ = false;
    uint32_t link_type_ = 1;
    std::vector<Interface> interfaces_;
};

}  // namespace vistrel::capture
