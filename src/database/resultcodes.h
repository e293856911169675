#pragma once

#include <string>

namespace vistrel::database {

// Result codes of the statement builders and the capture-index operations.
enum ResultCode : unsigned {
    kSuccess = 0,
    kSchemaFailed = 1,
    kStatementRejected = 2,
    kCreateTableRefused = 3,
    kSelectFailed = 4,
    kInsertFailed = 5,
    kDeleteFailed = 6,
    kInvalidRecord = 7,
};

// A short description of a result code; "Unknown database result" for other values.
std::string result_text(unsigned code);

}  // namespace vistrel::database
