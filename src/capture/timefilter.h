#pragma once

#include <cstdint>
#include <string>

#include "database/captureindex.h"

namespace vistrel::capture {

// Nanoseconds as "seconds.nnnnnnnnn", the form display filters compare frame times with.
std::string epoch_text(uint64_t nanoseconds);

// The display filter of a query: its time bounds (start inclusive, end exclusive) and its
// user filter, joined with "&&".
std::string time_filter_text(const database::CaptureQuery& query);

}  // namespace vistrel::capture
