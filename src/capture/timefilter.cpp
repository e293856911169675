#include "capture/timefilter.h"

#include <cinttypes>
#include <cstdio>

namespace vistrel::capture {

std::string epoch_text(uint64_t nanoseconds) {
    char text[32];
    std::snprintf(text, sizeof text, "%" PRIu64 ".%09" PRIu64, nanoseconds / uint64_t{1000000000},
                  nanoseconds % uint64_t{1000000000});
    return text;
}

std::string time_filter_text(const CaptureQuery& query) {
    std::string text;
    if (query.start != 0) text += "( frame.time_epoch >= " + epoch_text(query.start) + " )";
    if (query.end != 0) {
        if (!text.empty()) text += " && ";
        text += "( frame.time_epoch < " + epoch_text(query.end) + " )";
    }
    if (query.display_filter.empty()) return text;
    if (!text.empty()) text += " && ";
    text += "(" + query.display_filter + ")";
    return text;
}

}  // namespace vistrel::capture
