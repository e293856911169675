#include "capture/pcapngpacketcounter.h"

#include <algorithm>

namespace vistrel::capture {

namespace {

constexpr uint32_t kSectionHeader = 0x0A0D0D0A;  // the same in either byte order
constexpr uint32_t kObsoletePacket = 2;
constexpr uint32_t kSimplePacket = 3;
constexpr uint32_t kEnhancedPacket = 6;

uint32_t read32(const uint8_t* bytes, bool big_endian) {
    if (big_endian) {
        return static_cast<uint32_t>(bytes[0]) << 24 | static_cast<uint32_t>(bytes[1]) << 16 |
               static_cast<uint32_t>(bytes[2]) << 8 | bytes[3];
    }
    return static_cast<uint32_t>(bytes[3]) << 24 | static_cast<uint32_t>(bytes[2]) << 16 |
           static_cast<uint32_t>(bytes[1]) << 8 | bytes[0];
}

bool is_section_header(const uint8_t* bytes) {
    return read32(bytes, false) == kSectionHeader;
}

}  // namespace

void PcapngPacketCounter::feed(const uint8_t* data, size_t size) {
    while (size > 0 && !broken_) {
        if (skip_ > 0) {
            const size_t passed = static_cast<size_t>(std::min<uint64_t>(skip_, size));
            skip_ -= passed;
            data += passed;
            size -= passed;
            continue;
        }
        // The type first; then a section header up to its byte-order magic, other blocks up
        // to their length.
        const size_t wanted = have_ < 4 ? 4 : (is_section_header(header_) ? 12 : 8);
        const size_t taken = std::min(wanted - have_, size);
        std::copy(data, data + taken, header_ + have_);
        have_ += taken;
        data += taken;
        size -= taken;
        if (have_ == 12 || (have_ == 8 && !is_section_header(header_))) end_of_header();
    }
}

void PcapngPacketCounter::end_of_header() {
    const size_t header_size = have_;
    have_ = 0;
    if (is_section_header(header_)) {
        const uint32_t magic = read32(header_ + 8, false);
        if (magic == 0x1A2B3C4D) {
            big_endian_ = false;
        } else if (magic == 0x4D3C2B1A) {
            big_endian_ = true;
        } else {
            broken_ = true;
            return;
        }
        in_section_ = true;
    } else if (!in_section_) {
        broken_ = true;
        return;
    }
    const uint32_t length = read32(header_ + 4, big_endian_);
    if (length < 12 || length % 4 != 0) {
        broken_ = true;
        return;
    }
    const uint32_t type = read32(header_, big_endian_);
    if (type == kEnhancedPacket || type == kSimplePacket || type == kObsoletePacket) ++packets_;
    skip_ = length - header_size;
}

}  // namespace vistrel::capture
