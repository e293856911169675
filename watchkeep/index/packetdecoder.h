#pragma once

#include <cstdint>

#include "index/decodedpacket.h"

namespace vistrel::watchkeep {

// pcap link types the decoder reads.
inline constexpr uint32_t kLinkNull = 0;
inline constexpr uint32_t kLinkEthernet = 1;
inline constexpr uint32_t kLinkRaw = 101;
inline constexpr uint32_t kLinkLinuxSll = 113;
inline constexpr uint32_t kLinkLinuxSll2 = 276;

// Decodes link, network and transport headers of one frame without allocating. Truncated or
// unknown layers stop the decoding where they start; what was read before stays. Returns
// false when not even the link layer could be read.
bool decode_packet(uint32_t link_type, const uint8_t* data, uint32_t length, DecodedPacket& out);

}  // namespace vistrel::watchkeep
