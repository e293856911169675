#include "capture/pcapformatparser.h"

#include <cstring>

#include "capture/bytes.h"
#include "capture/timestampresolution.h"

namespace vistrel::capture {

bool PcapFormatParser::check_header() {
    std::array<uint8_t, kGlobalHeaderSize> header;
    seek(0);
    if (read(header.data(), header.size()) != static_cast<int64_t>(header.size())) return false;
    const uint32_t magic = load_u32(header.data());
    return magic == kMicrosecondMagic || magic == kNanosecondMagic;
}

uint32_t PcapFormatParser::link_type() const {
    // The upper bits of the header's link-type word carry FCS information.
    return header_read_ ? load_u32(global_header_.data() + 20) & 0xFFFF : 1;
}

bool PcapFormatParser::read_packet(Packet& packet) {
    if (!header_read_) {
        seek(0);
        if (read(global_header_.data(), kGlobalHeaderSize) !=
            static_cast<int64_t>(kGlobalHeaderSize)) {
            return false;
        }
        header_read_ = true;
        resolution_ = load_u32(global_header_.data()) == kNanosecondMagic ? 9 : 6;
    }

    uint8_t record[kRecordHeaderSize];
    if (read(record, sizeof record) != static_cast<int64_t>(sizeof record)) return false;
    const uint32_t seconds = load_u32(record);
    const uint32_t fraction = load_u32(record + 4);
    const uint32_t captured = load_u32(record + 8);
    const uint32_t original = load_u32(record + 12);
    const uint64_t record_size = uint64_t{captured} + kRecordHeaderSize;
    if (record_size < 12 || record_size >= kMaximumBlockSize) return false;

    // Data padded to 4 bytes, between the 28-byte EPB head and the 4-byte trailing length.
    const uint32_t total = static_cast<uint32_t>(((record_size - 13) & ~uint64_t{3}) + 32);
    packet.block.resize(total);
    uint8_t* block = packet.block.data();
    if (read(block + kEpbData, captured) != static_cast<int64_t>(captured)) return false;
    std::memset(block + kEpbData + captured, 0, total - 4 - kEpbData - captured);

    uint64_t nanoseconds = 0;
    if (!pcap_to_nanoseconds(seconds, fraction, resolution_, nanoseconds)) return false;
    store_u32(block, kEnhancedPacketBlockType);
    store_u32(block + kEpbTotalLength, total);
    store_u32(block + kEpbInterfaceId, 0);
    store_u32(block + kEpbTimestampHigh, static_cast<uint32_t>(nanoseconds >> 32));
    store_u32(block + kEpbTimestampLow, static_cast<uint32_t>(nanoseconds));
    store_u32(block + kEpbCapturedLength, captured);
    store_u32(block + kEpbOriginalLength, original);
    store_u32(block + total - 4, total);
    packet.timestamp = nanoseconds;
    return true;
}

}  // namespace vistrel::capture
