// The capture-index endpoints and the database run modes through the real program. The reply
// texts are checked on the handlers themselves; here: the wiring, the start-up, the run mode and
// writers in parallel.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "database/sqlite_query.h"
#include "support/server_process.h"

namespace vistrel::testing {
namespace {

class CaptureIndexServerTest : public ::testing::Test {
  protected:
    std::string database_path() const { return data.file("index.db"); }

    std::vector<std::string> arguments(const std::string& mode = "debug") const {
        return {"--mode",     mode,           "--host",
                "127.0.0.1",  "--port",       std::to_string(server.port()),
                "--database", database_path()};
    }

    std::string query(const std::string& sql) const { return sqlite_value(database_path(), sql); }
    long capture_rows() const { return std::stol(query("SELECT count(*) FROM TidewellCapture;")); }

    TempDir data;
    ServerProcess server;
};

// Writers in parallel; then the rows outlive the server until the cleanup mode empties the
// table. Quotes and SQL in the texts are the index's own test's (database/capture_index_test);
// what the cleanup requests delete, the handlers' (captureindex_endpoints_test).
TEST_F(CaptureIndexServerTest, RowsAreStoredSafelyUntilTheCleanupModeEmptiesThem) {
    ASSERT_TRUE(server.start(arguments())) << server.output();
    constexpr int kClients = 8;
    constexpr int kFilesPerClient = 500;
    std::atomic<int> failures{0};
    std::vector<std::thread> clients;
    for (int client = 0; client < kClients; ++client) {
        clients.emplace_back([&, client] {
            HttpClient http = server.client();
            const std::string source = "dev" + std::to_string(client);
            for (int file = 0; file < kFilesPerClient; ++file) {
                const std::string query = "/addFile?file_path=/caps/" + source + "/" +
                                          std::to_string(file) +
                                          ".pcapng&start_ts=1573430400000000000&end_ts="
                                          "1573430460000000000&n_packets=10&source=" +
                                          source + "&es_index=vistrel-1";
                if (http.get(query).status != 200) ++failures;
            }
        });
    }
    for (std::thread& client : clients) client.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(query("SELECT count(DISTINCT file_path) FROM TidewellCapture;"),
              std::to_string(kClients * kFilesPerClient));
    EXPECT_EQ(server.log().find("Unable to insert values"), std::string::npos);

    EXPECT_EQ(server.stop(), 0);
    EXPECT_EQ(capture_rows(), kClients * kFilesPerClient);
    EXPECT_NE(server.log().find("Found 0 logs in the Database"), std::string::npos);
    ProgramRun run = server.run(arguments("cleanup"));
    EXPECT_EQ(run.exit_code, 0) << run.output;
    EXPECT_EQ(capture_rows(), 0);
    EXPECT_NE(server.log().find("Flushed database"), std::string::npos);
}

TEST_F(CaptureIndexServerTest, CleanupModeExitsWithTheFailedDeletesCode) {
    // A database file without the tables: the first delete fails.
    query("CREATE TABLE other (a);");
    ProgramRun run = server.run(arguments("cleanup"));
    EXPECT_EQ(run.exit_code, 6) << run.output;
    EXPECT_NE(server.log().find("Error flushing database"), std::string::npos);
}

}  // namespace
}  // namespace vistrel::testing
