#include "filesummary.h"

#include <filesystem>

#include "capture/bytes.h"
#include "capture/capturefile.h"
#include "index/indexer.h"

namespace vistrel::watchkeep {

namespace {
constexpr uint64_t kTickEveryNs = 1'000'000'000ULL;
}  // namespace

std::optional<FileSummary> read_capture_file(const std::string& path, SourceIndexer* indexer,
                                             const std::atomic<bool>* cancel) {
    std::unique_ptr<capture::FileFormatParser> reader = capture::open_capture_file(path);
    if (!reader) return std::nullopt;
    FileSummary summary;
    std::error_code error;
    summary.path = std::filesystem::absolute(path, error).lexically_normal().string();
    if (error) summary.path = path;

    uint64_t next_tick = 0;
    capture::Packet packet;
    while (reader->next_packet(packet)) {
        summary.add(packet.timestamp);
        if (indexer != nullptr) {
            const uint8_t* block = packet.block.data();
            indexer->packet(reader->link_type(), packet.timestamp, block + capture::kEpbData,
                            capture::load_u32(block + capture::kEpbCapturedLength),
                            capture::load_u32(block + capture::kEpbOriginalLength));
            // A file is indexed on its own clock: its packets' times drive the time-outs.
            if (packet.timestamp >= next_tick) {
                indexer->tick(packet.timestamp);
                next_tick = packet.timestamp + kTickEveryNs;
            }
        }
        if (cancel != nullptr && (summary.packets & 0xFFF) == 0 && cancel->load()) {
            summary.complete = false;
            break;
        }
    }
    if (indexer != nullptr && summary.packets > 0) indexer->tick(summary.last_ns);
    return summary;
}

}  // namespace vistrel::watchkeep
