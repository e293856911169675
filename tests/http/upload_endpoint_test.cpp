#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <stdlib.h>

#include <filesystem>
#include <stdexcept>

#include "engine/standin_engine.h"
#include "engine/watchkeepprocess.h"
#include "http/uploadendpoint.h"
#include "session/vistrelsession.h"
#include "startup/configuration.h"
#include "startup/logger.h"
#include "support/http_client.h"
#include "support/temp_dir.h"

namespace vistrel::http {
namespace {

using std::chrono::milliseconds;
using vistrel::testing::FormPart;
using vistrel::testing::HttpClient;
using vistrel::testing::read_file;
using vistrel::testing::write_file;

// A small server that hands multipart uploads to the upload iterator and the analysis handler
// the way the program's HTTP core does, so real multipart bodies reach them.
class UploadServer {
  public:
    explicit UploadServer(session::VistrelSession& session) : session_(session) {
        daemon_ = MHD_start_daemon(MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_THREAD_PER_CONNECTION,
                                   0, nullptr, nullptr, &UploadServer::on_request, this,
                                   MHD_OPTION_NOTIFY_COMPLETED, &UploadServer::on_completed, this,
                                   MHD_OPTION_SOCK_ADDR, loopback(), MHD_OPTION_END);
        if (daemon_ == nullptr) throw std::runtime_error("upload server did not start");
        port_ = MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_BIND_PORT)->port;
    }
    ~UploadServer() { MHD_stop_daemon(daemon_); }

    HttpClient client() const { return HttpClient("http://127.0.0.1:" + std::to_string(port_)); }

  private:
    struct Request {
        MHD_PostProcessor* processor = nullptr;
        UploadState upload;
    };

    static sockaddr* loopback() {
        static sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return reinterpret_cast<sockaddr*>(&address);
    }

    static MHD_Result on_request(void* self, MHD_Connection* connection, const char*, const char*,
                                 const char*, const char* data, size_t* size, void** slot) {
        auto* request = static_cast<Request*>(*slot);
        if (request == nullptr) {
            request = new Request();
            request->processor =
                MHD_create_post_processor(connection, 512, upload_iterator, &request->upload);
            *slot = request;
            return request->processor != nullptr ? MHD_YES : MHD_NO;
        }
        if (*size != 0) {
            MHD_post_process(request->processor, data, *size);
            *size = 0;
            return MHD_YES;
        }
        request->upload.close_file();
        Reply reply = handle_analyze_capture(static_cast<UploadServer*>(self)->session_,
                                             request->upload, true);
        MHD_Response* response = MHD_create_response_from_buffer(
            reply.text.size(), reply.text.data(), MHD_RESPMEM_MUST_COPY);
        MHD_Result queued = MHD_queue_response(connection, reply.status, response);
        MHD_destroy_response(response);
        return queued;
    }

    static void on_completed(void*, MHD_Connection*, void** slot, MHD_RequestTerminationCode) {
        auto* request = static_cast<Request*>(*slot);
        if (request == nullptr) return;
        if (request->processor != nullptr) MHD_destroy_post_processor(request->processor);
        delete request;
        *slot = nullptr;
    }

    session::VistrelSession& session_;
    MHD_Daemon* daemon_ = nullptr;
    uint16_t port_ = 0;
};

class UploadTest : public ::testing::Test {
  protected:
    void SetUp() override {
        setenv("QUELLWICK_ROOT", temp.path().c_str(), 1);
        configuration().capture_path = temp.file("captures");
        configuration().analyze_capture_path = temp.file("analyzed");
        configuration().database = temp.file("vistrel-cs.db");
        logger().open(temp.file("upload.log"));
        logger().set_level(kLogTrace);
        ASSERT_FALSE(engine::WatchkeepProcess::is_running()) << "another watchkeep runs";
    }
    void TearDown() override {
        process.stop();
        logger().close();
        unsetenv("QUELLWICK_ROOT");
    }
    std::string uploaded(const std::string& name) const { return temp.file("analyzed/" + name); }

