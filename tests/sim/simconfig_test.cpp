#include "simconfig.h"

#include <gtest/gtest.h>

namespace vistrel::sim {
namespace {

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
    // Without a model: the first of the table.
    EXPECT_EQ(devices[0].type, TidewellAPIDeviceTypeNames[0].type);
    EXPECT_TRUE(devices[0].fail.empty());
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
