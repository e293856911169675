// Uploads for analysis through the real program: admission, storage and the analysis run.
#include <gtest/gtest.h>

#include <filesystem>

#include "engine/standin_engine.h"
#include "support/server_process.h"
#include "support/temp_dir.h"

namespace vistrel::testing {
namespace {

const char* const kAnalysisJson =
    R"({"analyzer":{"dns":true,"arp_stats":true,"pkt_stats":true,"es_host":"127.0.0.1",)"
    R"("es_port":"9200","es_index":"vistrel","es_type":"tidewell","http_host":"127.0.0.1",)"
    R"("http_port":"8081"}})";

class UploadServerTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(server.start()) << server.output(); }
    void TearDown() override { client.get("/stopCaptureAll"); }

    std::string uploaded(const std::string& name) const {
        return server.home() + "/Documents/Vistrel/analyzed_captures/" + name;
    }

    ServerProcess server;
    StandinEngine engine{server.quellwick_root()};
    HttpClient client = server.client();
};

// Refused uploads never start the engine; the first good one does, and the next is refused
// while it runs.
TEST_F(UploadServerTest, UploadsAreCheckedThenAnalysedOneAtATime) {
    struct Case {
        std::vector<FormPart> parts;
        std::string answer;
    };
    const std::vector<Case> cases = {
        {{{"json", "{}", ""}, {"file", "x", "capture.PCAP"}},
         "\"general_message\":\"File format is not a capture file, impossible to analyze\","
         "\"command\":\"AnalyzeCapture\""},
        {{{"file", "x", "only.pcap"}},
         "\"general_message\":\"Missing JSON document. Unable to Start Analysis\","
         "\"command\":\"/analyzeCapture\""},
        {{{"json", "{}", ""}, {"notes", "hello", ""}}, "\"general_message\":\"Missing key: file\""},
        {{{"json", "{}", ""}, {"file", "plain field", ""}},
         "Couldn't find filename, unable to start Analysis"},
        // A name with folders lands in the upload folder all the same.
        {{{"file", "x", "../../escape.pcap"}, {"json", "[]", ""}},
         "Bad Json document for the given request"},
    };
    for (const auto& [parts, answer] : cases) {
        auto response = client.post_form("/analyzeCapture", parts);
        EXPECT_EQ(response.status, 400) << answer;
        EXPECT_NE(response.body.find(answer), std::string::npos) << response.body;
    }
    // No file field, or a file that can't be made (a folder has its name): nothing was
    // uploaded, an unknown error.
    std::filesystem::create_directories(uploaded("folder.pcap"));
    for (const auto& parts : std::vector<std::vector<FormPart>>{
             {{"json", kAnalysisJson, ""}},
             {{"json", kAnalysisJson, ""}, {"file", "x", "folder.pcap"}}}) {
        auto response = client.post_form("/analyzeCapture", parts);
        EXPECT_EQ(response.status, 500);
        EXPECT_EQ(response.body, "Unknown error");
    }
    EXPECT_TRUE(server.wait_for_log("Could not open upload file '" + uploaded("folder.pcap")));
    EXPECT_FALSE(std::filesystem::exists(uploaded("capture.PCAP")));
    EXPECT_TRUE(std::filesystem::exists(uploaded("escape.pcap")));
    EXPECT_FALSE(std::filesystem::exists(server.home() + "/Documents/escape.pcap"));

    // The same name again replaces the old file, even when the request text is unreadable.
    write_file(uploaded("a.pcapng"), "old contents");
    auto response = client.post_form("/analyzeCapture",
                                     {{"file", "new contents", "a.pcapng"}, {"json", "{not", ""}});
    EXPECT_EQ(response.status, 400);
    EXPECT_EQ(response.body,
              "{\"general_message\":\"Bad Json document for the given request\",\"command\":\"Bad "
              "Json\",\"analyzer\": {\"errors\":\"\",\"message\":\"Unable to execute command\"},"
              "\"interfaces\":[],\"tidewells\":[]}");
    EXPECT_EQ(read_file(uploaded("a.pcapng")), "new contents");
    const std::string log = server.log();
    size_t removal = log.find("File with the same name already exists, removing the old one: '" +
                              uploaded("a.pcapng") + "'");
    ASSERT_NE(removal, std::string::npos);
    EXPECT_LT(removal, log.find("File deleted: '" + uploaded("a.pcapng") + "'"));
    EXPECT_FALSE(engine.started());

    // Bytes that look like boundaries and line ends, and a request text longer than the post
    // processor's buffer, so that both arrive in pieces.
    std::string bytes;
    for (int i = 0; i < 40000; ++i) bytes += static_cast<char>(i % 251);
    bytes += std::string("\r\n--\r\n\0tail", 11);
    std::string json = kAnalysisJson;
    json.replace(json.find("\"http_host\":\"") + 13, 0, std::string(1500, 'h'));
    response =
        client.post_form("/analyzeCapture", {{"json", json, ""}, {"file", bytes, "trace one.cap"}});
    EXPECT_EQ(response.status, 200) << response.body;
    EXPECT_NE(response.body.find("\"general_message\":\"Correctly started analysis\""),
              std::string::npos);
    EXPECT_EQ(read_file(uploaded("trace one.cap")), bytes);
    auto arguments = engine.arguments();
    ASSERT_GE(arguments.size(), 4u);
    EXPECT_EQ(arguments[3], uploaded("trace one.cap"));
    EXPECT_NE(server.log().find("LOCAL request '/analyzeCapture'  "), std::string::npos);

    response = client.post_form("/analyzeCapture",
                                {{"json", kAnalysisJson, ""}, {"file", "other", "b.pcap"}});
    EXPECT_EQ(response.status, 503);
    EXPECT_EQ(
        response.body,
        "{\"general_message\":\"Vistrel is busy with another analysis, please retry "
        "later\",\"command\":\"AnalyzeCapture\",\"analyzer\": {\"errors\":\"It is already "
        "running\",\"message\":\"It is already running\"},\"interfaces\":[],\"tidewells\":[]}");
    EXPECT_FALSE(std::filesystem::exists(uploaded("b.pcap")));
}

}  // namespace
}  // namespace vistrel::testing
