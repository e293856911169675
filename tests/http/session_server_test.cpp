// A capture session through the real program: two simulated devices, the stand-in capture
// engine and a stand-in Elasticsearch.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>

#include "engine/standin_engine.h"
#include "support/elasticsearch_standin.h"
#include "support/eventually.h"
#include "support/server_process.h"
#include "support/temp_dir.h"

namespace vistrel::testing {
namespace {

bool has_capture_file(const std::string& folder) {
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(folder, error))
        if (entry.path().extension() == ".pcapng") return true;
    return false;
}

const char* const kNotRunning =
    "{\"analyzer\": {\"running\":\"false\",\"error\":\"false\",\"message\":\"You can run a "
    "capture session or import a capture file\"}}";
const char* const kRunning =
    "{\"analyzer\": {\"running\":\"true\",\"error\":\"false\",\"message\":\"To start a new "
    "session stop your current job or wait until its finished\"}}";

class SessionServerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        write_file(scratch.file("sim.yml"),
                   "devices:\n"
                   "  - mac: \"00:1b:c5:00:00:11\"\n"
                   "    model: \"Tidewell Pro\"\n"
                   "    packets_per_second: 2000\n"
                   "  - mac: \"00:1b:c5:00:00:12\"\n"
                   "    model: \"Tidewell Pro 10G\"\n"
                   "    packets_per_second: 2000\n"
                   "    firmware_update_seconds: 2\n");
        server.set_env("TIDEWELL_SIM_CONFIG", scratch.file("sim.yml"));
        ASSERT_TRUE(server.start({"--mode", "debug", "--host", "127.0.0.1", "--port",
                                  std::to_string(server.port()), "--loglevel", "debug"}))
            << server.output();
        ASSERT_TRUE(eventually([this] {
            auto devices = nlohmann::json::parse(client.get("/getDevices").body, nullptr, false);
            return devices.is_object() && devices["devices"].size() == 2;
        })) << client.get("/getDevices").body;
    }

    std::string capture_folder(const std::string& name) const {
        return server.home() + "/Documents/Vistrel/captures/" + name;
    }

    std::string start_body() const {
        return R"({"tidewells":[
            {"model":"Tidewell Pro","friendly_name":"left","mac":"00:1b:c5:00:00:11",
             "file_name":"left","capture_time":1,"max_nr_files":100,"loop_capture":0,
             "keep_files":1},
            {"model":"Tidewell Pro 10G","friendly_name":"right","mac":"00:1b:c5:00:00:12",
             "file_name":"right","capture_time":1,"max_nr_files":100,"keep_files":1}],
          "analyzer":{"dns":false,"arp_stats":true,"pkt_stats":false,"es_host":"127.0.0.1",
             "es_port":")" +
               std::to_string(search.port()) +
               R"(","es_index":"vistrel","es_type":"tidewell","http_host":"127.0.0.1",
             "http_port":"8081"}})";
    }

    TempDir scratch;
    ElasticsearchStandIn search;
    ServerProcess server;
    StandinEngine engine{server.quellwick_root()};
    HttpClient client = server.client();
};

// Idle before the start is the documented example's (ops/ops_server_test).
TEST_F(SessionServerTest, CaptureOnTwoDevicesStartsAndStops) {
    // Both replies list the two devices the same way.
    const std::string tail =
        "\"analyzer\": {\"errors\":\"\",\"message\":\"Sucessfully executed command\"},"
        "\"interfaces\":[],\"tidewells\":[{\"model\":\"Tidewell Pro\",\"mac\":"
        "\"00:1b:c5:00:00:11\",\"name\":\"left\",\"errors\":\"\",\"message\":\"Successfully "
        "executed command\"},{\"model\":\"Tidewell Pro 10G\",\"mac\":\"00:1b:c5:00:00:12\","
        "\"name\":\"right\",\"errors\":\"\",\"message\":\"Successfully executed command\"}]}";
    auto started = client.post("/startCapture", start_body());
    EXPECT_EQ(started.status, 200);
    EXPECT_EQ(started.body,
              "{\"general_message\":\"Correctly started capture\",\"command\":\"start\"," + tail);
    ASSERT_EQ(search.requests().size(), 1u);
    EXPECT_EQ(search.requests()[0].path, "/_cluster/health");

    const std::string bulk = "http://127.0.0.1:" + std::to_string(search.port()) + "/_bulk";
    EXPECT_EQ(
        engine.arguments(),
        (std::vector<std::string>{server.quellwick_root() + "/vistrel/watchkeep/watchkeep", "/c",
                                  "-P", "left;" + capture_folder("left") + ";1;100;1", "-P",
                                  "right;" + capture_folder("right") + ";1;100;1", "--dump-flows",
                                  "es;tidewell;vistrel;" + bulk + ";", "--http-tidewell-index",
                                  "es;tidewell;" + bulk + ";", "--dns-mode", "3", "--arp-es"}));

    EXPECT_TRUE(eventually([this] {
        return has_capture_file(capture_folder("left")) &&
               has_capture_file(capture_folder("right"));
    })) << "no capture files in "
        << capture_folder("left");
    EXPECT_EQ(client.get("/getCMStatus").body, kRunning);
    auto devices = nlohmann::json::parse(client.get("/getDevices").body);
    EXPECT_EQ(devices["devices"][0]["capturing"], true);

    auto second = client.post("/startCapture", start_body());
    EXPECT_EQ(second.status, 503);
    EXPECT_NE(second.body.find("\"general_message\":\"Cannot start capture, it is still "
                               "running\""),
              std::string::npos);

    auto stopped = client.get("/stopCaptureAll");
    EXPECT_EQ(stopped.status, 200);
    EXPECT_EQ(stopped.body,
              "{\"general_message\":\"Correctly stopped capture\",\"command\":\"stop\"," + tail);
    EXPECT_EQ(engine.stop_input(), "STOP\r\n");
    EXPECT_EQ(client.get("/getCMStatus").body, kNotRunning);
    devices = nlohmann::json::parse(client.get("/getDevices").body);
    EXPECT_EQ(devices["devices"][0]["capturing"], false);

    auto last = nlohmann::json::parse(client.get("/getLastSession").body);
    EXPECT_EQ(last["message"], "No session is running");
    EXPECT_EQ(last["last_session"]["command"], "start");
    EXPECT_NE(last["last_session"]["end_ts"], 0);
}

