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

using database::CaptureFileRecord;
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
    }

    // A capture file on disk, registered in the index.
    std::string capture(const std::string& name, uint64_t start, uint64_t end,
                        const std::string& source = "dev1", const std::string& es_index = "idx",
                        bool on_disk = true) {
        std::string path = dir.file(name);
        if (on_disk) testing::write_file(path, "pcapng");
        CaptureFileRecord record;
        record.file_path = path;
        record.source = source;
        record.es_index = es_index;
        record.start_ts = start;
        record.end_ts = end;
        EXPECT_EQ(database::add_capture_file(record), database::kSuccess);
        return path;
    }

    static Arguments file_arguments() {
        return {{"file_path", "/caps/a.pcapng"},
                {"start_ts", "1573430400000000000"},
                {"end_ts", "1573430460000000000"},
                {"n_packets", "42"},
                {"source", "dev1"},
                {"es_index", "vistrel-1"}};
    }
};

TEST_F(CaptureIndexEndpointsTest, AddFileRegistersTheFileAndEchoesIt) {
    Reply reply = handle_add_file(arguments(file_arguments()));
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(reply.text,
              "Received file /caps/a.pcapng start_ts = 1573430400000000000 end_ts = "
              "1573430460000000000 sources = dev1 n_packets = 42");
    std::list<CaptureFileRecord> files = database::select_capture_files({});
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(files.front().file_path, "/caps/a.pcapng");
    EXPECT_EQ(files.front().es_index, "vistrel-1");
    EXPECT_EQ(files.front().start_ts, 1573430400000000000ull);
    EXPECT_EQ(files.front().n_packets, 42u);
}

TEST_F(CaptureIndexEndpointsTest, AddFileStoresBackslashesAsSlashes) {
    Arguments values = file_arguments();
    values["file_path"] = R"(C:\captures\a.pcapng)";
    values.erase("n_packets");
    Reply reply = handle_add_file(arguments(values));
    EXPECT_EQ(reply.status, 200);
    EXPECT_NE(reply.text.find("Received file C:/captures/a.pcapng "), std::string::npos);
    EXPECT_NE(reply.text.find("n_packets = 0"), std::string::npos);
    EXPECT_EQ(query("SELECT file_path FROM TidewellCapture;"), "C:/captures/a.pcapng");
}

TEST_F(CaptureIndexEndpointsTest, AddFileRefusesMissingFieldsAndBadNumbers) {
    for (const char* field : {"file_path", "start_ts", "end_ts", "source", "es_index"}) {
        Arguments values = file_arguments();
        values.erase(field);
        Reply reply = handle_add_file(arguments(values));
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
            Arguments values = file_arguments();
            values[field] = bad;
            Reply reply = handle_add_file(arguments(values));
            EXPECT_EQ(reply.status, 400) << field << "=" << bad;
            EXPECT_EQ(reply.text, "Error : Bad timestamps given") << field << "=" << bad;
        }
    }
    Arguments values = file_arguments();
    values["n_packets"] = "-1";
    Reply reply = handle_add_file(arguments(values));
    EXPECT_EQ(reply.status, 400);
    EXPECT_EQ(reply.text, "Error : Bad number of packets, cannot be a negative number");
    EXPECT_EQ(rows(database::kCaptureTable), 0);
}

TEST_F(CaptureIndexEndpointsTest, AddFileThatCannotBeStoredIsAnsweredAndLogged) {
    Arguments values = file_arguments();
    values["file_path"] = "/caps/it's.pcapng";
    EXPECT_EQ(handle_add_file(arguments(values)).status, 200);
    EXPECT_EQ(occurrences(log_text(), "Unable to insert values into table TidewellCapture"), 1u);

    // Present but empty: an invalid record, which the index refuses without SQL.
    values = file_arguments();
    values["source"] = "";
    EXPECT_EQ(handle_add_file(arguments(values)).status, 200);
    EXPECT_EQ(occurrences(log_text(),
                          "Capture file '/caps/a.pcapng' not indexed: empty "
                          "file_path, source or es_index"),
              1u);
    EXPECT_EQ(rows(database::kCaptureTable), 0);
}

TEST_F(CaptureIndexEndpointsTest, CleanupWithoutMatchingFilesSaysSo) {
    capture("a.pcapng", 100, 200, "dev1", "idx");
    Reply reply = handle_cleanup(arguments({{"filesystem", "true"}, {"es_index", "other"}}));
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(reply.text, "There are not files to cleanup for the given request. ");
    EXPECT_EQ(rows(database::kCaptureTable), 1);
}

