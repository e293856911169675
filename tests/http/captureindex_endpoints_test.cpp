#include <filesystem>
#include <map>

#include "database/captureindex.h"
#include "database/database_fixture.h"
#include "database/resultcodes.h"
#include "database/vistreldatabase.h"
#include "http/captureindexendpoints.h"
#include "support/elasticsearch_standin.h"

namespace vistrel::http {
namespace {

using testing::DatabaseFixture;
using testing::ElasticsearchStandIn;
using testing::RecordedRequest;

using Arguments = std::map<std::string, std::string>;

QueryArguments arguments(Arguments values) {
    return [values = std::move(values)](const std::string& key) -> std::optional<std::string> {
        auto found = values.find(key);
        if (found == values.end()) return std::nullopt;
        return found->second;
    };
}

class CaptureIndexEndpointsTest : public DatabaseFixture {
  protected:
    void SetUp() override {
        DatabaseFixture::SetUp();
        ASSERT_EQ(database::VistrelDatabase().create_schema(), database::kSuccess);
        // The test's folder is the capture folder the server owns.
        configuration().capture_path = dir.path();
    }
    void TearDown() override {
        configuration().capture_path.clear();
        configuration().security.capture_folders.clear();
        DatabaseFixture::TearDown();
    }

    // A capture file on disk, registered in the index.
    std::string capture(const std::string& name, uint64_t start, uint64_t end,
                        const std::string& source = "dev1", const std::string& es_index = "idx",
                        bool on_disk = true) {
        std::string path = dir.file(name);
        if (on_disk) testing::write_file(path, "pcapng");
        EXPECT_EQ(
            database::add_capture_file(testing::capture_record(path, start, end, source, es_index)),
            database::kSuccess);
        return path;
    }

