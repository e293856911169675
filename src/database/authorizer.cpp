#include "database/authorizer.h"

#include <sqlite3.h>

#include <cstring>

namespace vistrel::database {

namespace {

bool named(const char* text, const char* name) {
    return text != nullptr && sqlite3_stricmp(text, name) == 0;
}

}  // namespace

int authorize_statement(void*, int action, const char* first, const char* second, const char*,
                        const char*) {
    switch (action) {
        case SQLITE_SELECT:
        case SQLITE_READ:
        case SQLITE_INSERT:
        case SQLITE_UPDATE:  // INSERT OR REPLACE and the schema table during CREATE
        case SQLITE_DELETE:
        case SQLITE_CREATE_TABLE:
        case SQLITE_CREATE_INDEX:
        case SQLITE_REINDEX:  // part of CREATE INDEX
            return SQLITE_OK;
        case SQLITE_PRAGMA:
            return named(first, "journal_mode") || named(first, "foreign_keys") ? SQLITE_OK
                                                                                : SQLITE_DENY;
        case SQLITE_FUNCTION:
            return named(second, "count") ? SQLITE_OK : SQLITE_DENY;
        default:
            return SQLITE_DENY;
    }
}

}  // namespace vistrel::database
