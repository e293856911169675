#include <sqlite3.h>

#include <tuple>
#include <vector>

#include "database/captureindex.h"
#include "database/captureindexquery.h"
#include "database/database_fixture.h"
#include "database/resultcodes.h"
#include "database/sessionrecords.h"
#include "database/vistreldatabase.h"

namespace vistrel::database {
namespace {

using testing::capture_record;
using testing::DatabaseFixture;

CaptureQuery make_query(uint64_t start, uint64_t end, std::string es_index = "",
                        std::vector<std::string> sources = {}) {
    CaptureQuery query;
    query.start = start;
    query.end = end;
    query.es_index = std::move(es_index);
    query.sources = std::move(sources);
    return query;
}

class CaptureIndexTest : public DatabaseFixture {
  protected:
    void SetUp() override {
        DatabaseFixture::SetUp();
        ASSERT_EQ(VistrelDatabase().create_schema(), kSuccess);
    }

    static std::vector<std::string> paths(const std::list<CaptureFileRecord>& records) {
        std::vector<std::string> result;
        for (const auto& record : records) result.push_back(record.file_path);
        return result;
    }
};

TEST_F(CaptureIndexTest, InvalidRecordsAreRefusedAndValidOnesComeBackWhole) {
    for (const CaptureFileRecord& record :
         {capture_record("/c/a", 100, 0), capture_record("/c/a", 0, 100), capture_record("", 1, 2),
          capture_record("/c/a", 1, 2, ""), capture_record("/c/a", 1, 2, "dev1", "")}) {
        EXPECT_EQ(add_capture_file(record), kInvalidRecord) << record.file_path;
    }
    EXPECT_EQ(rows(kCaptureTable), 0);

    // A valid record comes back whole.
    CaptureFileRecord stored =
        capture_record("/c/a.pcapng", 1573430400123456789ull, 1573430400999999999ull);
    stored.n_packets = 0;
    ASSERT_EQ(add_capture_file(stored), kSuccess);
    std::list<CaptureFileRecord> found = select_capture_files({});
    ASSERT_EQ(found.size(), 1u);
    const CaptureFileRecord& record = found.front();
    EXPECT_EQ(std::tie(record.file_path, record.source, record.es_index, record.start_ts,
                       record.end_ts, record.n_packets),
              std::tie(stored.file_path, stored.source, stored.es_index, stored.start_ts,
                       stored.end_ts, stored.n_packets));
}

TEST_F(CaptureIndexTest, RangeSelectionKeepsItsTwoSidedBetweenTest) {
    ASSERT_EQ(add_capture_file(capture_record("/c/late", 180, 260)), kSuccess);
    ASSERT_EQ(add_capture_file(capture_record("/c/covering", 50, 300)), kSuccess);
    ASSERT_EQ(add_capture_file(capture_record("/c/early", 40, 100)), kSuccess);
    ASSERT_EQ(add_capture_file(capture_record("/c/inside", 120, 150)), kSuccess);
    ASSERT_EQ(add_capture_file(capture_record("/c/after", 201, 400)), kSuccess);

    // The covering file has neither end inside [100, 200] and is not selected.
    EXPECT_EQ(paths(select_capture_files(make_query(100, 200))),
              (std::vector<std::string>{"/c/early", "/c/inside", "/c/late"}));
    EXPECT_EQ(paths(select_capture_files(make_query(260, 0))),
              (std::vector<std::string>{"/c/covering", "/c/late", "/c/after"}));
    EXPECT_EQ(paths(select_capture_files(make_query(0, 50))),
              (std::vector<std::string>{"/c/early"}));
}

TEST_F(CaptureIndexTest, IndexAndSourcesRestrictTheSelection) {
    ASSERT_EQ(add_capture_file(capture_record("/c/1", 10, 20, "a", "idx")), kSuccess);
    ASSERT_EQ(add_capture_file(capture_record("/c/2", 10, 20, "b", "idx")), kSuccess);
    ASSERT_EQ(add_capture_file(capture_record("/c/3", 10, 20, "c", "idx")), kSuccess);
    ASSERT_EQ(add_capture_file(capture_record("/c/4", 10, 20, "a", "other")), kSuccess);
    EXPECT_EQ(paths(select_capture_files(make_query(0, 0, "idx", {"a", "c"}))),
              (std::vector<std::string>{"/c/1", "/c/3"}));
    EXPECT_EQ(select_capture_files(make_query(0, 0, "other")).size(), 1u);
    EXPECT_EQ(select_capture_files(make_query(0, 0, "none")).size(), 0u);
    // An empty source in the list makes the select fail: nothing is found.
    EXPECT_TRUE(select_capture_files(make_query(0, 0, "", {"a", "", "b"})).empty());
    EXPECT_EQ(occurrences(log_text(), "Unable to select values from table TidewellCapture"), 1u);
}

TEST_F(CaptureIndexTest, QuotesAndSqlInTextsAreStoredFoundAndRemoved) {
    const std::string path = "/c/it's a file'; DELETE FROM TidewellCapture; --";
    const std::string index = "x' OR '1'='1";
    ASSERT_EQ(add_capture_file(capture_record("/c/other", 10, 20)), kSuccess);
    ASSERT_EQ(add_capture_file(capture_record(path, 10, 20, "o'brien", index)), kSuccess);
    ASSERT_EQ(add_capture_file(capture_record(path, 30, 40, "o'brien", index)), kSuccess);
    EXPECT_EQ(rows(kCaptureTable), 3);
    EXPECT_EQ(paths(select_capture_files(make_query(0, 0, index))),
              (std::vector<std::string>{path, path}));
    EXPECT_EQ(paths(select_capture_files(make_query(0, 0, "", {"o'brien"}))),
              (std::vector<std::string>{path, path}));
    // Every row of that path goes, and only those.
    EXPECT_EQ(remove_capture_file(path), kSuccess);
    EXPECT_EQ(paths(select_capture_files({})), (std::vector<std::string>{"/c/other"}));
    EXPECT_EQ(remove_capture_file(""), kDeleteFailed);
    EXPECT_EQ(count_capture_files(), 1u);
}

// The plan SQLite chooses for each kind of selection: no scan of the whole index.
TEST_F(CaptureIndexTest, SelectionsAndDeletionUseTheIndices) {
    auto plan = [this](const BoundStatement& where) {
        // Planned as the statement is prepared, before any value is bound.
        const std::string text =
            "EXPLAIN QUERY PLAN SELECT * FROM 'TidewellCapture' WHERE " + where.text;
        std::string steps;
        sqlite3* handle = nullptr;
        sqlite3_open(database_path.c_str(), &handle);
        sqlite3_exec(
            handle, text.c_str(),
            [](void* context, int columns, char** values, char**) {
                *static_cast<std::string*>(context) += std::string(values[columns - 1]) + "\n";
                return 0;
            },
            &steps, nullptr);
        sqlite3_close(handle);
        return steps;
    };
    for (const CaptureQuery& selection :
         {make_query(100, 200), make_query(100, 0), make_query(0, 200), make_query(0, 0, "idx"),
          make_query(0, 0, "", {"a", "b"})}) {
        std::string steps = plan(capture_where(selection));
        EXPECT_NE(steps.find("USING INDEX TidewellCapture_"), std::string::npos) << steps;
        EXPECT_EQ(steps.find("SCAN TidewellCapture\n"), std::string::npos) << steps;
    }
    std::string by_path = plan({"file_path = ?", {"/c/a"}});
    EXPECT_NE(by_path.find("USING INDEX TidewellCapture_file_path"), std::string::npos) << by_path;
}

TEST_F(CaptureIndexTest, SessionsAreSavedByUuidAndReadBackAsNone) {
    EXPECT_EQ(session_values("u-1", 1, 3, 10, 20, "Europe/Rome"),
              (std::vector<SqlValue>{"u-1", "1", "3", int64_t{10}, int64_t{20}, "Europe/Rome"}));
    EXPECT_EQ(save_session("u-1", 1, 3, 10, 20, "UTC"), kSuccess);
    EXPECT_EQ(save_session("u-1", 0, 3, 10, 30, "UTC"), kSuccess);
    EXPECT_EQ(rows(kSessionTable), 1);
    EXPECT_EQ(query("SELECT is_active || ',' || end_ts FROM Session;"), "0,30");
    EXPECT_EQ(save_session("", 1, 3, 10, 20, "UTC"), kInsertFailed);
    EXPECT_EQ(save_session("u-2", 1, -1, 10, 20, "UTC"), kInsertFailed);
    EXPECT_EQ(rows(kSessionTable), 1);
    EXPECT_EQ(occurrences(log_text(),
                          "SQL command: INSERT OR REPLACE INTO 'Session' (uuid, "
                          "is_active, user, start_ts, end_ts, timezone) VALUES ();"),
              20u);

    // The read names the User table, which SQLite refuses: no session is ever active.
    EXPECT_TRUE(read_sessions(1).empty());
    EXPECT_EQ(occurrences(log_text(), "Unable to select values from table User"), 1u);
}

TEST_F(CaptureIndexTest, UserIsReadById) {
    ASSERT_EQ(VistrelDatabase().insert(kUserTable, "id, name, permissions, last_seen",
                                       {int64_t{4}, "ann", "rw", int64_t{1573430400123456789}}),
              kSuccess);
    std::list<UserRecord> users = read_user(4);
    ASSERT_EQ(users.size(), 1u);
    EXPECT_EQ(users.front().name, "ann");
    EXPECT_EQ(users.front().permissions, "rw");
    EXPECT_EQ(users.front().last_seen, 1573430400123456789ull);
    EXPECT_TRUE(read_user(5).empty());
}

}  // namespace
}  // namespace vistrel::database
