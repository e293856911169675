// The real server with the real engine staged where `make run` puts it. The whole loop
// (live capture, files, index rows, downloads, analysis) is the demo's, which also runs as a
// test; these are the configurations around it.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "capturefilewriter.h"
#include "support/elasticsearch_standin.h"
#include "support/eventually.h"
#include "support/server_process.h"
#include "support/temp_dir.h"

namespace vistrel::testing {
namespace {

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
