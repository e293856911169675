#pragma once

#include <string>

#include "database/boundstatement.h"
#include "database/captureindex.h"

namespace vistrel::database {

// The column list of the capture-index insert and select.
inline constexpr const char* kCaptureColumns =
    "file_path, source, es_index, start_ts, end_ts, n_packets";

// The where clause of a capture-index select, values bound: the range test, the index and the
// sources joined with " AND ", then " ORDER BY start_ts ASC"; empty without any restriction. The
// range test selects a file when its first or its last packet lies in [start, end], so a file
// covering the whole range without either end inside it is not selected.
BoundStatement capture_where(const CaptureQuery& query);

// The value list of the capture-index insert.
std::vector<SqlValue> capture_values(const CaptureFileRecord& record);

}  // namespace vistrel::database
