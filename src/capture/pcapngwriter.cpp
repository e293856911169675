#include "capture/pcapngwriter.h"

namespace vistrel::capture {

namespace {

// Large enough that the file sees few, large writes; small enough to stay in cache.
constexpr size_t kBufferSize = 256 * 1024;
constexpr uint8_t kNanoseconds = 9;

}  // namespace

PcapngWriter::~PcapngWriter() {
    close();
}

bool PcapngWriter::open(const std::string& path, const std::vector<std::string>& interface_names,
                        uint16_t link_type) {
    close();
    file_.reset(std::fopen(path.c_str(), "wb"));
    if (!file_) return false;
    buffer_.clear();
    buffer_.reserve(kBufferSize + 2 * pcapng::kSnapLength);
    failed_ = false;
    pcapng::append_section_header(buffer_, application_);
    for (const auto& name : interface_names) {
        pcapng::append_interface(buffer_, link_type, name, kNanoseconds);
    }
    bytes_ = buffer_.size();
    if (!write_buffer()) {
        close();
        return false;
    }
    return true;
}

bool PcapngWriter::write_packet(uint32_t interface_id, uint64_t timestamp_ns, const uint8_t* data,
                                uint32_t length) {
    if (!file_ || failed_) return false;
    const size_t before = buffer_.size();
    pcapng::append_enhanced_packet(buffer_, interface_id, timestamp_ns, data, length, length);
    bytes_ += buffer_.size() - before;
    return buffer_.size() < kBufferSize || write_buffer();
}

bool PcapngWriter::write_buffer() {
    if (!buffer_.empty() && !failed_ &&
        std::fwrite(buffer_.data(), 1, buffer_.size(), file_.get()) != buffer_.size()) {
        failed_ = true;
    }
    buffer_.clear();
    return !failed_;
}

bool PcapngWriter::flush() {
    return file_ && write_buffer() && std::fflush(file_.get()) == 0;
}

bool PcapngWriter::close() {
    if (!file_) return true;
    const bool written = write_buffer();
    const bool closed = std::fclose(file_.release()) == 0;
    return written && closed;
}

}  // namespace vistrel::capture
