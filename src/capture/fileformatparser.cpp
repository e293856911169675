#include "capture/fileformatparser.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "capture/outputheader.h"
#include "startup/logger.h"

namespace vistrel::capture {

namespace {
// Large enough that a whole range of small packets costs a handful of reads.
constexpr size_t kBufferSize = 512 * 1024;
}  // namespace

FileFormatParser::FileFormatParser(std::string path) : path_(std::move(path)) {}

FileFormatParser::~FileFormatParser() {
    release();
}

void FileFormatParser::release() {
    descriptor_.reset();
    buffer_.reset();
    buffered_length_ = 0;
}

std::optional<Packet> FileFormatParser::next_packet() {
    Packet packet;
    if (!fetch(packet)) return std::nullopt;
    return packet;
}

bool FileFormatParser::fetch(Packet& packet) {
    if (ended_) return false;
    if (!read_packet(packet)) {
        ended_ = true;
        return false;
    }
    return true;
}

std::vector<uint8_t> FileFormatParser::output_file_header() const {
    const auto& header = output_header_bytes();
    return {header.begin(), header.end()};
}

std::optional<std::vector<uint8_t>> FileFormatParser::read_range(uint64_t start, uint64_t end,
                                                                 size_t maximum) {
    std::vector<uint8_t> buffer(maximum);
    size_t used = read_range_into(start, end, buffer.data(), maximum);
    if (used == 0) return std::nullopt;
    buffer.resize(used);
    return buffer;
}

size_t FileFormatParser::read_range_into(uint64_t start, uint64_t end, uint8_t* out,
                                         size_t maximum) {
    size_t used = 0;
    int64_t resume = offset_;
    while (fetch(scratch_)) {
        if (scratch_.timestamp > end) {
            seek(resume);
            break;
        }
        if (scratch_.timestamp >= start) {
            const size_t size = scratch_.block.size();
            if (used + size > maximum) {
                seek(resume);
                break;
            }
            std::memcpy(out + used, scratch_.block.data(), size);
            used += size;
        }
        resume = offset_;
    }
    return used;
}

int64_t FileFormatParser::read(void* buffer, size_t count) {
    if (!descriptor_) {
        descriptor_.reset(::open(path_.c_str(), O_RDONLY | O_CLOEXEC));
        if (!descriptor_) {
            LOG_ERROR("Unable to open file [%s] with erc: %s", path_.c_str(), std::strerror(errno));
            return -1;
        }
        seek(offset_);
    }
    auto* destination = static_cast<uint8_t*>(buffer);
    size_t done = 0;
    while (done < count) {
        const int64_t buffered_end = buffered_start_ + static_cast<int64_t>(buffered_length_);
        if (buffer_ && offset_ >= buffered_start_ && offset_ < buffered_end) {
            const size_t available = static_cast<size_t>(buffered_end - offset_);
            const size_t taken = std::min(count - done, available);
            std::memcpy(destination + done, buffer_.get() + (offset_ - buffered_start_), taken);
            done += taken;
            offset_ += static_cast<int64_t>(taken);
            continue;
        }
        const size_t wanted = count - done;
        ssize_t got;
        if (wanted >= kBufferSize) {
            // A read as large as the buffer gains nothing from it.
            got = ::pread(descriptor_.get(), destination + done, wanted, offset_);
            if (got > 0) {
                done += static_cast<size_t>(got);
                offset_ += got;
                continue;
            }
        } else {
            if (!buffer_) buffer_ = std::make_unique_for_overwrite<uint8_t[]>(kBufferSize);
            got = ::pread(descriptor_.get(), buffer_.get(), kBufferSize, offset_);
            buffered_start_ = offset_;
            buffered_length_ = got > 0 ? static_cast<size_t>(got) : 0;
            if (got > 0) continue;
        }
        if (got < 0 && errno == EINTR) continue;
        if (got < 0 && done == 0) return -1;
        break;  // end of file, or an error after some bytes: report what was read
    }
    return static_cast<int64_t>(done);
}

void FileFormatParser::seek(int64_t offset) {
    offset_ = offset;
    // Reads are positioned (pread), so the descriptor's own position never matters.
}

}  // namespace vistrel::capture
