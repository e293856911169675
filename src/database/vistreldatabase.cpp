#include "database/vistreldatabase.h"

#include <array>
#include <cctype>
#include <cstdlib>

#include "database/authorizer.h"
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

// The capture index is selected by time range, index and source, and its rows are deleted by
// path; without these every request scans the whole table.
constexpr std::array<const char*, 5> kCaptureIndices{
    "CREATE INDEX IF NOT EXISTS 'TidewellCapture_start_ts' ON 'TidewellCapture' (start_ts)",
    "CREATE INDEX IF NOT EXISTS 'TidewellCapture_end_ts' ON 'TidewellCapture' (end_ts)",
    "CREATE INDEX IF NOT EXISTS 'TidewellCapture_es_index' ON 'TidewellCapture' (es_index)",
    "CREATE INDEX IF NOT EXISTS 'TidewellCapture_source' ON 'TidewellCapture' (source)",
    "CREATE INDEX IF NOT EXISTS 'TidewellCapture_file_path' ON 'TidewellCapture' (file_path)",
};

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

struct StatementCloser {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using PreparedStatement = std::unique_ptr<sqlite3_stmt, StatementCloser>;

// The statement as the log shows it: each "?" replaced by its value, texts quoted as SQL
// literals.
std::string shown_statement(const BoundStatement& statement) {
    std::string shown;
    size_t next = 0;
    for (char c : statement.text) {
        if (c != '?' || next >= statement.values.size()) {
            shown += c;
            continue;
        }
        const SqlValue& value = statement.values[next++];
        if (const auto* number = std::get_if<int64_t>(&value)) {
            shown += std::to_string(*number);
            continue;
        }
        shown += '\'';
        for (char t : std::get<std::string>(value)) shown += t == '\'' ? "''" : std::string(1, t);
        shown += '\'';
    }
    return shown;
}

bool only_blanks(const char* text) {
    for (; text != nullptr && *text != '\0'; ++text) {
        if (std::isspace(static_cast<unsigned char>(*text)) == 0) return false;
    }
    return true;
}

int bind_values(sqlite3_stmt* statement, const std::vector<SqlValue>& values) {
    for (size_t i = 0; i < values.size(); ++i) {
        const int position = static_cast<int>(i + 1);
        int result = SQLITE_OK;
        if (const auto* number = std::get_if<int64_t>(&values[i])) {
            result = sqlite3_bind_int64(statement, position, *number);
        } else {
            const std::string& text = std::get<std::string>(values[i]);
            result = sqlite3_bind_text(statement, position, text.data(),
                                       static_cast<int>(text.size()), SQLITE_TRANSIENT);
        }
        if (result != SQLITE_OK) return result;
    }
    return SQLITE_OK;
}

// Steps through the rows, handing each to the callback as sqlite3_exec would: values as text
// (null for NULL) and column names. A non-zero callback result stops with SQLITE_ABORT.
int run_rows(sqlite3_stmt* statement, VistrelDatabase::RowCallback callback, void* context) {
    const int columns = sqlite3_column_count(statement);
    std::vector<char*> values(static_cast<size_t>(columns));
    std::vector<char*> names(static_cast<size_t>(columns));
    for (;;) {
        int result = sqlite3_step(statement);
        if (result == SQLITE_DONE) return SQLITE_OK;
        if (result != SQLITE_ROW) return result;
        if (callback == nullptr) continue;
        for (int column = 0; column < columns; ++column) {
            values[static_cast<size_t>(column)] = reinterpret_cast<char*>(
                const_cast<unsigned char*>(sqlite3_column_text(statement, column)));
            names[static_cast<size_t>(column)] =
                const_cast<char*>(sqlite3_column_name(statement, column));
        }
        if (callback(context, columns, values.data(), names.data()) != 0) return SQLITE_ABORT;
    }
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
    sqlite3_set_authorizer(handle.get(), &authorize_statement, nullptr);
    return handle;
}

unsigned VistrelDatabase::execute(const BoundStatement& statement, RowCallback callback,
                                  void* context) {
    sqlite3_stmt* raw = nullptr;
    const char* tail = nullptr;
    int result = sqlite3_prepare_v2(handle_.get(), statement.text.c_str(), -1, &raw, &tail);
    PreparedStatement prepared(raw);
    const char* error = nullptr;
    if (result == SQLITE_OK && !only_blanks(tail)) {
        error = "only one statement per call";
    } else if (result == SQLITE_OK && prepared != nullptr) {
        result = bind_values(prepared.get(), statement.values);
        if (result == SQLITE_OK) result = run_rows(prepared.get(), callback, context);
    }
    if (result == SQLITE_OK && error == nullptr) return kSuccess;
    if (error == nullptr) {
        // A null handle has no message of its own; SQLite's text for the code stands in.
        error = handle_ != nullptr ? sqlite3_errmsg(handle_.get()) : sqlite3_errstr(result);
    }
    LOG_ERROR("SQL command: %s\n", shown_statement(statement).c_str());
    LOG_ERROR("SQL error: %s\n", error);
    return kStatementRejected;
}

unsigned VistrelDatabase::execute_with_retry(const BoundStatement& statement, RowCallback callback,
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
                                 std::vector<SqlValue> values) {
    if (table.empty() || columns.empty()) return kInsertFailed;
    return execute_with_retry(insert_statement(table, columns, std::move(values)), nullptr, nullptr,
                              "Unable to insert values into table %s", table, kInsertFailed);
}

unsigned VistrelDatabase::insert_or_replace(const std::string& table, const std::string& columns,
                                            std::vector<SqlValue> values) {
    if (table.empty() || columns.empty()) return kInsertFailed;
    return execute_with_retry(insert_or_replace_statement(table, columns, std::move(values)),
                              nullptr, nullptr, "Unable to insert or replace values into table %s",
                              table, kInsertFailed);
}

unsigned VistrelDatabase::select(const std::string& table, const std::string& columns,
                                 const BoundStatement& where, RowCallback callback, void* context) {
    if (table.empty() || columns.empty()) return kSelectFailed;
    return execute_with_retry(select_statement(table, columns, where), callback, context,
                              "Unable to select values from table %s", table, kSelectFailed);
}

unsigned VistrelDatabase::remove(const std::string& table, const BoundStatement& where) {
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
    for (const char* index : kCaptureIndices) execute(index);
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
    return remove(kCaptureTable, {"file_path = ?", {file_path}});
}

}  // namespace vistrel::database
