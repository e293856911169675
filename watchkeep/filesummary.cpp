#include "filesummary.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "capture/bytes.h"
#include "capture/capturefile.h"
#include "capture/pcapformatparser.h"
#include "capture/timestampresolution.h"
#include "host/uniquefd.h"
#include "index/indexer.h"

namespace vistrel::watchkeep {

namespace {

constexpr uint64_t kTickEveryNs = 1'000'000'000ULL;

// Counts each packet in the summary and hands it to the indexer.
class Feed {
  public:
    Feed(FileSummary& summary, SourceIndexer* indexer, const std::atomic<bool>* cancel)
        : summary_(summary), indexer_(indexer), cancel_(cancel) {}

    // False when the reading is to stop (cancelled).
    bool packet(uint32_t link_type, uint64_t timestamp, const uint8_t* data, uint32_t captured,
                uint32_t original) {
        summary_.add(timestamp);
        if (indexer_ != nullptr) {
            indexer_->packet(link_type, timestamp, data, captured, original);
            // A file is indexed on its own clock: its packets' times drive the time-outs.
            if (timestamp >= next_tick_) {
                indexer_->tick(timestamp);
                next_tick_ = timestamp + kTickEveryNs;
            }
        }
        if (cancel_ != nullptr && (summary_.packets & 0xFFF) == 0 && cancel_->load()) {
            summary_.complete = false;
            return false;
        }
        return true;
    }

  private:
    FileSummary& summary_;
    SourceIndexer* indexer_;
    const std::atomic<bool>* cancel_;
    uint64_t next_tick_ = 0;
};

// Classic pcap in this machine's byte order (what the capture library's pcap reader takes),
// read in large blocks whose records are handed on where they lie: the file is copied once
// (by the kernel), not a second time into one block per packet. Ends where that reader ends:
// a cut or implausible record, or a time it cannot convert. False, with nothing read, when
// the file does not begin like such a pcap.
bool read_native_pcap(const std::string& path, Feed& feed) {
    using capture::PcapFormatParser;
    constexpr size_t kRead = 512 * 1024;
    constexpr size_t kBuffer = kRead + capture::kMaximumBlockSize + 16;
    host::UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) return false;
    auto buffer = std::make_unique_for_overwrite<uint8_t[]>(kBuffer);
    size_t start = 0;
    size_t end = 0;
    int64_t offset = 0;
    // At least `wanted` bytes from `start` on; false at the end of the file or on an error.
    auto fill = [&](size_t wanted) {
        if (end - start >= wanted) return true;
        std::memmove(buffer.get(), buffer.get() + start, end - start);
        end -= start;
        start = 0;
        while (end < wanted) {
            ssize_t got =
                ::pread(file.get(), buffer.get() + end, std::min(kRead, kBuffer - end), offset);
            if (got < 0 && errno == EINTR) continue;
            if (got <= 0) return false;
            end += static_cast<size_t>(got);
            offset += got;
        }
        return true;
    };
    if (!fill(PcapFormatParser::kGlobalHeaderSize)) return false;
    const uint32_t magic = capture::load_u32(buffer.get());
    if (magic != PcapFormatParser::kMicrosecondMagic &&
        magic != PcapFormatParser::kNanosecondMagic) {
        return false;
    }
    const int resolution = magic == PcapFormatParser::kNanosecondMagic ? 9 : 6;
    // The upper bits of the header's link-type word carry FCS information.
    const uint32_t link_type = capture::load_u32(buffer.get() + 20) & 0xFFFF;
    start = PcapFormatParser::kGlobalHeaderSize;
    constexpr size_t kHeader = PcapFormatParser::kRecordHeaderSize;
    while (fill(kHeader)) {
        const uint32_t captured = capture::load_u32(buffer.get() + start + 8);
        const uint64_t record_size = uint64_t{captured} + kHeader;
        if (record_size >= capture::kMaximumBlockSize || !fill(record_size)) break;
        const uint8_t* record = buffer.get() + start;
        uint64_t nanoseconds = 0;
        if (!capture::pcap_to_nanoseconds(capture::load_u32(record), capture::load_u32(record + 4),
                                          resolution, nanoseconds)) {
            break;
        }
        start += record_size;
        if (!feed.packet(link_type, nanoseconds, record + kHeader, captured,
                         capture::load_u32(record + 12))) {
            break;
        }
    }
    return true;
}

}  // namespace

std::optional<FileSummary> read_capture_file(const std::string& path, SourceIndexer* indexer,
                                             const std::atomic<bool>* cancel) {
    FileSummary summary;
    Feed feed(summary, indexer, cancel);
    if (!read_native_pcap(path, feed)) {
        std::unique_ptr<capture::FileFormatParser> reader = capture::open_capture_file(path);
        if (!reader) return std::nullopt;
        capture::Packet packet;
        while (reader->next_packet(packet)) {
            const uint8_t* block = packet.block.data();
            if (!feed.packet(reader->link_type(), packet.timestamp, block + capture::kEpbData,
                             capture::load_u32(block + capture::kEpbCapturedLength),
                             capture::load_u32(block + capture::kEpbOriginalLength))) {
                break;
            }
        }
    }
    std::error_code error;
    summary.path = std::filesystem::absolute(path, error).lexically_normal().string();
    if (error) summary.path = path;
    if (indexer != nullptr && summary.packets > 0) indexer->tick(summary.last_ns);
    return summary;
}

}  // namespace vistrel::watchkeep
