// The capture-index endpoints and the database run modes through the real program.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <atomic>
#include <filesystem>
#include <thread>
#include <vector>

#include "support/elasticsearch_standin.h"
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

    void start() { ASSERT_TRUE(server.start(arguments())) << server.output(); }

    // The first column of the first row, read with a connection of the test's own.
    std::string query(const std::string& sql) const {
        sqlite3* handle = nullptr;
        EXPECT_EQ(sqlite3_open(database_path().c_str(), &handle), SQLITE_OK);
        std::string value;
        char* error = nullptr;
        int result = sqlite3_exec(
            handle, sql.c_str(),
            [](void* context, int, char** values, char**) {
                auto& text = *static_cast<std::string*>(context);
                if (text.empty()) text = values[0] != nullptr ? values[0] : "NULL";
                return 0;
            },
            &value, &error);
        EXPECT_EQ(result, SQLITE_OK) << (error != nullptr ? error : "");
        sqlite3_free(error);
        sqlite3_close(handle);
        return value;
    }

    long capture_rows() const { return std::stol(query("SELECT count(*) FROM TidewellCapture;")); }

    static std::string add_file_query(const std::string& path, const std::string& source = "dev1",
                                      const std::string& start = "1573430400000000000",
                                      const std::string& end = "1573430460000000000") {
        return "/addFile?file_path=" + url_encode(path) + "&start_ts=" + start + "&end_ts=" + end +
               "&n_packets=10&source=" + url_encode(source) + "&es_index=vistrel-1";
    }

    TempDir data;
    ServerProcess server;
};

TEST_F(CaptureIndexServerTest, RegisteredFilesSurviveARestart) {
    start();
    HttpClient http = server.client();
    for (const char* name : {"a", "b", "c"}) {
        HttpResponse response = http.get(add_file_query(data.file(name) + ".pcapng"));
        EXPECT_EQ(response.status, 200);
        EXPECT_EQ(response.body, "Received file " + data.file(name) +
                                     ".pcapng start_ts = 1573430400000000000 end_ts = "
                                     "1573430460000000000 sources = dev1 n_packets = 10");
    }
    EXPECT_EQ(server.stop(), 0);
    EXPECT_EQ(capture_rows(), 3);
    EXPECT_EQ(query("PRAGMA journal_mode;"), "wal");
    EXPECT_NE(server.log().find("Found 0 logs in the Database"), std::string::npos);

    start();
    EXPECT_NE(server.log().find("Found 3 logs in the Database"), std::string::npos);
    EXPECT_EQ(query("SELECT count(*) FROM sqlite_master WHERE type = 'table';"), "6");
}

TEST_F(CaptureIndexServerTest, ParallelRegistrationsLoseNothing) {
    constexpr int kClients = 8;
    constexpr int kFilesPerClient = 500;
    start();
    std::atomic<int> failures{0};
    std::vector<std::thread> clients;
    for (int client = 0; client < kClients; ++client) {
        clients.emplace_back([&, client] {
            HttpClient http = server.client();
            for (int file = 0; file < kFilesPerClient; ++file) {
                std::string path =
                    "/caps/" + std::to_string(client) + "/" + std::to_string(file) + ".pcapng";
                if (http.get(add_file_query(path, "dev" + std::to_string(client))).status != 200) {
                    ++failures;
                }
            }
        });
    }
    for (std::thread& client : clients) client.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(server.stop(), 0);
    EXPECT_EQ(capture_rows(), kClients * kFilesPerClient);
    EXPECT_EQ(query("SELECT count(DISTINCT file_path) FROM TidewellCapture;"),
              std::to_string(kClients * kFilesPerClient));
    EXPECT_EQ(server.log().find("Unable to insert values"), std::string::npos);
}

