// What hostile or careless clients can do to the running server: idle and half-sent requests,
// large bodies, many connections from one address, stalled uploads, missing credentials, TLS.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "support/server_process.h"
#include "support/temp_dir.h"

namespace vistrel::testing {
namespace {

constexpr int kTimeoutSeconds = 2;
constexpr int kPerClient = 4;

// A raw TCP connection to the server from a chosen loopback address.
class RawConnection {
  public:
    RawConnection(int port, const char* from = "127.0.0.1") {
        socket_ = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in local{};
        local.sin_family = AF_INET;
        inet_pton(AF_INET, from, &local.sin_addr);
        bind(socket_, reinterpret_cast<sockaddr*>(&local), sizeof local);
        sockaddr_in server{};
        server.sin_family = AF_INET;
        server.sin_port = htons(static_cast<uint16_t>(port));
        server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connected_ = connect(socket_, reinterpret_cast<sockaddr*>(&server), sizeof server) == 0;
        timeval wait{20, 0};
        setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    }
    ~RawConnection() { close(socket_); }
    RawConnection(const RawConnection&) = delete;
    RawConnection& operator=(const RawConnection&) = delete;

    bool send_text(const std::string& bytes) {
        return connected_ && send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
                                 static_cast<ssize_t>(bytes.size());
    }
    // Everything until the server closes (or 20 s pass: then "TIMED OUT" is appended).
    std::string read_to_end() {
        std::string answer;
        char buffer[4096];
        for (;;) {
            ssize_t count = recv(socket_, buffer, sizeof buffer, 0);
            if (count > 0) {
                answer.append(buffer, static_cast<size_t>(count));
                continue;
            }
            if (count < 0 && errno == EAGAIN) answer += "TIMED OUT";
            return answer;
        }
    }

  private:
    int socket_ = -1;
    bool connected_ = false;
};

class LimitsServerTest : public ::testing::Test {
  protected:
    // Starts the server with `security` as the configuration's "security" section.
    // Waits for the log, not for /getStatus, which may need credentials.
    void start(const std::string& security) {
        const std::string config = server.sandbox().file("limits.yml");
        write_file(config, "general:\n  mode: debug\nserver:\n  host: 127.0.0.1\n  port: " +
                               std::to_string(server.port()) + "\nsecurity:\n" + security);
        server.launch({"--config", config});
        ASSERT_TRUE(server.wait_for_log("Using Port number: " + std::to_string(server.port())))
            << server.output();
    }
    void start_limited() {
        start("  connection_timeout: " + std::to_string(kTimeoutSeconds) +
              "\n  max_connections_per_client: " + std::to_string(kPerClient) +
              "\n  max_json_body: 1000\n");
    }

    std::string uploaded(const std::string& name) const {
        return server.home() + "/Documents/Vistrel/analyzed_captures/" + name;
    }

