#include "dashboard/dashboardtime.h"

#include <charconv>

#include "startup/logger.h"

namespace vistrel::dashboard {

namespace {

constexpr int64_t kDay = 86400;

bool leap_year(int year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

int days_of_year(int year) {
    return leap_year(year) ? 366 : 365;
}

// Days of a month numbered from 1 (January); 0 stands for the December before.
int days_of_month(int month, int year) {
    static constexpr int kDays[] = {31, 31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (month == 2 && leap_year(year)) return 29;
    return kDays[month];
}

bool parse_count(const std::string& text, uint64_t& value) {
    value = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return !text.empty() && error == std::errc() && end == text.data() + text.size();
}

std::tm utc_fields(std::time_t time) {
    std::tm fields{};
    gmtime_r(&time, &fields);
    return fields;
}

// Seconds to subtract for "<count><unit>" at `now`; nullopt-like -1 for an unknown unit.
int64_t unit_seconds(char unit, std::time_t now) {
    const std::tm fields = utc_fields(now);
    switch (unit) {
        case 's':
            return 1;
        case 'm':
            return 60;
        case 'h':
            return 3600;
        case 'd':
            return kDay;
        case 'w':
            return 7 * kDay;
        // The month table is indexed from 1 with the zero-based month: the month before.
        case 'M':
            return days_of_month(fields.tm_mon, fields.tm_year + 1900) * kDay;
        case 'y':
            return days_of_year(fields.tm_year + 1900) * kDay;
        default:
            return -1;
    }
}

int64_t round_to_period(int64_t time, const std::string& unit, bool is_start) {
    const std::tm f = utc_fields(static_cast<std::time_t>(time));
    int64_t period = 0;
    int64_t elapsed = 0;
    switch (unit.back()) {
        case 'd':
            period = kDay;
            elapsed = (int64_t{f.tm_hour} * 60 + f.tm_min) * 60 + f.tm_sec;
            break;
        case 'w':  // weeks begin on Monday; a Sunday gives a negative elapsed time
            period = 7 * kDay;
            elapsed = ((int64_t{f.tm_wday} * 24 - 24 + f.tm_hour) * 60 + f.tm_min) * 60 + f.tm_sec;
            break;
        case 'M':
            period = days_of_month(f.tm_mon + 1, f.tm_year + 1900) * kDay;
            elapsed = ((int64_t{f.tm_mday - 1} * 24 + f.tm_hour) * 60 + f.tm_min) * 60 + f.tm_sec;
            break;
        case 'y':
            period = days_of_year(f.tm_year + 1900) * kDay;
            elapsed = ((int64_t{f.tm_yday} * 24 + f.tm_hour) * 60 + f.tm_min) * 60 + f.tm_sec;
            break;
        default:
            return time;
    }
    return is_start ? time - elapsed : time + period - elapsed;
}

}  // namespace

uint64_t translate_timestamp(const std::string& text, bool is_start) {
    return translate_timestamp(text, is_start, std::time(nullptr));
}

uint64_t translate_timestamp(const std::string& text, bool is_start, std::time_t now) {
    LOG_NORMAL("Translating Dashboard Timestamp to time-epoch: '%s'  (is start_ts: %d)",
               text.c_str(), is_start ? 1 : 0);
    const size_t slash = text.find('/');
    const std::string expression = text.substr(0, slash);
    const std::string rounding = slash == std::string::npos ? "" : text.substr(slash + 1);

    int64_t time = 0;
    const size_t dash = expression.find('-');
    if (dash == std::string::npos) {
        if (expression != "now") {
            // Milliseconds since the epoch, never rounded.
            uint64_t milliseconds = 0;
            if (!parse_count(expression, milliseconds) || milliseconds > UINT64_MAX / 1000000) {
                return 0;
            }
            return (milliseconds / 1000) * 1000000000ull + (milliseconds % 1000) * 1000000ull;
        }
        time = now;
    } else {
        if (expression.substr(0, dash) != "now") return 0;
        const std::string offset = expression.substr(dash + 1);
        uint64_t count = 0;
        if (offset.empty() || !parse_count(offset.substr(0, offset.size() - 1), count)) return 0;
        const int64_t unit = unit_seconds(offset.back(), now);
        if (unit < 0 || count > static_cast<uint64_t>(now) / static_cast<uint64_t>(unit)) {
            return 0;
        }
        time = now - static_cast<int64_t>(count) * unit;
    }
    if (!rounding.empty() && rounding != "now" && time != 0) {
        time = round_to_period(time, rounding, is_start);
    }
    if (time <= 0) return 0;
    return static_cast<uint64_t>(time) * 1000000000ull;
}

}  // namespace vistrel::dashboard
