#pragma once

#include <cstdint>
#include <string>

namespace vistrel::watchkeep {

// "<base>-YYYY.MM.DD" for a time (UTC), remembering the last day so that most records reuse
// the same text.
class DailyIndex {
  public:
    explicit DailyIndex(std::string base) : base_(std::move(base)) {}

    const std::string& name(uint64_t timestamp_ns);

  private:
    std::string base_;
    int64_t day_ = -1;
    std::string name_;
};

}  // namespace vistrel::watchkeep
