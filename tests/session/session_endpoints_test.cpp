#include <gtest/gtest.h>

#include "devicetestfixture.h"
#include "session/sessionendpoints.h"

namespace vistrel::session {
namespace {

class SessionEndpointsTest : public vistrel::testing::DeviceTest {
  protected:
    engine::WatchkeepProcess process;
    VistrelSession session{process};
    devices::TidewellFirmwareUpdater updater;
};

TEST_F(SessionEndpointsTest, UnreadableBodiesAnswer400AndTouchNothing) {
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
    EXPECT_TRUE(fake_.calls().empty());
}

TEST_F(SessionEndpointsTest, StatusDocuments) {
    plug(1, 1);
    fake_.set_capturing(1, true);
    Reply devices = handle_get_devices(session);
    EXPECT_EQ(devices.status, 200);
    auto document = nlohmann::json::parse(devices.text);
    ASSERT_EQ(document["devices"].size(), 1u);
    EXPECT_EQ(document["devices"][0]["mac"], "00:1b:c5:00:00:01");
    EXPECT_EQ(document["devices"][0]["model"], "Tidewell Pro");
    EXPECT_EQ(document["devices"][0]["model_id"], 2);
    EXPECT_EQ(document["devices"][0]["capturing"], true);

    auto tidewells = nlohmann::json::parse(handle_get_tidewells(session).text);
    EXPECT_EQ(tidewells["general_message"], "Successfully retrieved all tidewell tidewell_devices");
    for (const char* key : {"features", "versions", "port_speeds"})
        EXPECT_TRUE(tidewells["devices"][0].contains(key)) << key;

    devices::clear_registry();
    EXPECT_EQ(handle_get_devices(session).text, "{\"devices\":[]}");
    EXPECT_EQ(nlohmann::json::parse(handle_last_session(session).text)["message"],
              "No session is running");
    auto finished = pretend_update();
    EXPECT_NE(handle_availability().text.find("there is a firmware flash in progress"),
              std::string::npos);
    finished->store(true);
    EXPECT_NE(handle_availability().text.find("\"Capture machine available\""), std::string::npos);
}

}  // namespace
}  // namespace vistrel::session
