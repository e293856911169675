#include "capture/timestampresolution.h"

#include <cmath>
#include <limits>

namespace vistrel::capture {

namespace {

// Rounds halves upwards; values beyond the 64-bit range saturate instead of being undefined.
uint64_t round_half_up(double value) {
    const double rounded = std::floor(value + 0.5);
    if (!(rounded >= 0.0)) return 0;
    if (rounded >= 18446744073709551616.0) return std::numeric_limits<uint64_t>::max();
    return static_cast<uint64_t>(rounded);
}

// 10^exponent; exponents above 19 do not fit and count as 1.
uint64_t power_of_ten(unsigned exponent) {
    if (exponent > 19) return 1;
    uint64_t value = 1;
    while (exponent-- > 0) value *= 10;
    return value;
}

}  // namespace

uint64_t to_nanoseconds(uint64_t timestamp, uint8_t resolution) {
    if (resolution == kNanosecondResolution) return timestamp;
    if (resolution < kNanosecondResolution) {
        return timestamp * power_of_ten(kNanosecondResolution - resolution);
    }
    if (resolution < 128) {
        const double divisor = static_cast<double>(power_of_ten(resolution - 9u));
        return round_half_up(static_cast<double>(timestamp) / divisor);
    }
    const unsigned bits = resolution - 128u;
    const uint64_t seconds = bits >= 64 ? 0 : timestamp >> bits;
    const uint64_t fraction = bits >= 64 ? timestamp : timestamp & ((uint64_t{1} << bits) - 1);
    return seconds * 1000000000ull +
           round_half_up(static_cast<double>(fraction) * 999999999.0 / std::ldexp(1.0, bits));
}

bool pcap_to_nanoseconds(uint32_t seconds, uint32_t fraction, int resolution, uint64_t& result) {
    if (resolution == 6) {
        result = (uint64_t{seconds} * 1000000ull + fraction) * 1000ull;
        return true;
    }
    if (resolution == 9) {
        result = uint64_t{seconds} * 1000000000ull + fraction;
        return true;
    }
    return false;
}

}  // namespace vistrel::capture
