#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "capture/pcapngblocks.h"

namespace vistrel::capture {

// Writes a pcapng file: one section, one interface per name with nanosecond timestamps
// (if_tsresol 9), enhanced packet blocks. Writes are buffered; flush() hands them to the file.
class PcapngWriter {
  public:
    PcapngWriter() = default;
    // Closes the file: what is buffered is written first.
    ~PcapngWriter();
    PcapngWriter(const PcapngWriter&) = delete;
    PcapngWriter& operator=(const PcapngWriter&) = delete;

    // Named in the section header (shb_userappl) of the files opened afterwards.
    void set_application(std::string application) { application_ = std::move(application); }

    // Creates `path` with the section header and one interface per name (an empty name has
    // no if_name); false on failure.
    bool open(const std::string& path, const std::vector<std::string>& interface_names,
              uint16_t link_type = pcapng::kLinkTypeEthernet);
    bool write_packet(uint32_t interface_id, uint64_t timestamp_ns, const uint8_t* data,
                      uint32_t length);
    bool flush();
    // False when the last bytes could not be written.
    bool close();
    bool is_open() const { return file_ != nullptr; }
    // Bytes of the file so far, buffered ones included.
    uint64_t bytes_written() const { return bytes_; }

  private:
    bool write_buffer();

    struct FileCloser {
        void operator()(FILE* file) const { std::fclose(file); }
    };
    std::unique_ptr<FILE, FileCloser> file_;
    std::string application_;
    std::string buffer_;
    uint64_t bytes_ = 0;
    bool failed_ = false;
};

}  // namespace vistrel::capture
