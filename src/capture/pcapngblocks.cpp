#include "capture/pcapngblocks.h"

#include <cstring>

namespace vistrel::capture::pcapng {

namespace {

constexpr uint32_t kByteOrderMagic = 0x1A2B3C4D;
constexpr uint16_t kEndOfOptions = 0;
constexpr uint16_t kApplicationOption = 4;  // shb_userappl
constexpr uint16_t kNameOption = 2;         // if_name
constexpr uint16_t kResolutionOption = 9;   // if_tsresol

template <typename T>
void put(std::string& out, T value) {
    char bytes[sizeof(T)];
    std::memcpy(bytes, &value, sizeof(T));
    out.append(bytes, sizeof(T));
}

size_t padding(size_t length) {
    return (4 - length % 4) % 4;
}

void put_option(std::string& out, uint16_t code, std::string_view value) {
    put<uint16_t>(out, code);
    put<uint16_t>(out, static_cast<uint16_t>(value.size()));
    out.append(value);
    out.append(padding(value.size()), '\0');
}

}  // namespace

void append_block(std::string& out, uint32_t type, std::string_view body) {
    const uint32_t total = static_cast<uint32_t>(body.size() + padding(body.size()) + 12);
    put(out, type);
    put(out, total);
    out.append(body);
    out.append(padding(body.size()), '\0');
    put(out, total);
}

void append_section_header(std::string& out, std::string_view application) {
    std::string body;
    put<uint32_t>(body, kByteOrderMagic);
    put<uint16_t>(body, 1);  // version 1.0
    put<uint16_t>(body, 0);
    put<int64_t>(body, -1);  // section length unknown
    if (!application.empty()) {
        put_option(body, kApplicationOption, application);
        put_option(body, kEndOfOptions, {});
    }
    append_block(out, kSectionHeaderBlock, body);
}

void append_interface(std::string& out, uint16_t link_type, std::string_view name,
                      std::optional<uint8_t> resolution) {
    std::string body;
    put<uint16_t>(body, link_type);
    put<uint16_t>(body, 0);
    put<uint32_t>(body, kSnapLength);
    if (!name.empty()) put_option(body, kNameOption, name);
    if (resolution)
        put_option(body, kResolutionOption,
                   std::string_view(reinterpret_cast<const char*>(&*resolution), 1));
    if (!name.empty() || resolution) put_option(body, kEndOfOptions, {});
    append_block(out, kInterfaceDescriptionBlock, body);
}

void append_enhanced_packet(std::string& out, uint32_t interface_id, uint64_t timestamp,
                            const uint8_t* data, uint32_t captured_length,
                            uint32_t original_length) {
    // Written in place: this is the per-packet path of every writer.
    const size_t pad = padding(captured_length);
    const uint32_t total = static_cast<uint32_t>(32 + captured_length + pad);
    put(out, kEnhancedPacketBlock);
    put(out, total);
    put(out, interface_id);
    put(out, static_cast<uint32_t>(timestamp >> 32));
    put(out, static_cast<uint32_t>(timestamp));
    put(out, captured_length);
    put(out, original_length);
    out.append(reinterpret_cast<const char*>(data), captured_length);
    out.append(pad, '\0');
    put(out, total);
}

}  // namespace vistrel::capture::pcapng
