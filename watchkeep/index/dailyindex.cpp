#include "index/dailyindex.h"

#include <cstdio>

namespace vistrel::watchkeep {

const std::string& DailyIndex::name(uint64_t timestamp_ns) {
    auto day = static_cast<int64_t>(timestamp_ns / 86'400'000'000'000ULL);
    if (day == day_) return name_;
    day_ = day;
    // Civil date from days since 1970-01-01 (proleptic Gregorian).
    int64_t z = day + 719468;
    int64_t era = z / 146097;
    int64_t doe = z - era * 146097;
    int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    int64_t mp = (5 * doy + 2) / 153;
    int64_t d = doy - (153 * mp + 2) / 5 + 1;
    int64_t m = mp < 10 ? mp + 3 : mp - 9;
    int64_t y = yoe + era * 400 + (m <= 2 ? 1 : 0);
    char date[32];
    std::snprintf(date, sizeof date, "-%04lld.%02lld.%02lld", static_cast<long long>(y),
                  static_cast<long long>(m), static_cast<long long>(d));
    name_ = base_ + date;
    return name_;
}

}  // namespace vistrel::watchkeep
