#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>
#include <tuple>

#include "database/vistreldatabase.h"
#include "devicetestfixture.h"
#include "engine/standin_engine.h"
#include "session/devicecommands.h"
#include "session/sessionendpoints.h"
#include "session/vistrelsession.h"
#include "support/elasticsearch_standin.h"

namespace vistrel::session {
namespace {

using std::chrono::milliseconds;
using vistrel::testing::ElasticsearchStandIn;
using vistrel::testing::StandinEngine;

// The session over a fake device library, the stand-in engine and a stand-in Elasticsearch.
class SessionTest : public vistrel::testing::DeviceTest {
  protected:
    void SetUp() override {
        DeviceTest::SetUp();
        setenv("QUELLWICK_ROOT", temp_.path().c_str(), 1);
        configuration().database = temp_.file("vistrel-cs.db");
        database::VistrelDatabase(configuration().database).create_schema();
        session.set_pause_for_tests(milliseconds(50));
        ASSERT_FALSE(engine::WatchkeepProcess::is_running()) << "another watchkeep runs";
    }
    void TearDown() override {
        process.stop();
        unsetenv("QUELLWICK_ROOT");
        DeviceTest::TearDown();
    }

    // Plugs devices 00:1b:c5:00:00:<last> (handle = last) and names them in a request.
    StartRequest request_for(std::vector<uint8_t> lasts, bool plug_them = true) {
        StartRequest request;
        for (uint8_t last : lasts) {
            if (plug_them) plug(last, last);
            devices::StatsThreadInfo device;
            device.mac = testing::FakeDeviceLibrary::device_with_mac(last).mac;
            device.name = "dev" + std::to_string(last);
            device.set_file_name("cap");
            request.devices.push_back(device);
        }
        request.options.emplace();
        request.options->es_host = "127.0.0.1";
        request.options->es_port = std::to_string(search.port());
        return request;
    }

