#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// pcapng blocks in host byte order, appended to a byte string: the one encoding shared by the
// file writer and by whoever builds capture bytes in memory.
namespace vistrel::capture::pcapng {

inline constexpr uint32_t kSectionHeaderBlock = 0x0A0D0D0A;
inline constexpr uint32_t kInterfaceDescriptionBlock = 0x00000001;
inline constexpr uint32_t kEnhancedPacketBlock = 0x00000006;
inline constexpr uint16_t kLinkTypeEthernet = 1;
inline constexpr uint32_t kSnapLength = 65535;

// Any block: type, `body` padded to 4 bytes, the total length before and after.
void append_block(std::string& out, uint32_t type, std::string_view body);

// A section of unknown length; a non-empty `application` adds shb_userappl.
void append_section_header(std::string& out, std::string_view application = {});

// A non-empty `name` adds if_name, a `resolution` adds if_tsresol.
void append_interface(std::string& out, uint16_t link_type, std::string_view name = {},
                      std::optional<uint8_t> resolution = std::nullopt);

void append_enhanced_packet(std::string& out, uint32_t interface_id, uint64_t timestamp,
                            const uint8_t* data, uint32_t captured_length,
                            uint32_t original_length);

}  // namespace vistrel::capture::pcapng
