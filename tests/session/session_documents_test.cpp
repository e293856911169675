// The request and reply documents of a session, read and written without a server.
#include <gtest/gtest.h>

#include "session/devicerequests.h"
#include "session/replies.h"
#include "session/sessionresult.h"
#include "session/startrequest.h"

namespace vistrel::session {
namespace {

const char* const kDevice =
    R"({"model":"Tidewell Pro","friendly_name":"left","mac":"00:1B:c5:00:00:0a",
        "file_name":"cap","capture_time":60,"max_nr_files":10,"loop_capture":1,"keep_files":0})";

TEST(RequestTest, FullStartDocument) {
    StartRequest request;
    std::string text = std::string(R"({"tidewells":[)") + kDevice + R"(],
        "analyzer":{"dns":true,"arp_stats":false,"pkt_stats":true,"es_host":"10.1.1.1",
                    "es_port":"9300","es_index":"flows","es_type":"web","http_host":"me",
                    "http_port":"8082"},
        "interfaces":[{"name":"eth0","id":3,"mac":"AA:bb:cc:dd:ee:ff"}]})";
    ASSERT_TRUE(read_start_request(text, true, request));
    ASSERT_EQ(request.devices.size(), 1u);
    const auto& device = request.devices[0];
    // What the end-to-end capture does not already show through the engine's arguments.
    EXPECT_EQ(device.type, TidewellAPIDeviceType_Pro);
    EXPECT_EQ(device.mac_text(), "00:1b:c5:00:00:0a");
    EXPECT_STREQ(device.dd_config.FileName, "cap");
    EXPECT_EQ(device.dd_config.LoopCapture, TidewellAPIState_On);
    EXPECT_EQ(device.dd_config.IndexTraffic, 1u);
    ASSERT_TRUE(request.options);
    EXPECT_TRUE(request.options->pkt_stats_flag);
    EXPECT_EQ(request.options->server_port, "8082");
    ASSERT_EQ(request.interfaces.size(), 1u);
    EXPECT_EQ(request.interfaces[0].name, "eth0");
    EXPECT_EQ(request.interfaces[0].id, 3);
    EXPECT_EQ(request.interfaces[0].mac, "aa:bb:cc:dd:ee:ff");
}

TEST(RequestTest, DeviceFieldRules) {
    for (const char* change : {R"({"mac":"00:1b:c5:00:00"})", R"({"capture_time":"60"})",
                               R"({"capture_time":-1})", R"({"keep_files":4294967296})"}) {
        nlohmann::json device = nlohmann::json::parse(kDevice);
        device.update(nlohmann::json::parse(change));
        EXPECT_ANY_THROW(read_device(device)) << change;
    }

    // A missing tri-state is "don't care"; a missing number fails the device.
    nlohmann::json device = nlohmann::json::parse(kDevice);
    device.erase("loop_capture");
    EXPECT_EQ(read_device(device).dd_config.LoopCapture, TidewellAPIState_DontCare);
    device.erase("capture_time");
    StartRequest request;
    EXPECT_THROW(read_start_request(nlohmann::json{{"tidewells", {device}}}.dump(), true, request),
                 std::runtime_error);
}

TEST(RequestTest, InterfacesOnlyAndEmptyDocuments) {
    StartRequest request;
    ASSERT_TRUE(read_start_request(R"({"interfaces":[{"name":"eth1","mac":""}]})", true, request));
    EXPECT_TRUE(request.devices.empty());
    ASSERT_EQ(request.interfaces.size(), 1u);
    EXPECT_EQ(request.interfaces[0].id, -1);
    EXPECT_FALSE(request.options);

    StartRequest empty;
    EXPECT_FALSE(read_start_request("{}", true, empty));
    EXPECT_TRUE(read_start_request("{}", false, empty));
    EXPECT_FALSE(read_start_request("[1,2]", false, empty));
    EXPECT_THROW(read_start_request("{\"tidewells\":[", false, empty), nlohmann::json::parse_error);
}

TEST(RequestTest, BrokenPartsKeepWhatWasReadBefore) {
    StartRequest request;
    ASSERT_TRUE(read_start_request(
        R"({"analyzer":{"dns":true,"arp_stats":true,"pkt_stats":false,"es_host":"h",
            "es_port":"1","es_index":"i","http_host":"x","http_port":"2"},
            "interfaces":[{"name":"a","mac":""},{"name":"b"},{"name":"c","mac":""}]})",
        false, request));
    ASSERT_TRUE(request.options);
    EXPECT_EQ(request.options->es_host, "h");
    EXPECT_EQ(request.options->http_index, "tidewell");
    ASSERT_EQ(request.interfaces.size(), 1u);
}