TEST_F(CaptureIndexEndpointsTest, CleanupWithoutFilesystemTrueDeletesNothing) {
    std::string path = capture("a.pcapng", 100, 200);
    for (const Arguments& values : {Arguments{}, Arguments{{"filesystem", "True"}}}) {
        Reply reply = handle_cleanup(arguments(values));
        EXPECT_EQ(reply.status, 200);
        EXPECT_EQ(reply.text, "Unhandled situation for the given cleanup request. ");
    }
    EXPECT_TRUE(std::filesystem::exists(path));
    EXPECT_EQ(rows(database::kCaptureTable), 1);
    EXPECT_EQ(occurrences(log_text(), "Applying clean up to whole Datasource"), 2u);
}

TEST_F(CaptureIndexEndpointsTest, CleanupDeletesTheMatchingFilesAndRows) {
    std::string a = capture("a.pcapng", 100, 200, "dev1", "idx");
    std::string b = capture("b.pcapng", 150, 250, "dev2", "idx");
    std::string c = capture("c.pcapng", 100, 200, "dev1", "other");
    Reply reply = handle_cleanup(arguments({{"filesystem", "true"}, {"es_index", "idx"}}));
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(reply.text, "Successfully deleted 2 files.");
    EXPECT_FALSE(std::filesystem::exists(a));
    EXPECT_FALSE(std::filesystem::exists(b));
    EXPECT_TRUE(std::filesystem::exists(c));
    EXPECT_EQ(query("SELECT group_concat(file_path) FROM TidewellCapture;"), c);
    std::string log = log_text();
    EXPECT_EQ(occurrences(log, "Applying cleanup for es_index = idx "), 1u);
    EXPECT_EQ(occurrences(log, "Found 2 files"), 1u);
    EXPECT_EQ(occurrences(log, "Removed file " + a), 1u);
    EXPECT_EQ(occurrences(log, "Removed file '" + b + "' from internal database"), 1u);
}

TEST_F(CaptureIndexEndpointsTest, CleanupFiltersBySourceAndTimeRange) {
    std::string early = capture("early.pcapng", 100, 200, "dev1");
    std::string late = capture("late.pcapng", 500, 600, "dev1");
    std::string other = capture("other.pcapng", 100, 200, "dev2");
    Reply reply = handle_cleanup(arguments({{"filesystem", "true"},
                                            {"es_index", "idx"},
                                            {"source", "dev1"},
                                            {"start_ts", "50"},
                                            {"end_ts", "250"}}));
    EXPECT_EQ(reply.text, "Successfully deleted 1 files.");
    EXPECT_FALSE(std::filesystem::exists(early));
    EXPECT_TRUE(std::filesystem::exists(late));
    EXPECT_TRUE(std::filesystem::exists(other));
    std::string log = log_text();
    EXPECT_EQ(occurrences(log,
                          "Applying clean up with timestamps filters: start_ts = 50 , "
                          "end_ts = 250"),
              1u);
    EXPECT_EQ(occurrences(log, "Applying cleanup for es_index = idx , source = dev1"), 1u);
}

