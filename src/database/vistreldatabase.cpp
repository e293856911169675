#include "database/vistreldatabase.h"

#include <array>
#include <cstdlib>

#include "database/resultcodes.h"
#include "database/statements.h"
#include "startup/configuration.h"
#include "startup/logger.h"

namespace vistrel::database {

namespace {

struct TableDefinition {
    const char* name;
    const char* columns;
};

// Creation order matters only for reading: SQLite checks foreign keys on use, not on creation.
constexpr std::array<TableDefinition, 6> kSchema{{
    {kCaptureTable,
     "id INTEGER PRIMARY KEY, file_path TEXT, source TEXT, es_index TEXT, start_ts INTEGER(8), "
     "end_ts INTEGER(8), n_packets INTEGER(8)"},
    {kUserTable,
     "id INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE, permissions TEXT, last_seen INTEGER(8) "
     "NOT NULL DEFAULT 0"},
    {kAnalyzedTraceTable,
     "id INTEGER PRIMARY KEY, user INTEGER, name TEXT NOT NULL, path TEXT NOT NULL UNIQUE, "
     "start_ts INTEGER(8) NOT NULL DEFAULT 0, end_ts INTEGER(8) NOT NULL DEFAULT 0, FOREIGN "
     "KEY(user) REFERENCES User(id)"},
    {kSessionTable,
     "uuid TEXT PRIMARY KEY, is_active INTEGER, user INTEGER, start_ts INTEGER(8) NOT NULL "
     "DEFAULT 0, end_ts INTEGER(8) NOT NULL DEFAULT 0, timezone TEXT, FOREIGN KEY(user) "
     "REFERENCES User(id)"},
    {kSessionInterfacesTable,
     "id INTEGER PRIMARY KEY, session TEXT NOT NULL, interface TEXT, FOREIGN KEY(session) "
     "REFERENCES Session(uuid), FOREIGN KEY(interface) REFERENCES Interface(mac)"},
    {kInterfaceTable,
     "id INTEGER PRIMARY KEY, mac TEXT NOT NULL UNIQUE, name TEXT NOT NULL, type TEXT CHECK( "
     "type IN ('Tidewell','Interface','CaptureProbe') ) NOT NULL DEFAULT 'Tidewell', last_seen "
     "INTEGER(8) NOT NULL DEFAULT 0"},
}};

// The tables that flush-all empties, in this order.
constexpr std::array<const char*, 5> kFlushedTables{kCaptureTable, kSessionTable, kUserTable,
                                                    kSessionInterfacesTable, kInterfaceTable};

// The text after the last "/" or "\"; the whole path when it has neither.
std::string file_name_of(const std::string& path) {
    size_t separator = path.find_last_of("/\\");
    return separator == std::string::npos ? path : path.substr(separator + 1);
}

int store_count(void* context, int columns, char** values, char** /*names*/) {
    if (columns > 0 && values[0] != nullptr) {
        *static_cast<uint32_t*>(context) =
            static_cast<uint32_t>(std::strtoull(values[0], nullptr, 10));
    }
    return 0;
}

}  // namespace

VistrelDatabase::VistrelDatabase() : VistrelDatabase(configuration().database) {}

VistrelDatabase::VistrelDatabase(const std::string& path, int busy_timeout_ms) {
    LOG_DEBUG("Constructing VistrelDatabase");
    handle_ = open(path, busy_timeout_ms);
    if (handle_ != nullptr) {
        LOG_DEBUG("Successfully opened DB: [%s]", path.c_str());
        return;
    }
    LOG_DEBUG("Failed to open DB: [%s]", path.c_str());
    std::string fallback = file_name_of(path);
    handle_ = open(fallback, busy_timeout_ms);
    if (handle_ == nullptr) LOG_DEBUG("Failed to open DB: [%s]", fallback.c_str());
    // Logged whether or not the fallback opened: the log has always read so.
    LOG_DEBUG("Successfully opened DB: [%s]", fallback.c_str());
}

VistrelDatabase::~VistrelDatabase() = default;

VistrelDatabase::Handle VistrelDatabase::open(const std::string& path, int busy_timeout_ms) {
    sqlite3* raw = nullptr;
    int result = sqlite3_open(path.c_str(), &raw);
    // sqlite3_open hands out a handle even on failure; it must be closed all the same.
    Handle handle(raw);
    if (result != SQLITE_OK) return nullptr;
    sqlite3_busy_timeout(handle.get(), busy_timeout_ms);
    return handle;
}

unsigned VistrelDatabase::execute(std::string statement, RowCallback callback, void* context) {
    char* error = nullptr;
    int result = sqlite3_exec(handle_.get(), statement.c_str(), callback, context, &error);
    if (result == SQLITE_OK) return kSuccess;
    LOG_ERROR("SQL command: %s\n", statement.c_str());
    // A null handle yields no error text; SQLite's own message for the code stands in.
    LOG_ERROR("SQL error: %s\n", error != nullptr ? error : sqlite3_errstr(result));
    sqlite3_free(error);
    return kStatementRejected;
}

unsigned VistrelDatabase::execute_with_retry(const std::string& statement, RowCallback callback,
                                             void* context, const char* failure,
                                             const std::string& table, unsigned failure_code) {
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        if (execute(statement, callback, context) != kStatementRejected) return kSuccess;
    }
    LOG_ERROR(failure, table.c_str());
    return failure_code;
}

