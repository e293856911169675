#pragma once

#include <array>

#include "capture/fileformatparser.h"

namespace vistrel::capture {

// Classic pcap in this machine's byte order, microsecond (0xA1B2C3D4) or nanosecond
// (0xA1B23C4D) timestamps. Records come out as EPBs on interface 0.
class PcapFormatParser : public FileFormatParser {
  public:
    static constexpr uint32_t kMicrosecondMagic = 0xA1B2C3D4;
    static constexpr uint32_t kNanosecondMagic = 0xA1B23C4D;
    static constexpr size_t kGlobalHeaderSize = 24;
    static constexpr size_t kRecordHeaderSize = 16;

    using FileFormatParser::FileFormatParser;

    bool check_header() override;
    uint32_t link_type() const override;

  protected:
    bool read_packet(Packet& packet) override;

  private:
    bool header_read_ = false;
    std::array<uint8_t, kGlobalHeaderSize> global_header_{};
    int resolution_ = 6;
};

}  // namespace vistrel::capture
