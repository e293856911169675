#pragma once

#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "capture/capturefilerecord.h"
#include "capture/capturequery.h"
#include "capture/fileformatparser.h"
#include "capture/packetselector.h"
#include "capture/tsharkpipe.h"

namespace vistrel::capture {

// Results of the content readers besides a byte count.
inline constexpr int64_t kEndOfStream = -1;
inline constexpr int64_t kEndWithError = -2;

// Direct reads go by 100 KiB, chunks fed to tshark by 64 KiB.
inline constexpr size_t kDirectChunkSize = 102400;
inline constexpr size_t kFilterChunkSize = 65536;

// The extract of one download: a 92-byte header, then the EPBs of the selected files in their
// order, straight from the readers or through tshark when the query has a display filter.
class ExtractionJob {
  public:
    using Readers = std::list<std::unique_ptr<FileFormatParser>>;

    ExtractionJob(CaptureQuery query, Readers readers);
    // Stops a feeder that is still running (download abandoned) before anything is freed.
    ~ExtractionJob();
    ExtractionJob(const ExtractionJob&) = delete;
    ExtractionJob& operator=(const ExtractionJob&) = delete;

    // Reads up to the first chunk of packets in range, so that an empty range can be answered
    // with an error page before any byte is sent. Sets no_data() when readers exist but none
    // holds a packet of the range.
    void prime();

    // Starts tshark and the feeder thread: false when tshark could not be started.
    bool start_filter(std::unique_ptr<TsharkPipe> pipe);
    // Filters inside the direct stream instead: only the packets `selector` takes, before the
    // query's end (exclusive, as for tshark's time filter).
    void use_selector(std::unique_ptr<PacketSelector> selector);

    // Content readers: a byte count, kEndOfStream or kEndWithError.
    int64_t read_direct(uint8_t* buffer, size_t maximum);
    int64_t read_filtered(uint8_t* buffer, size_t maximum);

    // Streams through tshark (read_filtered); the other paths use read_direct.
    bool filtered() const { return pipe_ != nullptr; }
    bool no_data() const { return no_data_; }
    // No selected file could be opened: the stream is empty and reports 204.
    bool nothing_readable() const { return nothing_readable_; }
    int status() const { return status_.load(); }
    const CaptureQuery& query() const { return query_; }

    // What a download has streamed so far, by path.
    enum class Path { kDirect, kSelected, kTshark };
    struct Streamed {
        uint64_t packets = 0;  // not counted on the tshark path (its output is not parsed)
        uint64_t bytes = 0;
    };
    Path path() const;
    const Streamed& streamed() const { return streamed_; }

  private:
    size_t chunk_size() const { return filtered_mode_ ? kFilterChunkSize : kDirectChunkSize; }
    void feed();
    bool send_all(const uint8_t* bytes, size_t count);
    int64_t hand_out(uint8_t* buffer, size_t maximum);
    // Keeps the selected EPBs of a chunk in place (all of them without a selector) and counts
    // them; returns the bytes kept.
    size_t keep_selected(uint8_t* chunk, size_t used);
    int64_t end_of_tshark_output();

    CaptureQuery query_;
    uint64_t range_end_;
    Readers readers_;
    bool header_sent_ = false;
    bool no_data_ = false;
    bool nothing_readable_ = false;  // set by prime(), read while the feeder runs
    bool filtered_mode_ = false;
    std::atomic<int> status_{200};
    std::atomic<bool> cancelled_{false};

    // Bytes produced but not yet handed out (the header, the primed chunk, or a chunk larger
    // than the HTTP library's buffer).
    std::vector<uint8_t> pending_;
    size_t pending_offset_ = 0;
    std::vector<uint8_t> first_chunk_;

    std::unique_ptr<TsharkPipe> pipe_;
    std::thread feeder_;
    std::unique_ptr<PacketSelector> selector_;
    Streamed streamed_;  // written by the HTTP thread only
};

// What the download handler needs: a job to stream, or an error page to answer with.
struct Extraction {
    std::unique_ptr<ExtractionJob> job;
    std::string error_title;
    std::string error_message;
};

// Selections above this many bytes (as counted below) are refused.
inline constexpr int64_t kMaximumExtractionBytes = 10737418240;

// The size a file counts for in the limit: its size as a signed 32-bit number; unreadable
// files and negative values count 0.
int64_t counted_file_size(const std::string& path);

struct ExtractionOptions {
    // Non-empty: a display filter goes through tshark for this reason (the configuration, a
    // raw filter of the user), whatever libpcap could do.
    std::string tshark_reason;
    // Replaces the default tshark pipe (tests).
    std::unique_ptr<TsharkPipe> pipe;
};

// Checks the selection, opens the readers and primes the job. A display filter is applied by
// libpcap inside the extraction when it has an exact BPF equivalent on the range's traffic,
// otherwise by tshark; the choice is logged.
Extraction prepare_extraction(const CaptureQuery& query,
                              const std::list<CaptureFileRecord>& files,
                              ExtractionOptions options = {});

}  // namespace vistrel::capture