// The replies' texts are checked by the handlers' own tests (devices/firmware_test for the
// update's) and each route's wiring by the replay of the documented examples
// (ops/ops_server_test), with the catalogue's offer to a device; here what needs the simulated
// devices: a new firmware mode restarts the device, and an image of the catalogue is flashed.
TEST_F(SessionServerTest, FirmwareModeChangeRestartsTheDeviceAndAnImageIsFlashed) {
    auto saved = client.post(
        "/saveTidewell",
        R"({"tidewells":[{"mac":"00:1b:c5:00:00:11","features":{"hw_firmware_id":1}}]})");
    EXPECT_EQ(saved.status, 200);
    EXPECT_NE(saved.body.find("\"message\":\"The device firmware mode was changed, and the device "
                              "will be restarted\""),
              std::string::npos)
        << saved.body;
    EXPECT_TRUE(server.wait_for_log("Save Tidewell required reset device with result = 0"));
    EXPECT_TRUE(server.wait_for_log("Device Gone Callback: Device Removed"));

    write_file(server.quellwick_root() + "/tidewell/firmware/tidewell-pro10g-1.2.twfw",
               "firmware image");
    const std::string device = R"({"tidewells":[{"mac":"00:1b:c5:00:00:12"}]})";
    auto started = client.post(
        "/updateTidewellFirmware",
        R"({"tidewells":[{"mac":"00:1b:c5:00:00:12","firmware_file":"tidewell-pro10g-1.2.twfw"}]})");
    EXPECT_EQ(started.status, 200) << started.body;
    EXPECT_TRUE(eventually([&] {
        return client.post("/getTidewellFirmwareUpdateStatus", device)
                   .body.find("has completed successfully") != std::string::npos;
    })) << client.post("/getTidewellFirmwareUpdateStatus", device).body;
}

// The library's capability query names only the model, yet two devices of one model keep
// their own capabilities, and only those with a features record have it read.
TEST(DeviceRegistryServerTest, DevicesOfOneModelKeepTheirOwnCapabilities) {
    TempDir scratch;
    // Announced in this order, so the first has been turned away once the others are listed.
    write_file(scratch.file("sim.yml"),
               "devices:\n"
               "  - mac: \"00:1b:c5:00:00:21\"\n"
               "    model: \"Tidewell Pro\"\n"
               "    fail: [TidewellAPIGetDeviceFeatures]\n"
               "  - mac: \"00:1b:c5:00:00:22\"\n"
               "    model: \"Tidewell Pro\"\n"
               "  - mac: \"00:1b:c5:00:00:23\"\n"
               "    model: \"Tidewell Pro\"\n"
               "    capabilities: 0x300\n"
               "    fail: [TidewellAPIGetDeviceFeatures]\n");
    ServerProcess server;
    server.set_env("TIDEWELL_SIM_CONFIG", scratch.file("sim.yml"));
    ASSERT_TRUE(server.start()) << server.output();
    HttpClient client = server.client();
    nlohmann::json listed;
    ASSERT_TRUE(eventually([&] {
        listed = nlohmann::json::parse(client.get("/getTidewells").body, nullptr, false);
        return listed.is_object() && listed["devices"].size() == 2;
    })) << listed.dump();
    std::map<std::string, uint32_t> capabilities;
    for (const auto& device : listed["devices"])
        capabilities[device["mac"]] = device["capabilities"];
    EXPECT_EQ(capabilities, (std::map<std::string, uint32_t>{{"00:1b:c5:00:00:22", 0x30b},
                                                             {"00:1b:c5:00:00:23", 0x300}}));
}

}  // namespace
}  // namespace vistrel::testing
