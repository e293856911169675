#include "capture/capturefile.h"

#include "capture/pcapformatparser.h"
#include "capture/pcapngformatparser.h"

namespace vistrel::capture {

std::unique_ptr<FileFormatParser> open_capture_file(const CaptureFileRecord& record) {
    return open_capture_file(record.file_path);
}

std::unique_ptr<FileFormatParser> open_capture_file(const std::string& path) {
    std::unique_ptr<FileFormatParser> reader = std::make_unique<PcapngFormatParser>(path);
    if (!reader->check_header()) {
        reader = std::make_unique<PcapFormatParser>(path);
        if (!reader->check_header()) return nullptr;
    }
    reader->release();
    return reader;
}

bool is_capture_file_name(const std::string& name) {
    for (const char* suffix : {".pcap", ".pcapng", ".cap"}) {
        const std::string ending(suffix);
        if (name.size() >= ending.size() &&
            name.compare(name.size() - ending.size(), ending.size(), ending) == 0) {
            return true;
        }
    }
    return false;
}

}  // namespace vistrel::capture
