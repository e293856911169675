#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "database/boundstatement.h"

namespace vistrel::database {

inline constexpr const char* kCaptureTable = "TidewellCapture";
inline constexpr const char* kUserTable = "User";
inline constexpr const char* kAnalyzedTraceTable = "AnalyzedTrace";
inline constexpr const char* kSessionTable = "Session";
inline constexpr const char* kSessionInterfacesTable = "SessionInterfaces";
inline constexpr const char* kInterfaceTable = "Interface";

// One connection to the server's SQLite database. Every user builds its own object, runs a few
// statements and lets the destructor close the connection; an object is used by one thread.
// Every statement is prepared once with its values bound to placeholders, one statement per
// call, and checked by an authorizer that refuses what the server never issues; the builders
// return the codes of database/resultcodes.h.
class VistrelDatabase {
  public:
    // The sqlite3_exec row callback: context, column count, values (null for NULL), names.
    // Returns 0 to go on.
    using RowCallback = int (*)(void* context, int columns, char** values, char** names);

    // How long a statement waits for another connection's lock before SQLite gives up. Without
    // it parallel writers fail at once, and ten immediate attempts are not enough.
    static constexpr int kBusyTimeoutMs = 10000;
    // Attempts of insert, insert-or-replace, select and delete while SQLite rejects them.
    static constexpr int kAttempts = 10;

    // Opens the database file of the configuration.
    VistrelDatabase();
    // Opens `path`; when that fails, its file name in the working directory.
    explicit VistrelDatabase(const std::string& path, int busy_timeout_ms = kBusyTimeoutMs);
    ~VistrelDatabase();
    VistrelDatabase(const VistrelDatabase&) = delete;
    VistrelDatabase& operator=(const VistrelDatabase&) = delete;

    bool is_open() const { return handle_ != nullptr; }

    // WAL journal, foreign keys, the six tables and the capture-index indices; logs the capture
    // row count. 0 or 1.
    unsigned create_schema();
    // 0, 2 or 3. Never retried.
    unsigned create_table(const std::string& table, const std::string& columns);
    // Runs one statement; on failure logs the statement (values written in) and SQLite's
    // message. Text after the first statement is refused. 0 or 2.
    unsigned execute(const BoundStatement& statement, RowCallback callback = nullptr,
                     void* context = nullptr);
    // 0 or 5.
    unsigned insert(const std::string& table, const std::string& columns,
                    std::vector<SqlValue> values);
    // 0 or 5.
    unsigned insert_or_replace(const std::string& table, const std::string& columns,
                               std::vector<SqlValue> values);
    // 0 or 4. An empty `where` selects every row.
    unsigned select(const std::string& table, const std::string& columns,
                    const BoundStatement& where, RowCallback callback, void* context);
    // 0 or 6. An empty `where` deletes every row.
    unsigned remove(const std::string& table, const BoundStatement& where);

    // Empties every table but AnalyzedTrace. 0 or 6.
    unsigned flush_all();
    // Deletes the capture-index rows of one file. 0 or 6.
    unsigned flush_by_file_path(const std::string& file_path);
    // Logs and returns the number of capture-index rows (0 when it cannot be read).
    uint32_t count_capture_rows(bool log = true);

  private:
    struct Closer {
        void operator()(sqlite3* handle) const { sqlite3_close(handle); }
    };
    using Handle = std::unique_ptr<sqlite3, Closer>;

    static Handle open(const std::string& path, int busy_timeout_ms);
    // Up to kAttempts executions while SQLite rejects the statement; then logs `failure`
    // with the table name and returns `failure_code`.
    unsigned execute_with_retry(const BoundStatement& statement, RowCallback callback,
                                void* context, const char* failure, const std::string& table,
                                unsigned failure_code);

    Handle handle_;
};

}  // namespace vistrel::database