TEST(RequestTest, DeviceListsKeepTheMacTextAsSent) {
    EXPECT_EQ(read_restart_request(
                  R"({"tidewells":[{"mac":"00:1b:c5:00:00:01"},{"mac":"00:1B:C5:00:00:02"}]})"),
              (std::vector<std::string>{"00:1b:c5:00:00:01", "00:1B:C5:00:00:02"}));
    EXPECT_THROW(read_restart_request(R"({"tidewells":[{"mac":"x"}]})"), std::runtime_error);
    EXPECT_THROW(read_firmware_status_request(R"({"macs":[]})"), std::runtime_error);
}

TEST(RequestTest, SaveChangesOnlyWhatItNames) {
    auto requests = read_save_request(
        R"({"tidewells":[{"mac":"00:1b:c5:00:00:01","features":{"slicing":1,"hw_firmware_id":3,
            "port_b_timestamp_moment":1},"port_speeds":{"port_a":4}}]})");
    ASSERT_EQ(requests.size(), 1u);
    TidewellAPIFeatures features{};
    features.Loopback = TidewellAPIState_On;
    apply_features(requests[0].features, features);
    EXPECT_EQ(features.HWFirmwareId, 3);
    EXPECT_EQ(features.PortBTimestampMoment, TidewellAPITimestampMoment_EndOfFrame);
    EXPECT_EQ(features.Loopback, TidewellAPIState_On);
    TidewellAPIPortsSpeed speeds{};
    speeds.Speed[1] = TidewellAPIPortSpeed_1G;
    apply_port_speeds(requests[0].port_speeds, speeds);
    EXPECT_EQ(speeds.Speed[0], TidewellAPIPortSpeed_10G);
    EXPECT_EQ(speeds.Speed[1], TidewellAPIPortSpeed_1G);

    EXPECT_THROW(read_save_request(
                     R"({"tidewells":[{"mac":"00:1b:c5:00:00:01","features":{"slicing":"on"}}]})"),
                 nlohmann::json::type_error);
}

TEST(RequestTest, TimeRequests) {
    auto times = read_time_request(
        R"({"tidewells":[{"mac":"00:1b:c5:00:00:01"},
                         {"mac":"00:1b:c5:00:00:02","time_source":3,"seconds":100,
                          "nanoseconds":5}]})");
    ASSERT_EQ(times.size(), 2u);
    EXPECT_EQ(times[0].timing.Source, TidewellAPITimeSource_SNTP);
    EXPECT_EQ(times[1].timing.Source, TidewellAPITimeSource_GPS);
    EXPECT_EQ(times[1].timing.Seconds, 100u);
    EXPECT_EQ(times[1].timing.Nanoseconds, 5u);
    EXPECT_THROW(read_time_request(
                     R"({"tidewells":[{"mac":"00:1b:c5:00:00:01","nanoseconds":1000000000}]})"),
                 std::runtime_error);
}

// What the server-level tests' replies do not show: an interface's MAC only when known, the
// stopped engine's text and where a command's result goes.
TEST(CommandDocumentTest, InterfaceMacStoppedEngineAndCommandResultPlace) {
    CommandDocument document;
    document.interfaces = {{"aa:bb:cc:dd:ee:ff", "eth0", "", "No errors"},
                           {"", "lo", "x", "No errors"}};
    EXPECT_NE(
        command_document(document).find(
            "\"interfaces\":[{\"mac\":\"aa:bb:cc:dd:ee:ff\",\"name\":\"eth0\",\"errors\":\"\","
            "\"message\":\"No errors\"},{\"name\":\"lo\",\"errors\":\"x\",\"message\":\"No "
            "errors\"}],\"tidewells\":[]}"),
        std::string::npos);
    document.interfaces.clear();
    document.engine_result = 4;  // the double space is what clients know
    EXPECT_NE(command_document(document).find("\"message\":\"It  is already stopped\"}"),
              std::string::npos);
    document.command_result = "{\"type\":\"restart_device\"}";
    EXPECT_NE(command_document(document).find(
                  "},\"command_result\":{\"type\":\"restart_device\"},\"interfaces\":[]"),
              std::string::npos);
}

// The statuses no session test reaches; an unknown code keeps the status given.
TEST(SessionMessageTest, StatusesOfRareResults) {
    EXPECT_EQ(session_status(kSessionLowDiskSpace, 0), 507);
    EXPECT_EQ(session_status(kSessionNeedsAdministrator, 0), 401);
    EXPECT_EQ(session_status(12, 299), 299);
}

}  // namespace
}  // namespace vistrel::session
