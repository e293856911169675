#include <sqlite3.h>

#include <filesystem>
#include <memory>
#include <thread>

#include "database/database_fixture.h"
#include "database/resultcodes.h"
#include "database/vistreldatabase.h"

namespace vistrel::database {
namespace {

using testing::DatabaseFixture;

class VistrelDatabaseTest : public DatabaseFixture {};

TEST_F(VistrelDatabaseTest, EmptyArgumentsAreRefusedWithoutRunningSql) {
    VistrelDatabase database;
    EXPECT_EQ(database.create_table("", "a TEXT"), kCreateTableRefused);
    EXPECT_EQ(database.select("", "a", {}, nullptr, nullptr), kSelectFailed);
    EXPECT_EQ(database.insert("", "a", {int64_t{1}}), kInsertFailed);
    EXPECT_EQ(database.insert_or_replace("", "a", {int64_t{1}}), kInsertFailed);
    EXPECT_EQ(database.remove("", {}), kDeleteFailed);
    EXPECT_EQ(database.flush_by_file_path(""), kDeleteFailed);
    std::string log = log_text();
    EXPECT_EQ(occurrences(log, "SQL command"), 0u);
    EXPECT_EQ(occurrences(log, "Error flushing 'TidewellCapture' where 'file_path' is empty"), 1u);

    // A table definition SQLite refuses is not retried.
    EXPECT_EQ(database.create_table("T", "a TEXT,"), kStatementRejected);
    EXPECT_EQ(occurrences(log_text(), "SQL command: CREATE TABLE IF NOT EXISTS 'T' (a TEXT,)"), 1u);
}

TEST_F(VistrelDatabaseTest, SchemaHasTheSixTablesAndASecondStartKeepsTheRows) {
    {
        VistrelDatabase database;
        ASSERT_TRUE(database.is_open());
        ASSERT_EQ(database.create_schema(), kSuccess);
        ASSERT_EQ(database.insert(kCaptureTable, "file_path", {"a"}), kSuccess);
        ASSERT_EQ(database.insert(kCaptureTable, "file_path", {"b"}), kSuccess);
    }
    EXPECT_EQ(query("PRAGMA journal_mode;"), "wal");
    // The capture table is read by name and column by other tools; the others' columns are
    // exercised by the inserts of the tests below and of the session tests.
    EXPECT_EQ(query("SELECT group_concat(name, ' ') FROM pragma_table_info('TidewellCapture');"),
              "id file_path source es_index start_ts end_ts n_packets");
    EXPECT_EQ(query("SELECT group_concat(name, ' ') FROM sqlite_master WHERE type = 'table';"),
              "TidewellCapture User AnalyzedTrace Session SessionInterfaces Interface");
    EXPECT_EQ(occurrences(log_text(), "Found 0 logs in the Database"), 1u);

    EXPECT_EQ(VistrelDatabase().create_schema(), kSuccess);
    EXPECT_EQ(rows(kCaptureTable), 2);
    EXPECT_EQ(occurrences(log_text(), "Found 2 logs in the Database"), 1u);
    EXPECT_EQ(occurrences(log_text(), "SQL error"), 0u);
}

TEST_F(VistrelDatabaseTest, RejectedStatementIsTriedTenTimesThenReported) {
    VistrelDatabase database;
    EXPECT_EQ(database.insert("Missing", "a", {int64_t{1}}), kInsertFailed);
    EXPECT_EQ(database.insert_or_replace("Missing", "a", {int64_t{1}}), kInsertFailed);
    EXPECT_EQ(database.remove("Missing", {"a = ?", {int64_t{1}}}), kDeleteFailed);
    EXPECT_EQ(database.insert("Missing", "a", {"it's"}), kInsertFailed);
    std::string log = log_text();
    // Values are written into the logged statement as SQL literals.
    EXPECT_EQ(occurrences(log, "SQL command: INSERT INTO 'Missing' (a) VALUES ('it''s');"), 10u);
    EXPECT_EQ(occurrences(log, "SQL command: INSERT INTO 'Missing' (a) VALUES (1);"), 10u);
    EXPECT_EQ(occurrences(log, "SQL command: INSERT OR REPLACE INTO 'Missing' (a) VALUES (1);"),
              10u);
    EXPECT_EQ(occurrences(log, "SQL command: DELETE FROM 'Missing' WHERE a = 1;"), 10u);
    EXPECT_EQ(occurrences(log, "SQL error: no such table: Missing"), 40u);
    EXPECT_EQ(occurrences(log, "Unable to insert values into table Missing"), 2u);
    EXPECT_EQ(occurrences(log, "Unable to insert or replace values into table Missing"), 1u);
    // The delete reports with the select message.
    EXPECT_EQ(occurrences(log, "Unable to select values from table Missing"), 1u);
}

TEST_F(VistrelDatabaseTest, OnlyTheKindsOfStatementTheServerIssuesRun) {
    VistrelDatabase database;
    ASSERT_EQ(database.create_schema(), kSuccess);
    ASSERT_EQ(database.insert(kCaptureTable, "file_path", {"a"}), kSuccess);
    const std::string attached = dir.file("attached.db");
    for (const std::string& statement :
         {"ATTACH DATABASE '" + attached + "' AS other",
          std::string("DROP TABLE 'TidewellCapture'"), std::string("PRAGMA writable_schema = ON"),
          std::string("CREATE VIEW v AS SELECT * FROM 'TidewellCapture'"),
          std::string("SELECT load_extension('x')"),
          std::string("SELECT 1; DELETE FROM 'TidewellCapture';")}) {
        EXPECT_EQ(database.execute(statement), kStatementRejected) << statement;
    }
    EXPECT_FALSE(std::filesystem::exists(attached));
    EXPECT_EQ(rows(kCaptureTable), 1);
    EXPECT_EQ(occurrences(log_text(), "SQL error: not authorized"), 5u);
    EXPECT_EQ(occurrences(log_text(), "SQL error: only one statement per call"), 1u);
}

TEST_F(VistrelDatabaseTest, InsertThatCannotWaitIsRetriedTenTimesOneThatCanWaitsForTheLock) {
    ASSERT_EQ(VistrelDatabase().create_schema(), kSuccess);
    // Another connection holds the write lock.
    sqlite3* handle = nullptr;
    const int opened = sqlite3_open(database_path.c_str(), &handle);
    const std::unique_ptr<sqlite3, int (*)(sqlite3*)> holder(handle, sqlite3_close);
    ASSERT_EQ(opened, SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(handle, "BEGIN IMMEDIATE;", nullptr, nullptr, nullptr), SQLITE_OK);
    VistrelDatabase impatient(database_path, 0);
    EXPECT_EQ(impatient.insert(kCaptureTable, "file_path", {"a"}), kInsertFailed);
    std::string log = log_text();
    EXPECT_EQ(occurrences(log,
                          "SQL command: INSERT INTO 'TidewellCapture' (file_path) VALUES "
                          "('a');"),
              10u);
    EXPECT_EQ(occurrences(log, "SQL error: database is locked"), 10u);
    EXPECT_EQ(occurrences(log, "Unable to insert values into table TidewellCapture"), 1u);

    // Whenever the holder lets go, the waiting insert goes through without an error line.
    std::thread releaser([handle] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        EXPECT_EQ(sqlite3_exec(handle, "ROLLBACK;", nullptr, nullptr, nullptr), SQLITE_OK);
    });
    EXPECT_EQ(VistrelDatabase().insert(kCaptureTable, "file_path", {"a"}), kSuccess);
    releaser.join();
    EXPECT_EQ(impatient.insert(kCaptureTable, "file_path", {"b"}), kSuccess);
    EXPECT_EQ(occurrences(log_text(), "SQL error"), 10u);
    EXPECT_EQ(rows(kCaptureTable), 2);
}

TEST_F(VistrelDatabaseTest, FlushAllEmptiesEveryTableButAnalyzedTrace) {
    VistrelDatabase database;
    ASSERT_EQ(database.create_schema(), kSuccess);
    ASSERT_EQ(database.insert(kUserTable, "name", {"u"}), kSuccess);
    ASSERT_EQ(database.insert(kInterfaceTable, "mac, name", {"m", "n"}), kSuccess);
    ASSERT_EQ(database.insert(kSessionTable, "uuid, user", {"s", int64_t{1}}), kSuccess);
    ASSERT_EQ(database.insert(kSessionInterfacesTable, "session, interface", {"s", "m"}), kSuccess);
    ASSERT_EQ(database.insert(kCaptureTable, "file_path", {"f"}), kSuccess);
    ASSERT_EQ(database.insert(kAnalyzedTraceTable, "user, name, path", {int64_t{1}, "n", "p"}),
              kSuccess);

    // As in the cleanup mode: a connection of its own, without the schema's pragmas.
    EXPECT_EQ(VistrelDatabase().flush_all(), kSuccess);
    for (const char* table :
         {kCaptureTable, kSessionTable, kUserTable, kSessionInterfacesTable, kInterfaceTable}) {
        EXPECT_EQ(rows(table), 0) << table;
    }
    EXPECT_EQ(rows(kAnalyzedTraceTable), 1);
    EXPECT_EQ(occurrences(log_text(), "Flushed database"), 1u);
}

// An unopenable path falls back to its file name in the working directory.
TEST_F(VistrelDatabaseTest, UnopenablePathFallsBackToTheWorkingDirectory) {
    { VistrelDatabase(dir.file("fallback.db")).create_schema(); }
    // A folder of that name cannot be opened as a database either.
    std::filesystem::create_directory(dir.file("folder.db"));
    std::filesystem::path previous = std::filesystem::current_path();
    std::filesystem::current_path(dir.path());
    {
        VistrelDatabase database("/no/such/folder/fallback.db");
        EXPECT_TRUE(database.is_open());
        EXPECT_EQ(database.count_capture_rows(), 0u);
        VistrelDatabase broken("/no/such/folder/folder.db");
        EXPECT_FALSE(broken.is_open());
        EXPECT_EQ(broken.create_schema(), kSchemaFailed);
        EXPECT_EQ(broken.insert(kCaptureTable, "file_path", {"a"}), kInsertFailed);
    }
    std::filesystem::current_path(previous);
    std::string log = log_text();
    EXPECT_EQ(occurrences(log, "Failed to open DB: [/no/such/folder/fallback.db]"), 1u);
    EXPECT_EQ(occurrences(log, "Successfully opened DB: [fallback.db]"), 1u);
    EXPECT_EQ(occurrences(log, "Failed to open DB: [folder.db]"), 1u);
    // Reported as opened all the same: the log has always read so after the fallback.
    EXPECT_EQ(occurrences(log, "Successfully opened DB: [folder.db]"), 1u);
}

}  // namespace
}  // namespace vistrel::database
