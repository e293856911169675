#pragma once

#include <cstdint>
#include <list>
#include <string>

#include "capture/capturefilerecord.h"
#include "capture/capturequery.h"

namespace vistrel::database {

using capture::CaptureFileRecord;
using capture::CaptureQuery;

// Adds a capture file: 0, 5 (insert failed) or 7 (invalid record).
unsigned add_capture_file(const CaptureFileRecord& record);
// The files of the query, in ascending start_ts when any restriction is given.
std::list<CaptureFileRecord> select_capture_files(const CaptureQuery& query);
// Removes the rows of one file: 0 or 6.
unsigned remove_capture_file(const std::string& file_path);
// The number of rows of the index, logged unless `log` is false (metrics scrapes).
uint32_t count_capture_files(bool log = true);

}  // namespace vistrel::database
