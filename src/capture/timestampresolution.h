#pragma once

#include <cstdint>

namespace vistrel::capture {

// The resolution a pcapng interface has when it names none (microseconds).
inline constexpr uint8_t kDefaultResolution = 6;
inline constexpr uint8_t kNanosecondResolution = 9;

// A timestamp in units of the if_tsresol code `resolution` (below 128: 10^-code s; from 128
// on: 2^-(code-128) s) as nanoseconds. Fractions round to the nearest, halves upwards; binary
// fractions scale by 999,999,999 / 2^n, so that a fraction never rounds up into the next second.
uint64_t to_nanoseconds(uint64_t timestamp, uint8_t resolution);

// The pcap record time (seconds and a fraction of 10^-resolution s) as nanoseconds; nothing
// for a resolution other than 6 or 9.
bool pcap_to_nanoseconds(uint32_t seconds, uint32_t fraction, int resolution, uint64_t& result);

}  // namespace vistrel::capture
