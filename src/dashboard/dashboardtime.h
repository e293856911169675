#pragma once

#include <cstdint>
#include <ctime>
#include <string>

namespace vistrel::dashboard {

// A dashboard time text as nanoseconds since the epoch: milliseconds ("1573430400123"),
// "now", "now-<count><unit>" with unit s, m, h, d, w, M or y, each optionally rounded with
// "/<unit>" (d, w, M, y) to the start of its period for a range start, to the start of the
// next period for a range end. 0 when the text cannot be read.
uint64_t translate_timestamp(const std::string& text, bool is_start);
// The same at a given current time (seconds since the epoch).
uint64_t translate_timestamp(const std::string& text, bool is_start, std::time_t now);

}  // namespace vistrel::dashboard
