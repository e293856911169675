#include "database/boundstatement.h"

#include <limits>

namespace vistrel::database {

SqlValue sql_integer(uint64_t value) {
    constexpr auto kMax = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
    return static_cast<int64_t>(value > kMax ? kMax : value);
}

}  // namespace vistrel::database
