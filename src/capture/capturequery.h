#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vistrel::capture {

// A time-range request: 0 bounds are open, empty index/sources mean any, an empty display
// filter means none.
struct CaptureQuery {
    uint64_t start = 0;
    uint64_t end = 0;
    std::string es_index;
    std::vector<std::string> sources;
    std::string display_filter;
};

}  // namespace vistrel::capture