    // GET /addFile with a complete set of arguments, changed as given (nullopt: left out).
    static Reply add_file(const std::map<std::string, std::optional<std::string>>& changes = {}) {
        Arguments values = {{"file_path", "/caps/a.pcapng"},
                            {"start_ts", "1573430400000000000"},
                            {"end_ts", "1573430460000000000"},
                            {"n_packets", "42"},
                            {"source", "dev1"},
                            {"es_index", "vistrel-1"}};
        for (const auto& [key, value] : changes) {
            if (value)
                values[key] = *value;
            else
                values.erase(key);
        }
        return handle_add_file(arguments(values));
    }
};

// The echo itself is the documented example's (ops/ops_server_test).
TEST_F(CaptureIndexEndpointsTest, AddFileRegistersTheFileAndEchoesIt) {
    add_file();
    EXPECT_EQ(query("SELECT file_path || ' ' || es_index || ' ' || start_ts || ' ' || n_packets "
                    "FROM TidewellCapture;"),
              "/caps/a.pcapng vistrel-1 1573430400000000000 42");

    // Backslashes are stored as slashes; no packet count reads 0.
    Reply reply = add_file({{"file_path", R"(C:\captures\a.pcapng)"}, {"n_packets", std::nullopt}});
    EXPECT_EQ(reply.status, 200);
    EXPECT_NE(reply.text.find("Received file C:/captures/a.pcapng "), std::string::npos);
    EXPECT_NE(reply.text.find("n_packets = 0"), std::string::npos);
    EXPECT_EQ(query("SELECT file_path FROM TidewellCapture;"), "C:/captures/a.pcapng");
}

TEST_F(CaptureIndexEndpointsTest, AddFileRefusesMissingFieldsBadNumbersAndEmptyTexts) {
    for (const char* field : {"file_path", "start_ts", "end_ts", "source", "es_index"}) {
        Reply reply = add_file({{field, std::nullopt}});
        EXPECT_EQ(reply.status, 400) << field;
        EXPECT_EQ(reply.text,
                  "Error : missing basic fields within the get request (file_path, t0, source, "
                  "es_index)");
    }
    EXPECT_NE(log_text().find("Unable to index new capture: missing basic fields within the get "
                              "request (file_path: [/caps/a.pcapng], start_ts: [(null)]"),
              std::string::npos);

    for (const char* bad : {"0", "-5", "abc", "12abc", "", "99999999999999999999"}) {
        for (const char* field : {"start_ts", "end_ts"}) {
            Reply reply = add_file({{field, bad}});
            EXPECT_EQ(reply.status, 400) << field << "=" << bad;
            EXPECT_EQ(reply.text, "Error : Bad timestamps given") << field << "=" << bad;
        }
    }
    Reply reply = add_file({{"n_packets", "-1"}});
    EXPECT_EQ(reply.status, 400);
    EXPECT_EQ(reply.text, "Error : Bad number of packets, cannot be a negative number");
    // Present but empty: answered as received, refused by the index and logged.
    EXPECT_EQ(add_file({{"source", ""}}).status, 200);
    EXPECT_EQ(occurrences(log_text(),
                          "Capture file '/caps/a.pcapng' not indexed: empty "
                          "file_path, source or es_index"),
              1u);
    EXPECT_EQ(rows(database::kCaptureTable), 0);
}

TEST_F(CaptureIndexEndpointsTest, CleanupThatDeletesNothingSaysWhy) {
    std::string path = capture("a.pcapng", 100, 200, "dev1", "idx");
    capture("b.pcapng", 500, 600);
    Reply reply = handle_cleanup(arguments({{"filesystem", "true"}, {"es_index", "other"}}));
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(reply.text, "There are not files to cleanup for the given request. ");
    // Without filesystem=true; unusable time ranges fall back to the index filter alone.
    for (const Arguments& values :
         {Arguments{}, Arguments{{"filesystem", "True"}},
          Arguments{{"es_index", "idx"}, {"start_ts", "0"}, {"end_ts", "250"}},
          Arguments{{"es_index", "idx"}, {"start_ts", "300"}, {"end_ts", "250"}},
          Arguments{{"es_index", "idx"}, {"start_ts", "x"}, {"end_ts", "250"}},
          Arguments{{"es_index", "idx"}, {"start_ts", "300"}}}) {
        reply = handle_cleanup(arguments(values));
        EXPECT_EQ(reply.status, 200);
        EXPECT_EQ(reply.text, "Unhandled situation for the given cleanup request. ");
    }
    EXPECT_TRUE(std::filesystem::exists(path));
    EXPECT_EQ(rows(database::kCaptureTable), 2);
    std::string log = log_text();
    EXPECT_EQ(occurrences(log, "Applying clean up to whole Datasource"), 2u);
    EXPECT_EQ(occurrences(log,
                          "Skipping timestamps for cleanup, not a valid value (start_ts or "
                          "end_ts is 0)"),
              2u);
    EXPECT_EQ(occurrences(log, "Skipping timestamps for cleanup, start_ts is bigger than end_ts"),
              1u);
    EXPECT_EQ(occurrences(log, "Found 2 files"), 6u);
}

TEST_F(CaptureIndexEndpointsTest, CleanupDeletesTheMatchingFilesAndRows) {
    std::string early = capture("early.pcapng", 100, 200, "dev1");
    std::string late = capture("late.pcapng", 500, 600, "dev1");
    std::string dev2 = capture("dev2.pcapng", 150, 250, "dev2");
    std::string other = capture("other.pcapng", 100, 200, "dev1", "other");
    Reply reply = handle_cleanup(arguments({{"filesystem", "true"},
                                            {"es_index", "idx"},
                                            {"source", "dev1"},
                                            {"start_ts", "50"},
                                            {"end_ts", "250"}}));
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(reply.text, "Successfully deleted 1 files.");
    EXPECT_FALSE(std::filesystem::exists(early));
    EXPECT_TRUE(std::filesystem::exists(late));

    reply = handle_cleanup(arguments({{"filesystem", "true"}, {"es_index", "idx"}}));
    EXPECT_EQ(reply.text, "Successfully deleted 2 files.");
    EXPECT_FALSE(std::filesystem::exists(late));
    EXPECT_FALSE(std::filesystem::exists(dev2));
    EXPECT_TRUE(std::filesystem::exists(other));
    EXPECT_EQ(query("SELECT group_concat(file_path) FROM TidewellCapture;"), other);
    std::string log = log_text();
    EXPECT_EQ(occurrences(log,
                          "Applying clean up with timestamps filters: start_ts = 50 , "
                          "end_ts = 250"),
              1u);
    EXPECT_EQ(occurrences(log, "Applying cleanup for es_index = idx , source = dev1"), 1u);
    EXPECT_EQ(occurrences(log, "Found 2 files"), 1u);
    EXPECT_EQ(occurrences(log, "Removed file " + late), 1u);
    EXPECT_EQ(occurrences(log, "Removed file '" + dev2 + "' from internal database"), 1u);
}

TEST_F(CaptureIndexEndpointsTest, CleanupCountsFilesAlreadyGoneAsErrors) {
    capture("present.pcapng", 100, 200);
    std::string gone = capture("gone.pcapng", 100, 200, "dev1", "idx", false);
    Reply reply = handle_cleanup(arguments({{"filesystem", "true"}}));
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(reply.text,
              "Successfully deleted 1 files. Found 1 errors on file deletion. Are some files "
              "opened or not available?");
    // The row of the missing file goes all the same.
    EXPECT_EQ(rows(database::kCaptureTable), 0);
    EXPECT_EQ(occurrences(log_text(), "Removing file " + gone + " failed with error code: 2"), 1u);

    capture("gone-too.pcapng", 100, 200, "dev1", "idx", false);
    // A folder is not a capture file: it stays, and counts as an error.
    std::string folder = capture("folder.pcapng", 100, 200, "dev1", "idx", false);
    std::filesystem::create_directory(folder);
    reply = handle_cleanup(arguments({{"filesystem", "true"}}));
    EXPECT_EQ(reply.status, 500);
    EXPECT_EQ(reply.text,
              "Unable to delete any of the files found for your request. They might have been "
              "deleted manually");
    EXPECT_TRUE(std::filesystem::is_directory(folder));
    EXPECT_EQ(rows(database::kCaptureTable), 0);
}

TEST_F(CaptureIndexEndpointsTest, CleanupDeletesOnlyBelowTheFoldersTheServerOwns) {
    testing::TempDir outside;
    testing::TempDir kept;
    const std::string victim = outside.file("victim.pcapng");
    testing::write_file(victim, "keep me");
    std::filesystem::create_symlink(victim, dir.file("link.pcapng"));
    std::filesystem::create_symlink(outside.path(), dir.file("linked-folder"));
    const std::vector<std::string> escapes = {
        victim, dir.file("link.pcapng"), dir.file("linked-folder/victim.pcapng"),
        dir.path() + "/../" + std::filesystem::path(outside.path()).filename().string() +
            "/victim.pcapng"};
    for (const std::string& path : escapes) {
        ASSERT_EQ(database::add_capture_file(testing::capture_record(path, 100, 200)),
                  database::kSuccess);
    }
    std::string inside = capture("inside.pcapng", 100, 200);
    // A folder named in the configuration is owned too.
    configuration().security.capture_folders = {kept.path()};
    const std::string elsewhere = kept.file("elsewhere.pcapng");
    testing::write_file(elsewhere, "pcapng");
    ASSERT_EQ(database::add_capture_file(testing::capture_record(elsewhere, 100, 200)),
              database::kSuccess);

    Reply reply = handle_cleanup(arguments({{"filesystem", "true"}}));
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(reply.text,
              "Successfully deleted 2 files. Found 4 errors on file deletion. Are some files "
              "opened or not available?");
    EXPECT_EQ(testing::read_file(victim), "keep me");
    EXPECT_TRUE(std::filesystem::is_symlink(dir.file("link.pcapng")));
    EXPECT_FALSE(std::filesystem::exists(inside));
    EXPECT_FALSE(std::filesystem::exists(elsewhere));
    // The rows of the refused files go, as for any file that cannot be deleted.
    EXPECT_EQ(rows(database::kCaptureTable), 0);
    for (const std::string& path : escapes) {
        EXPECT_EQ(occurrences(log_text(), "Removing file " + path +
                                              " refused: it lies outside the capture folders"),
                  1u)
            << path;
    }
}

TEST_F(CaptureIndexEndpointsTest, CleanupElasticsearchPicksTheRequestFromItsArguments) {
    ElasticsearchStandIn search;
    const std::string es = search.address();
    const std::string closed =
        "http://127.0.0.1:" + std::to_string(ElasticsearchStandIn::closed_port());
    const std::string done = "Correctly performed Datasource cleanup";
    struct Case {
        Arguments values;
        int status;
        std::string text;
        std::string request;  // "METHOD path body" reaching the stand-in, empty for none
    };
    const std::vector<Case> cases = {
        {{{"es_index", "idx"}},
         400,
         "Unable to perform Elasticsearch cleanup without an address",
         ""},
        {{{"es_addr", es}}, 200, done, "DELETE /vistrel* "},
        {{{"es_addr", es}, {"es_index", "vistrel-7"}}, 200, done, "DELETE /vistrel-7 "},
        {{{"es_addr", es}, {"es_index", "vistrel-7"}, {"start_ts", "100"}},
         500,
         "Internal Server Error while cleaning up Datasource",
         ""},
        {{{"es_addr", es}, {"start_ts", "100"}, {"end_ts", "200"}},
         200,
         done,
         "POST /vistrel*/_delete_by_query "
         "{\"query\": {\"range\" : {\"@timestamp\" : {\"gte\": \"100\",\"lte\": \"200\"}}}}"},
        {{{"es_addr", es}, {"es_index", "vistrel-7"}, {"source", "eth1"}, {"end_ts", "200"}},
         200,
         done,
         "POST /vistrel-7/_delete_by_query { \"query\": { \"match\": { \"INTERFACE\": \"eth1\" "
         "}}}"},
        {{{"es_addr", es}, {"es_index", "_security"}}, 400, "Error : Bad index name", ""},
        {{{"es_addr", es}, {"es_index", "../x"}}, 400, "Error : Bad index name", ""},
        {{{"es_addr", es}, {"es_index", "a/_doc/1?x="}}, 400, "Error : Bad index name", ""},
        // A quote in the source stays inside its JSON string.
        {{{"es_addr", es}, {"source", R"(x"}},"match_all":{)"}},
         200,
         done,
         R"(POST /vistrel*/_delete_by_query { "query": { "match": { "INTERFACE": "x\"}},\"match_all\":{" }}})"},
        {{{"es_addr", closed}},
         503,
         "Unable to perform Datasource cleanup. Something failed. Please check your Datasource "
         "address and your connection",
         ""},
    };
    for (const Case& test : cases) {
        search.clear();
        Reply reply = handle_cleanup_elasticsearch(arguments(test.values));
        EXPECT_EQ(reply.status, test.status) << test.request;
        EXPECT_EQ(reply.text, test.text) << test.request;
        std::string sent;
        for (const RecordedRequest& request : search.requests()) {
            sent += request.method + " " + request.path + " " + request.body;
        }
        EXPECT_EQ(sent, test.request);
    }
    std::string log = log_text();
    EXPECT_EQ(occurrences(log, "Bad request, missing Elastic address"), 1u);
    EXPECT_EQ(occurrences(log, "Flushing ALL indexes for elasticsearch at: '" + es + "'"), 1u);
    EXPECT_EQ(occurrences(log, "Flushing vistrel-7 index for elasticsearch at: '" + es + "'"), 1u);
    EXPECT_EQ(occurrences(log, "Flushing vistrel* inidex for " + es + " with some more filters..."),
              2u);
    EXPECT_EQ(occurrences(log, "Unable to flush " + closed), 1u);
}

TEST_F(CaptureIndexEndpointsTest, SearchAnswersTheServersAddressAndNothingElse) {
    configuration().host = "192.0.2.10";
    Reply reply = handle_search(R"({"type":"timeserie","target":"cs_address"})");
    configuration().host.clear();
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(reply.text, "[\"192.0.2.10\"]");
    EXPECT_EQ(
        occurrences(log_text(), "Got Grafana's Simple Json /search request to get my address"), 1u);
    for (const char* body :
         {R"({"target":"other"})", R"({"target":["cs_address"]})", "[]", "",
          R"({"query":"cs_address"})", "not json", R"({"target":"cs_address")"}) {
        Reply refused = handle_search(body);
        EXPECT_EQ(refused.status, 400) << body;
        EXPECT_EQ(refused.text, "Unhandled search request") << body;
    }
    // The reader says in the log, at error level, which field it missed.
    EXPECT_NE(log_text().find("ERROR: Exception parsing SimpleJsonSearch: JSON Parsing error: Non "
                              "optional field [target] not found"),
              std::string::npos);
}

}  // namespace
}  // namespace vistrel::http
