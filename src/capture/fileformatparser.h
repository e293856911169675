#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "capture/packet.h"
#include "host/uniquefd.h"

namespace vistrel::capture {

// One capture file read as a sequence of pcapng Enhanced Packet Blocks with nanosecond
// timestamps. The read offset is the class's own, so a stop in the middle of a range can put
// the file back exactly at the packet that was not taken. Reads go through a large buffer
// (one system call per buffer, not per packet); the buffer survives seeks inside it.
class FileFormatParser {
  public:
    explicit FileFormatParser(std::string path);
    virtual ~FileFormatParser();
    FileFormatParser(const FileFormatParser&) = delete;
    FileFormatParser& operator=(const FileFormatParser&) = delete;

    // The next packet of the file; nothing at the end of the file or after any error, and
    // nothing ever after that.
    std::optional<Packet> next_packet();
    // The same into `packet`, reusing its storage (no allocation per packet); false at the end.
    bool next_packet(Packet& packet) { return fetch(packet); }

    // A copy of the 92-byte header that begins every extract.
    virtual std::vector<uint8_t> output_file_header() const;

    // The EPBs of the packets stamped in [start, end] that fit in `maximum` bytes, from
    // where the previous call stopped; nothing when no packet was taken.
    std::optional<std::vector<uint8_t>> read_range(uint64_t start, uint64_t end, size_t maximum);
    // The same into a caller's buffer of `maximum` bytes; returns the bytes placed (0 for
    // nothing).
    size_t read_range_into(uint64_t start, uint64_t end, uint8_t* out, size_t maximum);

    // True when the file begins like a file of this format.
    virtual bool check_header() = 0;

    // The LINKTYPE_* of the packet delivered last (1, Ethernet, before the first).
    virtual uint32_t link_type() const { return 1; }

    // Opens the file on first use and reads at the stored offset: the count read, 0 at the end
    // of the file, negative on error.
    int64_t read(void* buffer, size_t count);
    void seek(int64_t offset);
    int64_t offset() const { return offset_; }

    // Gives back the descriptor and the buffer; the next read opens the file again. Used once
    // the format is known, so that a download of many files holds one open file at a time.
    void release();

    const std::string& path() const { return path_; }
    int descriptor() const { return descriptor_.get(); }

  protected:
    // The next packet into `packet`, reusing its storage; false at the end or on an error.
    virtual bool read_packet(Packet& packet) = 0;

  private:
    bool fetch(Packet& packet);

    std::string path_;
    host::UniqueFd descriptor_;
    int64_t offset_ = 0;

    std::unique_ptr<uint8_t[]> buffer_;
    int64_t buffered_start_ = 0;  // file offset of buffer_[0]
    size_t buffered_length_ = 0;
    bool ended_ = false;
    Packet scratch_;  // reused by read_range so that a range costs no allocation per packet
};

}  // namespace vistrel::capture