    ServerProcess server;
};

TEST_F(LimitsServerTest, IdleAndHalfSentRequestsAreDroppedAfterTheTimeOut) {
    start_limited();
    RawConnection idle(server.port());
    RawConnection half(server.port());
    ASSERT_TRUE(half.send_text("GET /getStatus HTTP/1.1\r\nHo"));
    EXPECT_EQ(idle.read_to_end(), "");
    EXPECT_EQ(half.read_to_end(), "");
    EXPECT_EQ(server.client().get("/getStatus").status, 200);
}

TEST_F(LimitsServerTest, LargeJsonBodiesAreRefusedWith413) {
    start_limited();
    RawConnection announced(server.port());
    ASSERT_TRUE(
        announced.send_text("POST /search HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\n"
                            "Content-Length: 1073741824\r\n\r\n{\"target\":"));
    std::string answer = announced.read_to_end();
    EXPECT_EQ(answer.rfind("HTTP/1.1 413", 0), 0u) << answer;
    EXPECT_NE(answer.find("\r\n\r\nError : Request body too large"), std::string::npos) << answer;

    RawConnection chunked(server.port());
    std::string chunk(600, ' ');
    ASSERT_TRUE(chunked.send_text(
        "POST /startCapture HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n258\r\n" +
        chunk + "\r\n258\r\n" + chunk + "\r\n0\r\n\r\n"));
    answer = chunked.read_to_end();
    EXPECT_EQ(answer.rfind("HTTP/1.1 413", 0), 0u) << answer;

    // Up to the limit a body is read as before.
    std::string padded = R"({"target":"cs_address","padding":")" + std::string(900, 'p') + "\"}";
    HttpResponse fits = server.client().post("/search", padded);
    EXPECT_EQ(fits.status, 200);
    EXPECT_EQ(fits.body, "[\"127.0.0.1\"]");
}

TEST_F(LimitsServerTest, OneAddressCannotTakeEveryConnection) {
    // The default time-out: the held connections stay while the test runs, however slowly.
    start("  max_connections_per_client: " + std::to_string(kPerClient) + "\n");
    std::vector<std::unique_ptr<RawConnection>> held;
    for (int i = 0; i < kPerClient; ++i) {
        held.push_back(std::make_unique<RawConnection>(server.port(), "127.0.0.2"));
    }
    // One more from that address is closed unanswered; other addresses are served.
    RawConnection extra(server.port(), "127.0.0.2");
    extra.send_text("GET /getStatus HTTP/1.1\r\nHost: x\r\n\r\n");
    EXPECT_EQ(extra.read_to_end(), "");
    RawConnection other(server.port(), "127.0.0.3");
    ASSERT_TRUE(other.send_text("GET /getStatus HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n"));
    EXPECT_NE(other.read_to_end().find("Centralized Server Alive"), std::string::npos);
    EXPECT_EQ(server.client().get("/getStatus").status, 200);
}

TEST_F(LimitsServerTest, StalledUploadsAreDroppedAndTheNextOneIsAccepted) {
    start_limited();
    const std::string boundary = "b0undary";
    auto stall = [&](RawConnection& connection, const std::string& name) {
        return connection.send_text(
            "POST /analyzeCapture HTTP/1.1\r\nHost: x\r\nContent-Type: multipart/form-data; "
            "boundary=" +
            boundary + "\r\nContent-Length: 100000\r\n\r\n--" + boundary +
            "\r\nContent-Disposition: form-data; name=\"file\"; filename=\"" + name + "\"\r\n\r\n" +
            std::string(2000, 'p'));
    };
    RawConnection first(server.port());
    RawConnection second(server.port());
    ASSERT_TRUE(stall(first, "one.pcap"));
    ASSERT_TRUE(stall(second, "two.pcap"));
    ASSERT_TRUE(server.wait_for_log("Made new upload file at '" + uploaded("two.pcap") + "'"));
    const std::vector<FormPart> form = {{"file", "pcap", "three.pcap"}};
    EXPECT_EQ(server.client().post_form("/analyzeCapture", form).status, 503);

    EXPECT_EQ(first.read_to_end(), "");
    EXPECT_EQ(second.read_to_end(), "");
    for (const char* name : {"one.pcap", "two.pcap"}) {
        ASSERT_TRUE(server.wait_for_log("Removed incomplete upload '" + uploaded(name) + "'"));
    }
    ASSERT_TRUE(server.wait_for_log("Number of uploading clients decreased to: 0"));
    EXPECT_FALSE(std::filesystem::exists(uploaded("one.pcap")));
    EXPECT_FALSE(std::filesystem::exists(uploaded("two.pcap")));
    // Without its analysis request the upload is stored and refused for what it lacks.
    HttpResponse next = server.client().post_form("/analyzeCapture", form);
    EXPECT_EQ(next.status, 400);
    EXPECT_NE(next.body.find("Missing JSON document. Unable to Start Analysis"), std::string::npos);
}

TEST_F(LimitsServerTest, ConfiguredCredentialsAreRequiredOfEveryRequest) {
    start("  basic_user: grafana\n  basic_password: s3cret\n  bearer_token: t0ken\n");
    HttpClient client = server.client();
    HttpResponse refused = client.get("/getStatus");
    EXPECT_EQ(refused.status, 401);
    EXPECT_EQ(refused.body, "Authentication required");
    EXPECT_NE(refused.headers["www-authenticate"].find("realm=\"Vistrel\""), std::string::npos);
    for (const char* header :
         {"Basic Z3JhZmFuYTpzM2NyZXQ=", "Bearer t0ken", "bearer t0ken"}) {  // grafana:s3cret
        EXPECT_EQ(client.get("/getStatus", {std::string("Authorization: ") + header}).status, 200)
            << header;
    }
    for (const char* header : {"Basic Z3JhZmFuYTp3cm9uZw==", "Bearer t0ke", "Bearer t0kenX",
                               "Basic !!!", "Digest x", ""}) {  // grafana:wrong
        EXPECT_EQ(client.get("/getStatus", {std::string("Authorization: ") + header}).status, 401)
            << header;
    }
    // Refused before anything is done: no row, no deletion.
    EXPECT_EQ(client.get("/addFile?file_path=/a&start_ts=1&end_ts=2&source=s&es_index=i").status,
              401);
}

TEST_F(LimitsServerTest, TrustedLoopbackNeedsNoCredentials) {
    start("  bearer_token: t0ken\n  trust_loopback: true\n");
    EXPECT_EQ(server.client().get("/getStatus").status, 200);
}

TEST_F(LimitsServerTest, ConfiguredCertificateMakesTheServerSpeakHttpsOnly) {
    const std::string key = server.sandbox().file("server.key");
    const std::string certificate = server.sandbox().file("server.crt");
    const std::string command =
        "openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj "
        "/CN=127.0.0.1 -keyout " +
        key + " -out " + certificate + " >/dev/null 2>&1";
    ASSERT_EQ(std::system(command.c_str()), 0);
    start("  tls_certificate: " + certificate + "\n  tls_key: " + key + "\n");
    HttpClient https("https://127.0.0.1:" + std::to_string(server.port()));
    HttpResponse alive = https.get("/getStatus", {}, certificate);
    EXPECT_EQ(alive.status, 200);
    EXPECT_EQ(alive.body, "Centralized Server Alive");
    EXPECT_EQ(server.client().get("/getStatus").status, 0);
}

}  // namespace
}  // namespace vistrel::testing