    ElasticsearchStandIn search;
    StandinEngine standin{temp_.path()};
    engine::EngineTiming fast{milliseconds(500), 5, milliseconds(100), 7};
    engine::WatchkeepProcess process{fast};
    VistrelSession session{process};
};

TEST(DiskSpaceTest, FivePercentFreeOrAFixedAmountIsEnough) {
    const int64_t GiB = 1LL << 30;
    EXPECT_TRUE(VistrelSession::is_enough_disk_space(3 * GiB, 100 * 1024 * 1024 * GiB));
    EXPECT_TRUE(VistrelSession::is_enough_disk_space(GiB, 10 * GiB));
    EXPECT_FALSE(VistrelSession::is_enough_disk_space(100 << 20, 10 * GiB));
    EXPECT_FALSE(VistrelSession::is_enough_disk_space(-1, 10 * GiB));
}

TEST_F(SessionTest, ChecksRefuseBeforeAnythingStarts) {
    StartRequest missing = request_for({8});
    missing.devices.push_back(request_for({9}, false).devices[0]);
    StartRequest offline = request_for({1});
    offline.options->es_port = std::to_string(ElasticsearchStandIn::closed_port());
    StartRequest no_options = request_for({1});
    no_options.options.reset();
    StartRequest no_interface = request_for({1});
    no_interface.interfaces.push_back({"lo", 0, ""});
    no_interface.interfaces.push_back({"nosuch7", 1, ""});
    const std::vector<std::tuple<StartRequest, int, std::string>> cases = {
        {request_for({1, 2, 3, 4, 5, 6, 7}), 400, "maximum 6 tidewell_devices allowed"},
        {missing, 503,
         "\"general_message\":\"Unable to start a capture in unavailable tidewell_devices (check "
         "your device connection)\""},
        {missing, 503, "Tidewell device with mac '00:1b:c5:00:00:09' is not available"},
        {offline, 503,
         "Elasticsearch from capture machine at 127.0.0.1:" + offline.options->es_port +
             " is offline"},
        {no_options, 500, "Unable to start capture, internal problems"},
        {no_interface, 500,
         "{\"name\":\"nosuch7\",\"errors\":\"Network interface 'nosuch7' does not exist on "
         "this machine\""},
    };
    for (const auto& [request, status, text] : cases) {
        Reply reply = session.start_capture(request);
        EXPECT_EQ(reply.status, status) << text;
        EXPECT_NE(reply.text.find(text), std::string::npos) << reply.text;
    }
    EXPECT_TRUE(search.requests().empty());
    EXPECT_EQ(fake_.call_count("disk_dump_start"), 0u);
    EXPECT_FALSE(standin.started());
}

TEST_F(SessionTest, StartStopSomeThenStopAll) {
    StartRequest request = request_for({1, 2});
    request.interfaces.push_back({"lo", 0, ""});
    Reply reply = session.start_capture(request);
    ASSERT_EQ(reply.status, 200) << reply.text;
    EXPECT_NE(reply.text.find("\"interfaces\":[{\"name\":\"lo\",\"errors\":\"\",\"message\":"
                              "\"No errors\"}]"),
              std::string::npos)
        << reply.text;
    auto arguments = standin.arguments();
    EXPECT_NE(std::find(arguments.begin(), arguments.end(), "lo"), arguments.end());

    reply = session.stop_capture(request_for({1}, false));
    EXPECT_EQ(reply.status, 200);
    EXPECT_NE(reply.text.find("there are still tidewell_devices capturing"), std::string::npos);
    EXPECT_TRUE(engine::WatchkeepProcess::is_running());
    EXPECT_EQ(fake_.call_count("disk_dump_stop"), 1u);

    reply = session.stop_capture();
    EXPECT_EQ(reply.status, 200) << reply.text;
    EXPECT_NE(reply.text.find("Correctly stopped capture"), std::string::npos);
    EXPECT_EQ(fake_.call_count("disk_dump_stop"), 2u);
    EXPECT_FALSE(engine::WatchkeepProcess::is_running());
}

TEST_F(SessionTest, FailedStartsLeaveNoEngineRunning) {
    standin.set_mode("exit");
    Reply reply = session.start_capture(request_for({1, 2}));
    EXPECT_EQ(reply.status, 500);
    EXPECT_NE(reply.text.find("\"analyzer\": {\"errors\":\"Error executing command\""),
              std::string::npos)
        << reply.text;
    // Launch result 1 answers at once: no stop of an engine that was never there, no device
    // started.
    EXPECT_EQ(log_count("[Watchkeep Stop] Stopping..."), 0u);
    EXPECT_EQ(fake_.call_count("disk_dump_start"), 0u);

    // The engine starts but every device fails: the engine is stopped again.
    standin.set_mode("");
    standin.clear();
    fake_.set_result("disk_dump_start", -1);
    reply = session.start_capture(request_for({1, 2}, false));
    EXPECT_EQ(reply.status, 500);
    EXPECT_NE(reply.text.find("\"message\":\"Error executing command\""), std::string::npos);
    EXPECT_TRUE(standin.started());
    EXPECT_FALSE(engine::WatchkeepProcess::is_running());
}

TEST_F(SessionTest, AnalysisRunsTheEngineOverTheFile) {
    StartRequest request;
    request.options.emplace();
    // A client's file name need not be UTF-8 (here Latin-1).
    const std::string path = "/up/caf\xe9.pcap";
    Reply reply = session.start_analysis(request, path);
    EXPECT_EQ(reply.status, 200);
    EXPECT_NE(reply.text.find("\"command\":\"analyze\""), std::string::npos);
    EXPECT_EQ(standin.arguments().at(3), path);
    auto last = nlohmann::json::parse(session.last_session_document());
    EXPECT_EQ(last["last_session"]["file_path"], "/up/caf\xef\xbf\xbd.pcap");

    reply = session.start_analysis(request, "/up/b.pcap");
    EXPECT_EQ(reply.status, 503);
    EXPECT_NE(reply.text.find("Unable to start capture analysis, another capture is running"),
              std::string::npos);

    // The stop without devices or interfaces while the engine runs: engine stopped, code 1.
    reply = session.stop_capture();
    EXPECT_EQ(reply.status, 500);
    EXPECT_FALSE(engine::WatchkeepProcess::is_running());
}

class DeviceCommandTest : public SessionTest {
  protected:
    devices::TidewellFirmwareUpdater updater;
    DeviceCommands commands{session, updater};
};

TEST_F(DeviceCommandTest, UnknownMacKeepsTheOthersResults) {
    plug(1, 1);
    Reply reply = commands.restart({"00:1b:c5:00:00:09", "00:1b:c5:00:00:01"});
    EXPECT_EQ(reply.status, 500);
    const auto results = nlohmann::json::parse(reply.text)["command_result"]["results"];
    ASSERT_EQ(results.size(), 2u) << reply.text;
    EXPECT_EQ(results[0]["message"], "Failed to restart device");
    EXPECT_EQ(results[1], (nlohmann::json{{"mac", "00:1b:c5:00:00:01"},
                                          {"name", ""},
                                          {"success", true},
                                          {"errors", ""},
                                          {"message", "Successfully restarted device"}}));
    EXPECT_EQ(fake_.call_count("restart_device"), 1u);
}

TEST_F(DeviceCommandTest, SaveRestartsOnlyWhenTheFirmwareModeChanges) {
    plug(1, 1);
    SaveRequest same;
    same.mac = "00:1b:c5:00:00:01";
    same.features = {{"slicing", 1}};
    Reply reply = commands.save({same});
    EXPECT_EQ(reply.status, 200) << reply.text;
    EXPECT_EQ(fake_.device(1).features.Slicing, TidewellAPIState_On);
    EXPECT_EQ(fake_.call_count("restart_device"), 0u);

    SaveRequest mode = same;
    mode.features = {{"hw_firmware_id", 7}};
    reply = commands.save({mode});
    EXPECT_NE(reply.text.find("The device firmware mode was changed, and the device will be "
                              "restarted"),
              std::string::npos);
    EXPECT_EQ(fake_.call_count("restart_device"), 1u);

    fake_.set_result("save_device_features", -1);
    reply = commands.restore({"00:1b:c5:00:00:01"});
    EXPECT_EQ(reply.status, 500);
    EXPECT_NE(reply.text.find("Could not restore device 00:1b:c5:00:00:01 ()"), std::string::npos);
}

TEST_F(DeviceCommandTest, FirmwareRefusedWhileCapturingAndTimeFromGps) {
    plug(1, 1);
    fake_.set_capturing(1, true);
    FirmwareRequest firmware;
    firmware.mac = "00:1b:c5:00:00:01";
    firmware.firmware_file = temp_.file("test.log");
    Reply reply = commands.update_firmware({firmware});
    EXPECT_EQ(reply.status, 400);
    EXPECT_NE(reply.text.find("It is impossible to start a firmware update if any device is "
                              "currently capturing"),
              std::string::npos);
    EXPECT_EQ(fake_.call_count("firmware_update_start"), 0u);

    fake_.set_capturing(1, false);
    // A path too long for the library goes to the updater as it is, so that it says why.
    firmware.firmware_file = std::string(2049, 'd');
    reply = commands.update_firmware({firmware});
    EXPECT_NE(reply.text.find("Firmware filepath [" + firmware.firmware_file +
                              "] is too long. Max size: 2048"),
              std::string::npos)
        << reply.text;

    TimeRequest time;
    time.mac = "00:1b:c5:00:00:01";
    time.timing = {TidewellAPITimeSource_GPS, 1700000000, 5};
    reply = commands.set_time({time});
    EXPECT_EQ(reply.status, 200);
    EXPECT_NE(reply.text.find("Successfully set device time from GPS"), std::string::npos);
    EXPECT_EQ(fake_.last_timing().Seconds, 1700000000u);
}

TEST_F(DeviceCommandTest, UnreadableBodiesAnswer400AndTouchNothing) {
    plug(1, 1);
    fake_.clear_calls();
    using Handler = std::function<Reply(const std::string&)>;
    auto device = [&](auto handler) -> Handler {
        return [&, handler](const std::string& body) { return handler(session, updater, body); };
    };
    const std::vector<std::pair<std::string, Handler>> endpoints = {
        {"start", [&](const std::string& body) { return handle_start_capture(session, body); }},
        {"restart_device", device(handle_restart_tidewell)},
        {"save_tidewells", device(handle_save_tidewell)},
        {"restore_device", device(handle_restore_tidewell)},
        {"set_device_time_from_sntp", device(handle_set_device_time)},
        {"flush_tidewell_firmware", device(handle_update_firmware)},
        {"get_vistrel_firmware_update_status", device(handle_firmware_update_status)},
    };
    for (const auto& [command, handler] : endpoints) {
        Reply reply = handler("{\"tidewells\":[{\"mac\":");
        EXPECT_EQ(reply.status, 400) << command;
        EXPECT_EQ(reply.text,
                  "{\"general_message\":\"Bad Json document (Parse Error) for the "
                  "given request\",\"command\":\"" +
                      command +
                      "\",\"analyzer\": {\"errors\":\"\",\"message\":\"Unable to "
                      "execute command\"},\"interfaces\":[],\"tidewells\":[]}");
        for (const char* unusable :
             {R"({"tidewells":[{"mac":"00:1b:c5:00:00"}]})", R"({"tidewells":{}})"}) {
            reply = handler(unusable);
            EXPECT_EQ(reply.status, 400) << command;
            EXPECT_NE(reply.text.find("\"general_message\":\"Bad Json document for the given "
                                      "request\",\"command\":\"" +
                                      command + "\""),
                      std::string::npos)
                << command << ": " << reply.text;
        }
    }
    EXPECT_EQ(handle_start_capture(session, "[]").status, 400);

    // A reader says in the log, at error level, which field it missed.
    const std::string no_mac = R"({"tidewells":[{"name":"x"}]})";
    handle_set_device_time(session, updater, no_mac);
    handle_update_firmware(session, updater, no_mac);
    handle_start_capture(session, R"({"tidewells":[{"model":"Tidewell Pro","friendly_name":"a",
        "mac":"00:1b:c5:00:00:01","file_name":"a","max_nr_files":1,"loop_capture":0,
        "keep_files":1}]})");
    for (const std::string reader : {"GetSetDeviceTime", "GetUpdateTidewellFirmware"}) {
        EXPECT_EQ(log_count("ERROR: Exception parsing " + reader +
                            ": JSON Parsing error: Non optional field [mac] not found"),
                  1u)
            << reader;
    }
    EXPECT_EQ(log_count("ERROR: Exception parsing tidewells array: JSON Parsing error: Non "
                        "optional field [capture_time] not found"),
              1u);
    EXPECT_TRUE(fake_.calls().empty());
}

TEST_F(DeviceCommandTest, StatusDocuments) {
    plug(1, 1);
    auto tidewells = nlohmann::json::parse(handle_get_tidewells(session).text);
    EXPECT_EQ(tidewells["general_message"], "Successfully retrieved all tidewell tidewell_devices");
    for (const char* key : {"features", "versions", "port_speeds"})
        EXPECT_TRUE(tidewells["devices"][0].contains(key)) << key;

    devices::clear_registry();
    EXPECT_EQ(handle_get_devices(session).text, "{\"devices\":[]}");
    auto finished = pretend_update();
    EXPECT_NE(handle_availability().text.find("there is a firmware flash in progress"),
              std::string::npos);
    finished->store(true);
    EXPECT_NE(handle_availability().text.find("\"Capture machine available\""), std::string::npos);
}

}  // namespace
}  // namespace vistrel::session
