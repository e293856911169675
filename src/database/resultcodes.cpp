#include "database/resultcodes.h"

namespace vistrel::database {

std::string result_text(unsigned code) {
    switch (code) {
        case kSuccess:
            return "Success";
        case kSchemaFailed:
            return "Database schema creation failed";
        case kStatementRejected:
            return "SQL statement rejected";
        case kCreateTableRefused:
            return "Create table refused: empty table name or column list";
        case kSelectFailed:
            return "Select failed";
        case kInsertFailed:
            return "Insert failed";
        case kDeleteFailed:
            return "Delete failed";
        case kInvalidRecord:
            return "Invalid capture file record";
        default:
            return "Unknown database result";
    }
}

}  // namespace vistrel::database
