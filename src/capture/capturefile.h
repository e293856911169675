#pragma once

#include <memory>
#include <string>

#include "capture/capturefilerecord.h"
#include "capture/fileformatparser.h"

namespace vistrel::capture {

// A reader for the record's file, chosen by its first bytes (pcapng first, then pcap); nothing
// when neither format recognises it. The name of the file plays no part.
std::unique_ptr<FileFormatParser> open_capture_file(const CaptureFileRecord& record);
std::unique_ptr<FileFormatParser> open_capture_file(const std::string& path);

// True for names ending in ".pcap", ".pcapng" or ".cap" (case-sensitive).
bool is_capture_file_name(const std::string& name);

}  // namespace vistrel::capture
