// A capture through the real server and the real engine, capturing lo, with the recording
// Elasticsearch stand-in. The full loop (files, index rows, downloads, analysis) is the demo's,
// which also runs as a test; these are the cases around it.
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <set>
#include <thread>

#include "host/processes.h"
#include "support/elasticsearch_standin.h"
#include "support/server_process.h"
#include "watchkeep/loopback_traffic.h"

namespace vistrel::testing {
namespace {

using std::chrono::milliseconds;

template <typename Condition>
bool eventually(Condition done, int seconds = 20) {
    for (int i = 0; i < seconds * 10; ++i) {
        if (done()) return true;
        std::this_thread::sleep_for(milliseconds(100));
    }
    return done();
}

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

}  // namespace
}  // namespace vistrel::testing