TEST_F(CaptureIndexEndpointsTest, CleanupIgnoresUnusableTimeRanges) {
    capture("a.pcapng", 100, 200);
    capture("b.pcapng", 500, 600);
    // Each of these falls back to the index filter alone: both files match.
    for (const Arguments& times :
         {Arguments{{"start_ts", "0"}, {"end_ts", "250"}},
          Arguments{{"start_ts", "300"}, {"end_ts", "250"}},
          Arguments{{"start_ts", "x"}, {"end_ts", "250"}}, Arguments{{"start_ts", "300"}}}) {
        Arguments values = times;
        values["es_index"] = "idx";
        EXPECT_EQ(handle_cleanup(arguments(values)).text,
                  "Unhandled situation for the given cleanup request. ");
    }
    std::string log = log_text();
    EXPECT_EQ(occurrences(log,
                          "Skipping timestamps for cleanup, not a valid value (start_ts or "
                          "end_ts is 0)"),
              2u);
    EXPECT_EQ(occurrences(log, "Skipping timestamps for cleanup, start_ts is bigger than end_ts"),
              1u);
    EXPECT_EQ(occurrences(log, "Found 2 files"), 4u);
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

class CleanupElasticsearchTest : public CaptureIndexEndpointsTest {
  protected:
    Reply cleanup(Arguments values) {
        values.emplace("es_addr", search.address());
        return handle_cleanup_elasticsearch(arguments(values));
    }
    RecordedRequest only_request() const {
        std::vector<RecordedRequest> requests = search.requests();
        EXPECT_EQ(requests.size(), 1u);
        return requests.empty() ? RecordedRequest{} : requests.front();
    }

    ElasticsearchStandIn search;
};

TEST_F(CleanupElasticsearchTest, AddressIsRequired) {
    Reply reply = handle_cleanup_elasticsearch(arguments({{"es_index", "idx"}}));
    EXPECT_EQ(reply.status, 400);
    EXPECT_EQ(reply.text, "Unable to perform Elasticsearch cleanup without an address");
    EXPECT_EQ(occurrences(log_text(), "Bad request, missing Elastic address"), 1u);
    EXPECT_TRUE(search.requests().empty());
}

TEST_F(CleanupElasticsearchTest, AddressAloneDeletesEveryProductIndex) {
    Reply reply = cleanup({});
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(reply.text, "Correctly performed Datasource cleanup");
    RecordedRequest request = only_request();
    EXPECT_EQ(request.method, "DELETE");
    EXPECT_EQ(request.path, "/vistrel*");
    EXPECT_EQ(occurrences(log_text(),
                          "Flushing ALL indexes for elasticsearch at: '" + search.address() + "'"),
              1u);
}

TEST_F(CleanupElasticsearchTest, IndexAloneDeletesThatIndex) {
    search.answer(404, "{}");
    EXPECT_EQ(cleanup({{"es_index", "vistrel-7"}}).status, 200);
    EXPECT_EQ(only_request().path, "/vistrel-7");
    EXPECT_EQ(occurrences(log_text(), "Flushing vistrel-7 index for elasticsearch at: '" +
                                          search.address() + "'"),
              1u);
}

TEST_F(CleanupElasticsearchTest, IndexWithOneTimeIsRefused) {
    Reply reply = cleanup({{"es_index", "vistrel-7"}, {"start_ts", "100"}});
    EXPECT_EQ(reply.status, 500);
    EXPECT_EQ(reply.text, "Internal Server Error while cleaning up Datasource");
    EXPECT_TRUE(search.requests().empty());
}

TEST_F(CleanupElasticsearchTest, TimesOrSourceDeleteByQuery) {
    EXPECT_EQ(cleanup({{"start_ts", "100"}, {"end_ts", "200"}}).status, 200);
    RecordedRequest request = only_request();
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.path, "/vistrel*/_delete_by_query");
    EXPECT_EQ(request.body,
              "{\"query\": {\"range\" : {\"@timestamp\" : {\"gte\": \"100\",\"lte\": \"200\"}}}}");
    EXPECT_EQ(occurrences(log_text(), "Flushing vistrel* inidex for " + search.address() +
                                          " with some more filters..."),
              1u);

    search.clear();
    EXPECT_EQ(cleanup({{"es_index", "vistrel-7"}, {"source", "eth1"}, {"end_ts", "200"}}).status,
              200);
    request = only_request();
    EXPECT_EQ(request.path, "/vistrel-7/_delete_by_query");
    EXPECT_EQ(request.body, "{ \"query\": { \"match\": { \"INTERFACE\": \"eth1\" }}}");
}

TEST_F(CleanupElasticsearchTest, UnreachableServerAnswers503) {
    std::string address = "http://127.0.0.1:" + std::to_string(ElasticsearchStandIn::closed_port());
    Reply reply = handle_cleanup_elasticsearch(arguments({{"es_addr", address}}));
    EXPECT_EQ(reply.status, 503);
    EXPECT_EQ(reply.text,
              "Unable to perform Datasource cleanup. Something failed. Please check your "
              "Datasource address and your connection");
    EXPECT_EQ(occurrences(log_text(), "Unable to flush " + address), 1u);
}

TEST_F(CaptureIndexEndpointsTest, SearchAnswersTheServersAddress) {
    configuration().host = "192.0.2.10";
    Reply reply = handle_search(R"({"type":"timeserie","target":"cs_address"})");
    configuration().host.clear();
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(reply.text, "[\"192.0.2.10\"]");
    EXPECT_EQ(
        occurrences(log_text(), "Got Grafana's Simple Json /search request to get my address"), 1u);
}

TEST_F(CaptureIndexEndpointsTest, SearchRefusesAnythingElse) {
    for (const char* body : {R"({"target":"other"})", R"({"target":["cs_address"]})", "[]", "",
                             "not json", R"({"target":"cs_address")"}) {
        Reply reply = handle_search(body);
        EXPECT_EQ(reply.status, 400) << body;
        EXPECT_EQ(reply.text, "Unhandled search request") << body;
    }
}

}  // namespace
}  // namespace vistrel::http
