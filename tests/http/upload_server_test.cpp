// Uploads for analysis through the real program: admission, storage and the analysis run.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "engine/standin_engine.h"
#include "support/server_process.h"
#include "support/temp_dir.h"

namespace vistrel::testing {
namespace {

using std::chrono::milliseconds;

const char* const kBoundary = "----vistrelboundary";

const char* const kAnalysisJson =
    R"({"analyzer":{"dns":true,"arp_stats":true,"pkt_stats":true,"es_host":"127.0.0.1",)"
    R"("es_port":"9200","es_index":"vistrel","es_type":"tidewell","http_host":"127.0.0.1",)"
    R"("http_port":"8081"}})";

// A multipart body with the "json" field and a "file" field holding `content`.
std::string multipart_body(const std::string& json, const std::string& file_name,
                           const std::string& content) {
    std::string body = std::string("--") + kBoundary +
                       "\r\nContent-Disposition: form-data; name=\"json\"\r\n\r\n" + json +
                       "\r\n--" + kBoundary +
                       "\r\nContent-Disposition: form-data; name=\"file\"; filename=\"" +
                       file_name + "\"\r\nContent-Type: application/octet-stream\r\n\r\n" +
                       content + "\r\n--" + kBoundary + "--\r\n";
    return body;
}

// An upload sent by hand so that it can stay unfinished while other requests come in. Its
// analysis request is unreadable, so finishing it never starts the engine.
class SlowUpload {
  public:
    SlowUpload(int port, const std::string& file_name) {
        body_ = multipart_body("{not json", file_name, std::string(4096, 'p'));
        socket_ = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (connect(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            throw std::runtime_error("connect failed");
        }
        std::string head =
            "POST /analyzeCapture HTTP/1.1\r\nHost: 127.0.0.1\r\n"
            "Content-Type: multipart/form-data; boundary=" +
            std::string(kBoundary) + "\r\nContent-Length: " + std::to_string(body_.size()) +
            "\r\n\r\n";
        send_all(head + body_.substr(0, 1000));
    }
    ~SlowUpload() { abandon(); }

    // Hangs up without sending the rest.
    void abandon() {
        if (socket_ >= 0) close(socket_);
        socket_ = -1;
    }

    // Sends the rest and reads the whole answer.
    std::string finish() {
        send_all(body_.substr(1000));
        std::string answer;
        char buffer[4096];
        for (;;) {
            ssize_t count = recv(socket_, buffer, sizeof buffer, 0);
            if (count <= 0) break;
            answer.append(buffer, static_cast<size_t>(count));
            if (complete(answer)) break;
        }
        return answer;
    }

  private:
    static bool complete(const std::string& answer) {
        size_t head_end = answer.find("\r\n\r\n");
        if (head_end == std::string::npos) return false;
        size_t length_at = answer.find("Content-Length: ");
        if (length_at == std::string::npos || length_at > head_end) return false;
        size_t length = std::stoul(answer.substr(length_at + 16));
        return answer.size() >= head_end + 4 + length;
    }
    void send_all(const std::string& bytes) {
        size_t sent = 0;
        while (sent < bytes.size()) {
            ssize_t count = send(socket_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            if (count <= 0) throw std::runtime_error("send failed");
            sent += static_cast<size_t>(count);
        }
    }

    int socket_ = -1;
    std::string body_;
};

class UploadServerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(server.start()) << server.output();
        client.post_form("/analyzeCapture", {{"json", "{}", ""}});
        if (server.log().find("Iteratepost postprocessor made") == std::string::npos) {
            GTEST_SKIP() << "the HTTP core does not run multipart uploads yet";
        }
    }
    void TearDown() override { client.get("/stopCaptureAll"); }

    std::string uploaded(const std::string& name) const {
        return server.home() + "/Documents/Vistrel/analyzed_captures/" + name;
    }

    ServerProcess server;
    StandinEngine engine{server.quellwick_root()};
    HttpClient client = server.client();
};

TEST_F(UploadServerTest, UploadIsAnalysedAndBusyEngineRefusesTheNext) {
    auto response = client.post_form(
        "/analyzeCapture", {{"json", kAnalysisJson, ""}, {"file", "capture bytes", "a.cap"}});
    EXPECT_EQ(response.status, 200) << response.body;
    EXPECT_NE(response.body.find("\"general_message\":\"Correctly started analysis\""),
              std::string::npos);
    EXPECT_EQ(read_file(uploaded("a.cap")), "capture bytes");
    auto arguments = engine.arguments();
    ASSERT_GE(arguments.size(), 4u);
    EXPECT_EQ(arguments[3], uploaded("a.cap"));

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

TEST_F(UploadServerTest, ThirdConcurrentUploadIsRefused) {
    SlowUpload first(server.port(), "one.pcap");
    SlowUpload second(server.port(), "two.pcap");
    ASSERT_TRUE(server.wait_for_log("Number of uploading clients increased to: 2"));

    auto refused = client.post_form("/analyzeCapture",
                                    {{"json", kAnalysisJson, ""}, {"file", "x", "three.pcap"}});
    EXPECT_EQ(refused.status, 503);
    EXPECT_NE(refused.body.find("Vistrel is busy with another analysis, please retry later"),
              std::string::npos);
    EXPECT_NE(server.log().find("Max number of uploaders reached"), std::string::npos);

    EXPECT_NE(first.finish().find("Bad Json document for the given request"), std::string::npos);
    ASSERT_TRUE(server.wait_for_log("Number of uploading clients decreased to: 1"));
    auto accepted = client.post_form("/analyzeCapture",
                                     {{"json", "{not json", ""}, {"file", "x", "four.pcap"}});
    EXPECT_EQ(accepted.status, 400);
    EXPECT_NE(accepted.body.find("Bad Json document for the given request"), std::string::npos);
    EXPECT_TRUE(std::filesystem::exists(uploaded("four.pcap")));
    EXPECT_NE(second.finish().find("HTTP/1.1 400"), std::string::npos);
    EXPECT_FALSE(engine.started());
}

TEST_F(UploadServerTest, AbandonedUploadLeavesNoPartialFile) {
    SlowUpload upload(server.port(), "cut.pcap");
    ASSERT_TRUE(server.wait_for_log("Made new upload file at '" + uploaded("cut.pcap") + "'"));
    upload.abandon();
    ASSERT_TRUE(server.wait_for_log("Removed incomplete upload '" + uploaded("cut.pcap") + "'"));
    EXPECT_FALSE(std::filesystem::exists(uploaded("cut.pcap")));
}

}  // namespace
}  // namespace vistrel::testing
