#include <gtest/gtest.h>

#include "session/replies.h"
#include "session/sessionresult.h"

namespace vistrel::session {
namespace {

TEST(CommandDocumentTest, KeysInFixedOrderWithoutEscaping) {
    CommandDocument document;
    document.general_message = "Correctly started capture";
    document.command = "start";
    document.engine_result = 0;
    document.interfaces = {{"aa:bb:cc:dd:ee:ff", "eth0", "", "No errors"},
                           {"", "lo", "x", "No errors"}};
    document.tidewells = {
        {"Tidewell Pro", "00:1b:c5:00:00:01", "left", "", "Successfully executed command"}};
    EXPECT_EQ(command_document(document),
              "{\"general_message\":\"Correctly started capture\",\"command\":\"start\","
              "\"analyzer\": {\"errors\":\"\",\"message\":\"Sucessfully executed command\"},"
              "\"interfaces\":[{\"mac\":\"aa:bb:cc:dd:ee:ff\",\"name\":\"eth0\",\"errors\":\"\","
              "\"message\":\"No errors\"},{\"name\":\"lo\",\"errors\":\"x\",\"message\":\"No "
              "errors\"}],\"tidewells\":[{\"model\":\"Tidewell Pro\",\"mac\":\"00:1b:c5:00:00:01\","
              "\"name\":\"left\",\"errors\":\"\",\"message\":\"Successfully executed command\"}]}");
}

TEST(CommandDocumentTest, EngineErrorsOnlyForRealFailures) {
    CommandDocument document;
    document.engine_result = 6;
    EXPECT_NE(command_document(document).find(
                  "\"analyzer\": {\"errors\":\"\",\"message\":\"Unable to execute command\"}"),
              std::string::npos);
    document.engine_result = 3;
    EXPECT_NE(command_document(document).find("\"analyzer\": {\"errors\":\"It is already "
                                              "running\",\"message\":\"It is already running\"}"),
              std::string::npos);
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
