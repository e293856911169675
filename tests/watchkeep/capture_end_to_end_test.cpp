// A capture through the real server and the real engine, capturing lo, with the recording
// Elasticsearch stand-in. The full loop (files, index rows, downloads, analysis) is the demo's,
// which also runs as a test; these are the cases around it.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <set>
#include <thread>

#include "capturefilewriter.h"
#include "host/processes.h"
#include "support/elasticsearch_standin.h"
#include "support/eventually.h"
#include "support/server_process.h"
#include "support/temp_dir.h"
#include "watchkeep/loopback_traffic.h"

namespace vistrel::testing {
namespace {

using std::chrono::milliseconds;

class CaptureEndToEndTest : public ::testing::Test {
  protected:
    void SetUp() override {
        const std::string folder = server.quellwick_root() + "/vistrel/watchkeep";
        std::filesystem::copy_file(WATCHKEEP_PATH, folder + "/watchkeep",
                                   std::filesystem::copy_options::overwrite_existing);
        server.set_env("VISTREL_FILE_SECONDS", "2");
        ASSERT_TRUE(server.start()) << server.output();
        ASSERT_FALSE(host::process_exists("watchkeep")) << "another engine runs on this machine";
    }

    std::string start_body(const std::string& interfaces) const {
        return R"({"interfaces":)" + interfaces +
               R"(,"analyzer":{"dns":false,"arp_stats":false,"pkt_stats":false,"es_host":"127.0.0.1","es_port":")" +
               std::to_string(search.port()) +
               R"(","es_index":"vistrel","es_type":"tidewell","http_host":"127.0.0.1","http_port":")" +
               std::to_string(server.port()) + "\"}}";
    }

    // The flow records received, parsed.
    std::vector<nlohmann::json> flow_records() const {
        std::vector<nlohmann::json> records;
        for (const auto& [index, documents] : search.bulk_documents()) {
            if (!index.starts_with("vistrel-")) continue;
            for (const auto& text : documents) {
                auto record = nlohmann::json::parse(text, nullptr, false);
                if (record.is_object() && record.contains("L4_DST_PORT")) records.push_back(record);
            }
        }
        return records;
    }
    static bool has_port(const nlohmann::json& record, uint16_t port) {
        const auto& value = record["L4_DST_PORT"];
        return value.is_number() ? value.get<int>() == port : value == std::to_string(port);
    }

