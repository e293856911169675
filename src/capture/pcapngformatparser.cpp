#include "capture/pcapngformatparser.h"

#include <cstring>

#include "capture/bytes.h"
#include "capture/timestampresolution.h"

namespace vistrel::capture {

namespace {
constexpr size_t kBlockHeadSize = 8;
constexpr size_t kOptionsOffset = 16;
constexpr uint16_t kOptionEnd = 0;
constexpr uint16_t kOptionTimestampResolution = 9;
}  // namespace

bool PcapngFormatParser::read_block(std::vector<uint8_t>& block) {
    uint8_t head[kBlockHeadSize];
    if (read(head, sizeof head) != static_cast<int64_t>(sizeof head)) return false;
    const uint32_t total = load_u32(head + 4);
    if (total < 12 || total >= kMaximumBlockSize) return false;
    block.resize(total);
    std::memcpy(block.data(), head, sizeof head);
    const size_t rest = total - kBlockHeadSize;
    if (read(block.data() + kBlockHeadSize, rest) != static_cast<int64_t>(rest)) return false;
    // Both length words agree in every block a writer finished; a block copied out with a
    // different trailing word would make the whole extract unreadable.
    return load_u32(block.data() + total - 4) == total;
}

bool PcapngFormatParser::check_header() {
    std::vector<uint8_t> block;
    seek(0);
    return read_block(block) && load_u32(block.data()) == kSectionHeaderBlockType;
}

uint8_t PcapngFormatParser::interface_resolution(const std::vector<uint8_t>& block) {
    uint8_t resolution = kDefaultResolution;
    if (block.size() < 20) return resolution;
    // Options end before the trailing length word.
    const size_t end = block.size() - 4;
    size_t at = kOptionsOffset;
    while (at + 4 <= end) {
        const uint16_t code = load_u16(block.data() + at);
        const uint16_t length = load_u16(block.data() + at + 2);
        if (code == kOptionEnd) break;
        if (code == kOptionTimestampResolution && at + 4 < end) resolution = block[at + 4];
        at += (size_t{length} + 7) & ~size_t{3};
    }
    return resolution;
}

void PcapngFormatParser::discover_interfaces(std::vector<uint8_t>& block) {
    seek(0);
    for (;;) {
        const int64_t block_start = offset();
        if (!read_block(block)) break;
        const uint32_t type = load_u32(block.data());
        if (type == kInterfaceDescriptionBlockType) {
            interfaces_.push_back({block, interface_resolution(block)});
        } else if (type == kEnhancedPacketBlockType) {
            seek(block_start);  // the first packet is delivered by the normal path
            break;
        }
    }
    initialised_ = true;
}

bool PcapngFormatParser::read_packet(Packet& packet) {
    if (!initialised_) discover_interfaces(packet.block);
    if (interfaces_.empty()) return false;

    std::vector<uint8_t>& block = packet.block;
    do {
        if (!read_block(block)) return false;
    } while (load_u32(block.data()) != kEnhancedPacketBlockType);

    // A block too short for its own fields, or whose data overruns it, would yield an extract
    // that no tool can read.
    if (block.size() < kEpbMinimumSize) return false;
    uint8_t* bytes = block.data();
    const uint32_t captured = load_u32(bytes + kEpbCapturedLength);
    if (uint64_t{captured} + kEpbMinimumSize > block.size()) return false;

    const uint32_t interface_id = load_u32(bytes + kEpbInterfaceId);
    if (interface_id > interfaces_.size()) return false;
    // An id one past the known interfaces has no description: it keeps the default resolution.
    const uint8_t resolution = interface_id < interfaces_.size()
                                   ? interfaces_[interface_id].resolution
                                   : kDefaultResolution;
    link_type_ = interface_id < interfaces_.size() && interfaces_[interface_id].block.size() >= 10
                     ? load_u16(interfaces_[interface_id].block.data() + 8)
                     : 1;
    const uint64_t raw =
        (uint64_t{load_u32(bytes + kEpbTimestampHigh)} << 32) | load_u32(bytes + kEpbTimestampLow);
    packet.timestamp = to_nanoseconds(raw, resolution);
    if (resolution != kNanosecondResolution) {
        store_u32(bytes + kEpbTimestampHigh, static_cast<uint32_t>(packet.timestamp >> 32));
        store_u32(bytes + kEpbTimestampLow, static_cast<uint32_t>(packet.timestamp));
    }
    store_u32(bytes + kEpbInterfaceId, interface_id & 1);
    return true;
}

}  // namespace vistrel::capture