TEST_F(CaptureIndexServerTest, BadInputIsAnsweredAndTheServerStaysUp) {
    start();
    HttpClient http = server.client();
    HttpResponse response = http.get("/addFile?file_path=/caps/a.pcapng&start_ts=1");
    EXPECT_EQ(response.status, 400);
    EXPECT_EQ(response.body,
              "Error : missing basic fields within the get request (file_path, t0, source, "
              "es_index)");
    response = http.get(add_file_query("/caps/a.pcapng", "dev1", "soon", "2"));
    EXPECT_EQ(response.status, 400);
    EXPECT_EQ(response.body, "Error : Bad timestamps given");

    // A quote breaks the statement: refused by SQLite and logged, but the report was received.
    EXPECT_EQ(http.get(add_file_query("/caps/it's.pcapng")).status, 200);
    EXPECT_EQ(http.get(add_file_query("/caps/ok.pcapng", "o'clock")).status, 200);
    EXPECT_EQ(http.get("/cleanup?es_index=" + url_encode("vis'trel")).status, 200);

    response = http.post("/search", "this is not json");
    EXPECT_EQ(response.status, 400);
    EXPECT_EQ(response.body, "Unhandled search request");
    response = http.post("/search", R"({"target":"cs_address"})");
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(response.body, "[\"127.0.0.1\"]");

    EXPECT_EQ(http.get("/getStatus").status, 200);
    EXPECT_EQ(server.stop(), 0);
    EXPECT_EQ(capture_rows(), 0);
    std::string log = server.log();
    EXPECT_NE(log.find("Unable to insert values into table TidewellCapture"), std::string::npos);
    EXPECT_NE(log.find("Unable to select values from table TidewellCapture"), std::string::npos);
}

TEST_F(CaptureIndexServerTest, CleanupDeletesFilesAndRows) {
    start();
    HttpClient http = server.client();
    std::string kept = data.file("kept.pcapng");
    std::string removed = data.file("removed.pcapng");
    write_file(kept, "pcapng");
    write_file(removed, "pcapng");
    ASSERT_EQ(http.get(add_file_query(kept, "dev1")).status, 200);
    ASSERT_EQ(http.get(add_file_query(removed, "dev2")).status, 200);

    HttpResponse response = http.get("/cleanup?es_index=vistrel-1&source=dev2");
    EXPECT_EQ(response.body, "Unhandled situation for the given cleanup request. ");
    EXPECT_TRUE(std::filesystem::exists(removed));

    response = http.get("/cleanup?filesystem=true&es_index=vistrel-1&source=dev2");
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(response.body, "Successfully deleted 1 files.");
    EXPECT_FALSE(std::filesystem::exists(removed));
    EXPECT_TRUE(std::filesystem::exists(kept));
    EXPECT_EQ(server.stop(), 0);
    EXPECT_EQ(query("SELECT file_path FROM TidewellCapture;"), kept);
}

TEST_F(CaptureIndexServerTest, CleanupElasticsearchReachesTheSearchServer) {
    ElasticsearchStandIn search;
    start();
    HttpClient http = server.client();
    HttpResponse response =
        http.get("/cleanupElasticsearch?es_addr=" + url_encode(search.address()) +
                 "&source=eth0&start_ts=100&end_ts=200");
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(response.body, "Correctly performed Datasource cleanup");
    std::vector<RecordedRequest> requests = search.requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].method, "POST");
    EXPECT_EQ(requests[0].path, "/vistrel*/_delete_by_query");
    EXPECT_EQ(requests[0].header("content-type"), "application/json");

    std::string closed = "http://127.0.0.1:" + std::to_string(ElasticsearchStandIn::closed_port());
    response = http.get("/cleanupElasticsearch?es_addr=" + url_encode(closed));
    EXPECT_EQ(response.status, 503);
}

TEST_F(CaptureIndexServerTest, CleanupModeEmptiesTheDatabaseAndExits) {
    start();
    ASSERT_EQ(server.client().get(add_file_query("/caps/a.pcapng")).status, 200);
    EXPECT_EQ(server.stop(), 0);
    ASSERT_EQ(capture_rows(), 1);

    ProgramRun run = server.run(arguments("cleanup"));
    EXPECT_EQ(run.exit_code, 0) << run.output;
    EXPECT_EQ(capture_rows(), 0);
    EXPECT_NE(server.log().find("Flushed database"), std::string::npos);
}

TEST_F(CaptureIndexServerTest, CleanupModeExitsWithTheFailedDeletesCode) {
    // A database file without the tables: the first delete fails.
    sqlite3* handle = nullptr;
    ASSERT_EQ(sqlite3_open(database_path().c_str(), &handle), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(handle, "CREATE TABLE other (a);", nullptr, nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(handle);

    ProgramRun run = server.run(arguments("cleanup"));
    EXPECT_EQ(run.exit_code, 6) << run.output;
    EXPECT_NE(server.log().find("Error flushing database"), std::string::npos);
}

}  // namespace
}  // namespace vistrel::testing
