// What hostile or careless clients can do to the running server: idle and half-sent requests,
// large bodies, many connections from one address, stalled uploads, missing credentials, TLS.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "raw_connection.h"
#include "support/server_process.h"
#include "support/temp_dir.h"

namespace vistrel::testing {
namespace {

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

    std::string uploaded(const std::string& name) const {
        return server.home() + "/Documents/Vistrel/analyzed_captures/" + name;
    }

    ServerProcess server;
};

// Bodies beyond the limit are refused; idle and half-sent requests and stalled uploads are
// dropped after the time-out, while other clients are served all along.
TEST_F(LimitsServerTest, LargeBodiesAreRefusedAndSlowClientsDropped) {
    start("  connection_timeout: 2\n  max_json_body: 1000\n");
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

    RawConnection idle(server.port());
    RawConnection half(server.port());
    ASSERT_TRUE(half.send_text("GET /getStatus HTTP/1.1\r\nHo"));
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
    // Two uploads at a time.
    const std::vector<FormPart> form = {{"file", "pcap", "three.pcap"}};
    HttpResponse third = server.client().post_form("/analyzeCapture", form);
    EXPECT_EQ(third.status, 503);
    EXPECT_NE(third.body.find("Vistrel is busy with another analysis, please retry later"),
              std::string::npos);
    EXPECT_TRUE(server.wait_for_log("Max number of uploaders reached"));

    EXPECT_EQ(idle.read_to_end(), "");
    EXPECT_EQ(half.read_to_end(), "");
    EXPECT_EQ(first.read_to_end(), "");
    EXPECT_EQ(second.read_to_end(), "");
    for (const char* name : {"one.pcap", "two.pcap"}) {
        ASSERT_TRUE(server.wait_for_log("Removed incomplete upload '" + uploaded(name) + "'"));
        EXPECT_FALSE(std::filesystem::exists(uploaded(name)));
    }
    ASSERT_TRUE(server.wait_for_log("Number of uploading clients decreased to: 0"));
    // Without its analysis request the upload is stored and refused for what it lacks.
    HttpResponse next = server.client().post_form("/analyzeCapture", form);
    EXPECT_EQ(next.status, 400);
    EXPECT_NE(next.body.find("Missing JSON document. Unable to Start Analysis"), std::string::npos);
}

// One address cannot take every connection; every request, from any address, must bring the
// configured credentials.
TEST_F(LimitsServerTest, ConnectionsPerAddressAreLimitedAndCredentialsRequired) {
    // The default time-out: the held connections stay while the test runs, however slowly.
    start(
        "  max_connections_per_client: 4\n  basic_user: grafana\n  basic_password: s3cret\n"
        "  bearer_token: t0ken\n");
    std::vector<std::unique_ptr<RawConnection>> held;
    for (int i = 0; i < 4; ++i) {
        held.push_back(std::make_unique<RawConnection>(server.port(), "127.0.0.2"));
    }
    // One more from that address is closed unanswered; other addresses are served.
    RawConnection extra(server.port(), "127.0.0.2");
    extra.send_text("GET /getStatus HTTP/1.1\r\nHost: x\r\nAuthorization: Bearer t0ken\r\n\r\n");
    EXPECT_EQ(extra.read_to_end(), "");
    RawConnection other(server.port(), "127.0.0.3");
    ASSERT_TRUE(
        other.send_text("GET /getStatus HTTP/1.1\r\nHost: x\r\nAuthorization: Bearer "
                        "t0ken\r\nConnection: close\r\n\r\n"));
    EXPECT_NE(other.read_to_end().find("Centralized Server Alive"), std::string::npos);

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

// With a certificate only HTTPS is spoken; a trusted loopback client needs no credentials.
TEST_F(LimitsServerTest, CertificateMakesTheServerSpeakHttpsOnly) {
    const std::string key = server.sandbox().file("server.key");
    const std::string certificate = server.sandbox().file("server.crt");
    const std::string command =
        "openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj "
        "/CN=127.0.0.1 -keyout " +
        key + " -out " + certificate + " >/dev/null 2>&1";
    ASSERT_EQ(std::system(command.c_str()), 0);
    start("  tls_certificate: " + certificate + "\n  tls_key: " + key +
          "\n  bearer_token: t0ken\n  trust_loopback: true\n");
    HttpClient https("https://127.0.0.1:" + std::to_string(server.port()));
    HttpResponse alive = https.get("/getStatus", {}, certificate);
    EXPECT_EQ(alive.status, 200);
    EXPECT_EQ(alive.body, "Centralized Server Alive");
    EXPECT_EQ(server.client().get("/getStatus").status, 0);
}

}  // namespace
}  // namespace vistrel::testing
