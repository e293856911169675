#pragma once

#include <cstdint>
#include <cstring>

// Little-endian field access on raw block bytes. Capture files are read in the byte order of
// this machine (x86-64), which is the one the readers accept.
namespace vistrel::capture {

inline uint32_t load_u32(const uint8_t* at) {
    uint32_t value;
    std::memcpy(&value, at, sizeof value);
    return value;
}

inline uint16_t load_u16(const uint8_t* at) {
    uint16_t value;
    std::memcpy(&value, at, sizeof value);
    return value;
}

inline void store_u32(uint8_t* at, uint32_t value) {
    std::memcpy(at, &value, sizeof value);
}

}  // namespace vistrel::capture
