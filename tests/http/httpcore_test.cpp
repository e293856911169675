// The HTTP core of the running server: dispatch, reply conventions, static files, methods.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "raw_connection.h"
#include "support/server_process.h"

namespace vistrel {
namespace {

using testing::ServerProcess;
using testing::write_file;

// One server for the whole suite: these checks do not change its state.
class HttpCoreTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        server_ = new ServerProcess();
        ASSERT_TRUE(server_->start());
    }
    static void TearDownTestSuite() {
        delete server_;
        server_ = nullptr;
    }
    static testing::HttpClient client() { return server_->client(); }
    static ServerProcess* server_;
};

ServerProcess* HttpCoreTest::server_ = nullptr;

// The replies of the known routes are the documented examples' (ops/ops_server_test).
TEST_F(HttpCoreTest, RequestsAreLoggedAndAnsweredWithoutCrossOriginHeaders) {
    testing::HttpResponse response = client().get("/getStatus");
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(response.headers.count("access-control-allow-origin"), 0u);
    EXPECT_TRUE(server_->wait_for_log("Request for url: '/getStatus'"));
}

TEST_F(HttpCoreTest, UnknownRequestsAnswerByMethod) {
    testing::HttpResponse info = client().get("/info?x=1");
    EXPECT_EQ(info.status, 404);
    EXPECT_EQ(info.body, "<html><body>Error : Unknown request /info</body></html>");

    testing::HttpResponse post = client().post("/nosuch", "{}");
    EXPECT_EQ(post.status, 400);
    EXPECT_EQ(post.body, "Error : Unknown request /nosuch");

    testing::HttpResponse options = client().request("OPTIONS", "/getStatus");
    EXPECT_EQ(options.status, 400);
    EXPECT_EQ(options.body, "Method OPTIONS is not supported");

    for (const char* method : {"PUT", "DELETE", "PATCH"}) {
        testing::HttpResponse other = client().request(method, "/getStatus", "body");
        EXPECT_EQ(other.status, 400) << method;
        EXPECT_EQ(other.body, "Error : Unknown request") << method;
    }
}

TEST_F(HttpCoreTest, StaticFilesAnywhereUnderImg) {
    std::string content(100000, '\0');
    for (size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i * 7);
    write_file(server_->sandbox().file("x/img/logo.png"), content);
    testing::HttpResponse found = client().get("/x/img/logo.png");
    EXPECT_EQ(found.status, 200);
    EXPECT_EQ(found.body, content);

    // A folder opens like a file but cannot be read: it is not found either (the reply to a
    // missing file is the documented example's).
    EXPECT_EQ(client().get("/x/img/").status, 404);

    // A link that stays below the working folder is followed; nothing leads out of it, and the
    // server's own database and log are never served.
    std::filesystem::create_directories(server_->sandbox().file("img"));
    std::filesystem::create_symlink("../x", server_->sandbox().file("img/inner"));
    std::filesystem::create_symlink("/", server_->sandbox().file("img/root"));
    EXPECT_EQ(client().get("/img/inner/img/logo.png").body, content);
    for (const char* path :
         {"/img/../../../../../../etc/passwd", "/img/%2e%2e/%2e%2e/%2e%2e/%2e%2e/etc/passwd",
          "/img/..%2f..%2f..%2f..%2f..%2fetc%2fpasswd", "/img/root/etc/passwd", "/img//etc/passwd",
          "/img/../../../../proc/self/environ", "/img/../tmp/vistrelserveres.log",
          "/img/../quellwick/vistrel/centralizedserver/vistrel-cs.db"}) {
        testing::HttpResponse refused = client().get(path);
        EXPECT_EQ(refused.status, 404) << path;
        EXPECT_EQ(refused.body.find("root:"), std::string::npos) << path;
    }
}

TEST_F(HttpCoreTest, JsonBodyIsCollectedWholeAcrossChunks) {
    std::string body =
        "{\"padding\":\"" + std::string(200000, 'p') + "\",\"target\":\"cs_address\"}";
    std::vector<std::string> pieces = {
        "POST /search HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\n"
        "Transfer-Encoding: chunked\r\nConnection: close\r\n\r\n"};
    for (size_t at = 0; at < body.size(); at += 30000) {
        std::string chunk = body.substr(at, 30000);
        char size[32];
        std::snprintf(size, sizeof size, "%zx\r\n", chunk.size());
        pieces.push_back(size + chunk + "\r\n");
    }
    pieces.push_back("0\r\n\r\n");
    testing::RawConnection connection(server_->port());
    for (const std::string& piece : pieces) {
        ASSERT_TRUE(connection.send_text(piece));
        usleep(20000);  // separate reads on the server side
    }
    const std::string answer = connection.read_to_end();
    EXPECT_NE(answer.find("HTTP/1.1 200"), std::string::npos) << answer.substr(0, 200);
    EXPECT_NE(answer.find("[\"127.0.0.1\"]"), std::string::npos) << answer.substr(0, 300);
}

TEST_F(HttpCoreTest, GarbageOnTheSocketDoesNotTakeTheServerDown) {
    for (const std::string& garbage :
         {std::string("NOT HTTP AT ALL\r\n\r\n"), std::string("GET /\x01\x02 HTTP/9.9\r\n\r\n"),
          std::string("POST /search HTTP/1.1\r\nContent-Length: 99999999999999999999\r\n\r\n"),
          std::string(70000, 'A')}) {
        testing::RawConnection connection(server_->port());
        connection.send_text(garbage);
        connection.end_sending();
        connection.read_to_end();
    }
    EXPECT_EQ(client().get("/getStatus").status, 200);
}

}  // namespace
}  // namespace vistrel
