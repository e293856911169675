#pragma once

#include <cstdint>
#include <string>

#include "capture/capturequery.h"

namespace vistrel::capture {

// Nanoseconds as "seconds.nnnnnnnnn", the form display filters compare frame times with.
std::string epoch_text(uint64_t nanoseconds);

// The display filter of a query: its time bounds (start inclusive, end exclusive) and its
// user filter, joined with "&&".
std::string time_filter_text(const CaptureQuery& query);

}  // namespace vistrel::capture
