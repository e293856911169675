#include "simconfig.h"

#include <gtest/gtest.h>

namespace vistrel::sim {
namespace {

TEST(SimConfigTest, ReadsEveryKeyWithDefaults) {
    std::vector<SimDeviceConfig> devices;
    std::string errors;
    ASSERT_TRUE(
        parse_sim_config("devices:\n"
                         "  - mac: \"00:1B:C5:00:00:0A\"\n"
                         "    model: \"Tidewell Inline\"\n"
                         "    capabilities: 0x1\n"
                         "    hw_firmware_id: 2\n"
                         "    fail: [TidewellAPIRestartDevice, TidewellAPIGetVersions]\n"
                         "    packets_per_second: 20\n"
                         "    firmware_update_seconds: 1.5\n"
                         "    firmware_update_fails: true\n"
                         "  - mac: \"00:1b:c5:00:00:0b\"\n",
                         devices, errors));
    EXPECT_EQ(errors, "");
    ASSERT_EQ(devices.size(), 2u);
    EXPECT_EQ(devices[0].mac_text, "00:1b:c5:00:00:0a");
    EXPECT_EQ(devices[0].type, TidewellAPIDeviceType_Inline);
    EXPECT_EQ(devices[0].capabilities, 1u);
    EXPECT_EQ(devices[0].hw_firmware_id, 2);
    EXPECT_EQ(devices[0].fail,
              (std::set<std::string>{"TidewellAPIRestartDevice", "TidewellAPIGetVersions"}));
    EXPECT_EQ(devices[0].packets_per_second, 20u);
    EXPECT_DOUBLE_EQ(devices[0].firmware_update_seconds, 1.5);
    EXPECT_TRUE(devices[0].firmware_update_fails);
    // Defaults: the first model of the table with its capabilities.
    EXPECT_EQ(devices[1].type, TidewellAPIDeviceTypeNames[0].type);
    EXPECT_TRUE(devices[1].fail.empty());
}

TEST(SimConfigTest, BadEntriesAreSkippedWithAReasonAndBrokenFilesRefused) {
    std::vector<SimDeviceConfig> devices;
    std::string errors;
    ASSERT_TRUE(
        parse_sim_config("devices:\n"
                         "  - model: \"Tidewell Pro\"\n"
                         "  - mac: \"00:1b:c5:00:00\"\n"
                         "  - mac: \"00:1b:c5:00:00:01\"\n    model: \"Nope\"\n"
                         "  - mac: \"00:1b:c5:00:00:02\"\n"
                         "  - mac: \"00:1B:C5:00:00:02\"\n",
                         devices, errors));
    ASSERT_EQ(devices.size(), 1u);
    EXPECT_EQ(devices[0].mac_text, "00:1b:c5:00:00:02");
    EXPECT_NE(errors.find("without \"mac\""), std::string::npos) << errors;
    EXPECT_NE(errors.find("bad mac"), std::string::npos) << errors;
    EXPECT_NE(errors.find("unknown model \"Nope\""), std::string::npos) << errors;
    EXPECT_NE(errors.find("duplicate device 00:1b:c5:00:00:02"), std::string::npos) << errors;

    for (const char* empty : {"", "devices: []\n"}) {
        devices.clear();
        EXPECT_TRUE(parse_sim_config(empty, devices, errors));
        EXPECT_TRUE(devices.empty());
    }
    for (const char* broken : {"devices: [\n", "devices: 3\n", "- a\n- b\n"}) {
        errors.clear();
        EXPECT_FALSE(parse_sim_config(broken, devices, errors)) << broken;
        EXPECT_FALSE(errors.empty());
    }
}

}  // namespace
}  // namespace vistrel::sim
