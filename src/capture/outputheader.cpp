#include "capture/outputheader.h"

namespace vistrel::capture {

namespace {

constexpr std::array<uint8_t, kOutputHeaderSize> build_header() {
    std::array<uint8_t, kOutputHeaderSize> bytes{};
    size_t at = 0;
    auto put32 = [&](uint32_t value) {
        for (int shift = 0; shift < 32; shift += 8) bytes[at++] = uint8_t(value >> shift);
    };
    auto put16 = [&](uint16_t value) {
        bytes[at++] = uint8_t(value);
        bytes[at++] = uint8_t(value >> 8);
    };
    put32(0x0A0D0D0A);  // Section Header Block
    put32(28);
    put32(0x1A2B3C4D);
    put16(1);
    put16(0);
    put32(0xFFFFFFFF);  // section length unknown
    put32(0xFFFFFFFF);
    put32(28);
    for (int interface = 0; interface < 2; ++interface) {
        put32(1);  // Interface Description Block
        put32(32);
        put16(1);  // Ethernet
        put16(0);
        put32(65535);
        put16(9);  // if_tsresol
        put16(1);
        put32(9);  // nanoseconds, then three padding bytes
        put32(0);  // end of options
        put32(32);
    }
    return bytes;
}

constexpr std::array<uint8_t, kOutputHeaderSize> kHeader = build_header();

}  // namespace

const std::array<uint8_t, kOutputHeaderSize>& output_header_bytes() {
    return kHeader;
}

}  // namespace vistrel::capture
