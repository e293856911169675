#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace vistrel::capture {

// Section Header Block and two identical Ethernet interfaces with nanosecond resolution: the
// start of every extract. Interface 0 and 1 are the two ports of a device.
inline constexpr size_t kOutputHeaderSize = 92;
const std::array<uint8_t, kOutputHeaderSize>& output_header_bytes();

}  // namespace vistrel::capture