    testing::TempDir temp;
    testing::StandinEngine standin{temp.path()};
    engine::EngineTiming fast{milliseconds(500), 5, milliseconds(100), 7};
    engine::WatchkeepProcess process{fast};
    session::VistrelSession session{process};
    UploadServer server{session};
};

// Bytes that look like multipart boundaries and line ends, longer than one parser buffer.
std::string capture_bytes() {
    std::string bytes;
    for (int i = 0; i < 40000; ++i) bytes += static_cast<char>(i % 251);
    return bytes + "\r\n--\r\n\0tail";
}

TEST_F(UploadTest, GoodUploadIsStoredAndAnalysed) {
    // A request text longer than the post processor's 512-byte buffer arrives in pieces.
    std::string json = R"({"analyzer":{"dns":false,"arp_stats":false,"pkt_stats":false,)"
                       R"("es_host":"127.0.0.1","es_port":"9200","es_index":"vistrel",)"
                       R"("es_type":"tidewell","http_host":")" +
                       std::string(1500, 'h') + R"(","http_port":"8081"}})";
    auto response = server.client().post_form(
        "/analyzeCapture", {{"json", json, ""}, {"file", capture_bytes(), "trace one.cap"}});
    EXPECT_EQ(response.status, 200) << response.body;
    EXPECT_NE(response.body.find("\"general_message\":\"Correctly started analysis\""),
              std::string::npos);
    EXPECT_EQ(read_file(uploaded("trace one.cap")), capture_bytes());
    auto arguments = standin.arguments();
    ASSERT_GE(arguments.size(), 4u);
    EXPECT_EQ(arguments[3], uploaded("trace one.cap"));
    std::string log = read_file(temp.file("upload.log"));
    EXPECT_NE(log.find("LOCAL request '/analyzeCapture'  "), std::string::npos);
    EXPECT_NE(log.find("Starting capture analysis for " + uploaded("trace one.cap")),
              std::string::npos);
}

TEST_F(UploadTest, SameNameReplacesTheOldFile) {
    std::filesystem::create_directories(temp.file("analyzed"));
    write_file(uploaded("a.pcapng"), "old contents");
    auto response = server.client().post_form(
        "/analyzeCapture", {{"file", "new contents", "a.pcapng"}, {"json", "{not json", ""}});
    EXPECT_EQ(response.status, 400);
    EXPECT_EQ(response.body,
              "{\"general_message\":\"Bad Json document for the given request\",\"command\":\"Bad "
              "Json\",\"analyzer\": {\"errors\":\"\",\"message\":\"Unable to execute command\"},"
              "\"interfaces\":[],\"tidewells\":[]}");
    EXPECT_EQ(read_file(uploaded("a.pcapng")), "new contents");
    std::string log = read_file(temp.file("upload.log"));
    size_t removal = log.find("File with the same name already exists, removing the old one: '" +
                              uploaded("a.pcapng") + "'");
    ASSERT_NE(removal, std::string::npos);
    EXPECT_LT(removal, log.find("File deleted: '" + uploaded("a.pcapng") + "'"));
    EXPECT_FALSE(standin.started());
}

TEST_F(UploadTest, RefusedUploads) {
    auto response = server.client().post_form("/analyzeCapture",
                                              {{"json", "{}", ""}, {"file", "x", "capture.PCAP"}});
    EXPECT_EQ(response.status, 400);
    EXPECT_NE(response.body.find("\"general_message\":\"File format is not a capture file, "
                                 "impossible to analyze\",\"command\":\"AnalyzeCapture\""),
              std::string::npos);
    EXPECT_FALSE(std::filesystem::exists(uploaded("capture.PCAP")));

    response = server.client().post_form("/analyzeCapture", {{"file", "x", "only.pcap"}});
    EXPECT_EQ(response.status, 400);
    EXPECT_NE(response.body.find("\"general_message\":\"Missing JSON document. Unable to Start "
                                 "Analysis\",\"command\":\"/analyzeCapture\""),
              std::string::npos);

    response =
        server.client().post_form("/analyzeCapture", {{"json", "{}", ""}, {"notes", "hello", ""}});
    EXPECT_EQ(response.status, 400);
    EXPECT_NE(response.body.find("\"general_message\":\"Missing key: file\""), std::string::npos);

    response = server.client().post_form("/analyzeCapture",
                                         {{"json", "{}", ""}, {"file", "plain field", ""}});
    EXPECT_EQ(response.status, 400);
    EXPECT_NE(response.body.find("Couldn't find filename, unable to start Analysis"),
              std::string::npos);

    // A name with folders lands in the upload folder all the same.
    response = server.client().post_form("/analyzeCapture",
                                         {{"file", "x", "../../escape.pcap"}, {"json", "[]", ""}});
    EXPECT_EQ(response.status, 400);
    EXPECT_TRUE(std::filesystem::exists(uploaded("escape.pcap")));
    EXPECT_FALSE(std::filesystem::exists(temp.file("escape.pcap")));
    EXPECT_FALSE(standin.started());
}

}  // namespace
}  // namespace vistrel::http
