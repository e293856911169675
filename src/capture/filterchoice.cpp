#include "capture/filterchoice.h"

#include <vector>

#include "capture/bpftranslation.h"
#include "capture/bytes.h"
#include "capture/capturefile.h"
#include "capture/packet.h"

namespace vistrel::capture {

namespace {
constexpr size_t kScanChunkSize = 262144;
}  // namespace

FilterChoice choose_filter(const std::string& display_filter, const std::string& tshark_reason) {
    FilterChoice choice;
    if (!tshark_reason.empty()) {
        choice.reason = tshark_reason;
        return choice;
    }
    const BpfTranslation translation = translate_to_bpf(display_filter);
    if (!translation.usable()) {
        choice.reason = translation.reason;
        return choice;
    }
    std::string error;
    choice.selector = PacketSelector::create(translation.bpf, extract_link_type(), error);
    if (!choice.selector) choice.reason = "libpcap refused '" + translation.bpf + "': " + error;
    return choice;
}

bool range_is_plain(const PacketSelector& selector,
                    const std::list<CaptureFileRecord>& files, uint64_t start,
                    uint64_t end) {
    std::vector<uint8_t> chunk(kScanChunkSize);
    for (const auto& file : files) {
        auto reader = open_capture_file(file);
        if (!reader) continue;
        size_t used;
        while ((used = reader->read_range_into(start, end, chunk.data(), chunk.size())) > 0) {
            for (size_t at = 0; at < used; at += load_u32(chunk.data() + at + kEpbTotalLength)) {
                const uint8_t* epb = chunk.data() + at;
                const uint64_t stamp = uint64_t{load_u32(epb + kEpbTimestampHigh)} << 32 |
                                       load_u32(epb + kEpbTimestampLow);
                if (stamp < end && !selector.plain(epb)) return false;
            }
        }
    }
    return true;
}

}  // namespace vistrel::capture