    ElasticsearchStandIn search;
    ServerProcess server;
    HttpClient client = server.client();
};

TEST_F(CaptureEndToEndTest, ANetworkInterfaceThatDoesNotExistIsNamedAndNothingStarts) {
    auto reply = client.post(
        "/startCapture",
        start_body(R"([{"name":"lo","id":0,"mac":""},{"name":"nosuch9","id":1,"mac":""}])"));
    EXPECT_EQ(reply.status, 500);
    EXPECT_NE(reply.body.find("{\"name\":\"nosuch9\",\"errors\":\"Network interface 'nosuch9' "
                              "does not exist on this machine\""),
              std::string::npos)
        << reply.body;
    EXPECT_EQ(server.log().find("Executing Watchkeep Command"), std::string::npos);
}

TEST_F(CaptureEndToEndTest, RecordsWaitOnDiskWhileElasticsearchIsAwayAndGoOutOnce) {
    const std::string body = start_body(R"([{"name":"lo","id":0,"mac":""}])");
    auto reply = client.post("/startCapture", body);
    ASSERT_EQ(reply.status, 200) << reply.body;
    LoopbackTraffic before;
    before.send(50);
    std::this_thread::sleep_for(milliseconds(1000));
    // Gone in the middle and still gone at the stop: what is pending waits on disk.
    search.stop();
    LoopbackTraffic during;
    during.send(50);
    reply = client.get("/stopCaptureAll");
    EXPECT_EQ(reply.status, 200) << reply.body;
    EXPECT_NE(server.log().find("Killed watchkeep gracefully"), std::string::npos);
    EXPECT_EQ(server.log().find("Going to try hand kill"), std::string::npos);
    const std::string spool = server.home() + "/Documents/Vistrel/captures/.watchkeep-spool";
    EXPECT_FALSE(std::filesystem::is_empty(spool));

    // The next capture's engine sends them first.
    search.start();
    reply = client.post("/startCapture", body);
    ASSERT_EQ(reply.status, 200) << reply.body;
    reply = client.get("/stopCaptureAll");
    EXPECT_EQ(reply.status, 200) << reply.body;

    size_t of_before = 0;
    size_t of_during = 0;
    std::set<std::string> distinct;
    for (const auto& record : flow_records()) {
        of_before += has_port(record, before.port()) ? 1 : 0;
        of_during += has_port(record, during.port()) ? 1 : 0;
        EXPECT_EQ(record["INTERFACE"], "lo");
        for (const char* field : {"@timestamp", "IP_SRC", "IP_DST", "L4_SRC_PORT", "IP_PROTOCOL",
                                  "MAC_SRC", "MAC_DST", "ETH_TYPE"}) {
            EXPECT_TRUE(record.contains(field)) << field << " missing in " << record.dump();
        }
        EXPECT_TRUE(distinct.insert(record.dump()).second) << "sent twice: " << record.dump();
    }
    EXPECT_EQ(of_before, 1u);
    EXPECT_EQ(of_during, 1u) << "the flow seen while Elasticsearch was away";
}

// With TLS on, the server hands the engine an https address and its certificate, and an
// analysis registers its file through them: nothing of an upload is lost to the encryption.
TEST(CaptureOverTlsTest, AnAnalysisRegistersItsFileWithAnHttpsOnlyServer) {
    ElasticsearchStandIn search;
    ServerProcess server;
    std::filesystem::copy_file(WATCHKEEP_PATH,
                               server.quellwick_root() + "/vistrel/watchkeep/watchkeep",
                               std::filesystem::copy_options::overwrite_existing);
    const std::string key = server.sandbox().file("server.key");
    const std::string certificate = server.sandbox().file("server.crt");
    ASSERT_EQ(std::system(("openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=127.0.0.1 "
                           "-keyout " +
                           key + " -out " + certificate + " >/dev/null 2>&1")
                              .c_str()),
              0);
    const std::string port = std::to_string(server.port());
    const std::string config = server.sandbox().file("tls.yml");
    write_file(config, "general:\n  mode: debug\nserver:\n  host: 127.0.0.1\n  port: " + port +
                           "\nsecurity:\n  tls_certificate: " + certificate +
                           "\n  tls_key: " + key + "\n");
    server.launch({"--config", config});
    ASSERT_TRUE(server.wait_for_log("Using Port number: " + port)) << server.output();

    PcapBuilder pcap;
    for (uint32_t i = 0; i < 5; ++i) {
        pcap.record(1'700'000'000 + i, 0, udp_frame(100, "192.0.2.1", "192.0.2.2", 4000, 53));
    }
    const std::string analyzer =
        R"({"analyzer":{"dns":true,"arp_stats":true,"pkt_stats":true,"es_host":"127.0.0.1","es_port":")" +
        std::to_string(search.port()) +
        R"(","es_index":"vistrel","es_type":"tidewell","http_host":"127.0.0.1","http_port":")" +
        port + "\"}}";
    HttpClient https("https://127.0.0.1:" + port);
    auto reply =
        https.post_form("/analyzeCapture",
                        {{"json", analyzer, ""}, {"file", pcap.bytes(), "tls.pcap"}}, certificate);
    EXPECT_EQ(reply.status, 200) << reply.body;
    EXPECT_TRUE(eventually(
        [&] {
            return https.get("/metrics", {}, certificate)
                       .body.find("vistrel_capture_files_registered_total 1") != std::string::npos;
        },
        30))
        << server.log();
}

}  // namespace
}  // namespace vistrel::testing
