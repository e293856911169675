#include "capture/outputheader.h"

#include <cstring>
#include <stdexcept>
#include <string>

#include "capture/pcapngblocks.h"

namespace vistrel::capture {

const std::array<uint8_t, kOutputHeaderSize>& output_header_bytes() {
    static const std::array<uint8_t, kOutputHeaderSize> header = [] {
        constexpr uint8_t kNanoseconds = 9;
        std::string bytes;
        pcapng::append_section_header(bytes);
        for (int port = 0; port < 2; ++port) {
            pcapng::append_interface(bytes, pcapng::kLinkTypeEthernet, {}, kNanoseconds);
        }
        // Readers of extracts rely on this exact size (and the link type at byte 36).
        if (bytes.size() != kOutputHeaderSize) throw std::logic_error("extract header size");
        std::array<uint8_t, kOutputHeaderSize> fixed{};
        std::memcpy(fixed.data(), bytes.data(), fixed.size());
        return fixed;
    }();
    return header;
}

}  // namespace vistrel::capture
