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

    // Content readers: a byte count, kEndOfStream or kEndWithError.
    int64_t read_direct(uint8_t* buffer, size_t maximum);
    int64_t read_filtered(uint8_t* buffer, size_t maximum);

    bool filtered() const { return pipe_ != nullptr; }
    bool no_data() const { return no_data_; }
    // No selected file could be opened: the stream is empty and reports 204.
    bool nothing_readable() const { return nothing_readable_; }
    int status() const { return status_.load(); }
    const CaptureQuery& query() const { return query_; }

  private:
    size_t chunk_size() const { return filtered_mode_ ? kFilterChunkSize : kDirectChunkSize; }
    void feed();
    bool send_all(const uint8_t* bytes, size_t count);
    int64_t hand_out(uint8_t* buffer, size_t maximum);

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

// Checks the selection, opens the readers, primes the job and starts tshark when the query
// carries a display filter. `pipe` replaces the default tshark pipe (tests).
Extraction prepare_extraction(const CaptureQuery& query, const std::list<CaptureFileRecord>& files,
                              std::unique_ptr<TsharkPipe> pipe = nullptr);

}  // namespace vistrel::capture
