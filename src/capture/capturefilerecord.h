#pragma once

#include <cstdint>
#include <string>

namespace vistrel::capture {

// One capture file known to the index. Times are nanoseconds since the Unix epoch.
struct CaptureFileRecord {
    std::string es_index;
    std::string file_path;
    std::string source;
    uint64_t start_ts = 0;
    uint64_t end_ts = 0;
    uint64_t n_packets = 0;

    bool valid() const {
        return !file_path.empty() && !source.empty() && !es_index.empty() && start_ts != 0 &&
               end_ts != 0;
    }
};

}  // namespace vistrel::capture