unsigned VistrelDatabase::create_table(const std::string& table, const std::string& columns) {
    if (table.empty() || columns.empty()) return kCreateTableRefused;
    return execute(create_table_statement(table, columns));
}

unsigned VistrelDatabase::insert(const std::string& table, const std::string& columns,
                                 const std::string& values) {
    if (table.empty() || columns.empty()) return kInsertFailed;
    return execute_with_retry(insert_statement(table, columns, values), nullptr, nullptr,
                              "Unable to insert values into table %s", table, kInsertFailed);
}

unsigned VistrelDatabase::insert_or_replace(const std::string& table, const std::string& columns,
                                            const std::string& values) {
    if (table.empty() || columns.empty()) return kInsertFailed;
    return execute_with_retry(insert_or_replace_statement(table, columns, values), nullptr, nullptr,
                              "Unable to insert or replace values into table %s", table,
                              kInsertFailed);
}

unsigned VistrelDatabase::select(const std::string& table, const std::string& columns,
                                 const std::string& where, RowCallback callback, void* context) {
    if (table.empty() || columns.empty()) return kSelectFailed;
    return execute_with_retry(select_statement(table, columns, where), callback, context,
                              "Unable to select values from table %s", table, kSelectFailed);
}

unsigned VistrelDatabase::remove(const std::string& table, const std::string& where) {
    if (table.empty()) return kDeleteFailed;
    // The delete reports its failure with the select message; the log has always read so.
    return execute_with_retry(delete_statement(table, where), nullptr, nullptr,
                              "Unable to select values from table %s", table, kDeleteFailed);
}

unsigned VistrelDatabase::create_schema() {
    if (handle_ == nullptr) return kSchemaFailed;
    if (execute("PRAGMA journal_mode = WAL;") == kStatementRejected) return kSchemaFailed;
    if (execute("PRAGMA foreign_keys = ON;") == kStatementRejected) return kSchemaFailed;
    for (const TableDefinition& table : kSchema) {
        // A table that SQLite refuses is logged by execute; the others are still created.
        if (create_table(table.name, table.columns) == kCreateTableRefused) return kSchemaFailed;
    }
    count_capture_rows();
    return kSuccess;
}

uint32_t VistrelDatabase::count_capture_rows(bool log) {
    uint32_t count = 0;
    if (select(kCaptureTable, "count(*)", "", store_count, &count) == kSelectFailed) {
        LOG_ERROR("Unable to count logs in Index Database");
        return 0;
    }
    if (log) LOG_NORMAL("Found %u logs in the Database", count);
    return count;
}

unsigned VistrelDatabase::flush_all() {
    for (const char* table : kFlushedTables) {
        if (remove(table, "") == kDeleteFailed) {
            LOG_ERROR("Error flushing database");
            return kDeleteFailed;
        }
    }
    LOG_NORMAL("Flushed database");
    return kSuccess;
}

unsigned VistrelDatabase::flush_by_file_path(const std::string& file_path) {
    if (file_path.empty()) {
        LOG_ERROR("Error flushing '%s' where 'file_path' is empty", kCaptureTable);
        return kDeleteFailed;
    }
    return remove(kCaptureTable, "file_path = '" + file_path + "'");
}

}  // namespace vistrel::database
