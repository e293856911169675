#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace vistrel::capture {

// Offsets inside an Enhanced Packet Block.
inline constexpr uint32_t kEnhancedPacketBlockType = 6;
inline constexpr size_t kEpbTotalLength = 4;
inline constexpr size_t kEpbInterfaceId = 8;
inline constexpr size_t kEpbTimestampHigh = 12;
inline constexpr size_t kEpbTimestampLow = 16;
inline constexpr size_t kEpbCapturedLength = 20;
inline constexpr size_t kEpbOriginalLength = 24;
inline constexpr size_t kEpbData = 28;
// Header, trailing length and nothing in between.
inline constexpr size_t kEpbMinimumSize = 32;

// Records and blocks at or above this size are implausible and end a file.
inline constexpr uint64_t kMaximumBlockSize = 1048577;

// One packet as the readers deliver it: a complete EPB whose timestamp words already hold
// nanoseconds, and that timestamp.
struct Packet {
    std::vector<uint8_t> block;
    uint64_t timestamp = 0;
};

}  // namespace vistrel::capture
