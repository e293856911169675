#pragma once

#include <cstdint>
#include <list>
#include <string>
#include <vector>

namespace vistrel::database {

// One capture file known to the index. Times are nanoseconds since the Unix epoch.
class CaptureFileRecord {
  public:
    virtual ~CaptureFileRecord() = default;

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

// A time-range request: 0 bounds are open, empty index/sources mean any, an empty display
// filter means none.
struct CaptureQuery {
    uint64_t start = 0;
    uint64_t end = 0;
    std::string es_index;
    std::vector<std::string> sources;
    std::string display_filter;
};

// Adds a capture file: 0, 5 (insert failed) or 7 (invalid record).
unsigned add_capture_file(const CaptureFileRecord& record);
// The files of the query, in ascending start_ts when any restriction is given.
std::list<CaptureFileRecord> select_capture_files(const CaptureQuery& query);
// Removes the rows of one file: 0 or 6.
unsigned remove_capture_file(const std::string& file_path);
// The number of rows of the index, logged unless `log` is false (metrics scrapes).
uint32_t count_capture_files(bool log = true);

}  // namespace vistrel::database
