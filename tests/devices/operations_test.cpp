#include <gtest/gtest.h>

#include <vector>

#include "devices/deviceoperations.h"
#include "devicetestfixture.h"

namespace vistrel::testing {
namespace {

using devices::StatsThreadInfo;
using Calls = std::vector<std::string>;

class OperationsTest : public DeviceTest {
  protected:
    void SetUp() override {
        DeviceTest::SetUp();
        device_ = plug(0x100, 1);
        device_.name = "left tap";
        device_.set_file_name("trace");
        device_.dd_config.MaxNrFiles = 5;
        fake_.clear_calls();
    }

    StatsThreadInfo device_;
};

TEST_F(OperationsTest, StartHandsTheFolderToTheLibraryAndRefusesARunningCapture) {
    EXPECT_EQ(devices::api_start(device_), 0u);
    EXPECT_EQ(fake_.calls(),
              (Calls{"disk_dump_get_status", "disk_dump_set_config", "disk_dump_start"}));
    const std::string folder = configuration().capture_path + "/left tap";
    EXPECT_EQ(fake_.last_folder(), devices::to_wide(folder));
    EXPECT_EQ(device_.capture_folder, devices::to_wide(folder));
    const TidewellAPIDiskDumpConfig config = fake_.last_config();
    EXPECT_STREQ(config.FileName, "trace");
    EXPECT_STREQ(config.FileExtension, ".pcapng");
    EXPECT_EQ(config.MaxNrFiles, 5u);

    // Already capturing: refused after the status, the folder left alone.
    fake_.clear_calls();
    device_.capture_folder = u"/old";
    EXPECT_EQ(devices::api_start(device_), 2u);
    EXPECT_EQ(device_.capture_folder, u"/old");
    EXPECT_EQ(fake_.calls(), (Calls{"disk_dump_get_status"}));
    fake_.set_capturing(0x100, false);
    for (const char* failing :
         {"disk_dump_get_status", "disk_dump_set_config", "disk_dump_start"}) {
        fake_.set_result(failing, TIDEWELLAPI_ERROR);
        EXPECT_EQ(devices::api_start(device_), 1u) << failing;
        fake_.set_result(failing, TIDEWELLAPI_SUCCESS);
    }
}

TEST_F(OperationsTest, Stop) {
    EXPECT_EQ(devices::api_stop(device_), 0u);
    EXPECT_EQ(fake_.calls(), (Calls{"disk_dump_get_status"}));
    fake_.set_capturing(0x100, true);
    EXPECT_TRUE(devices::get_dd_status(device_));
    EXPECT_TRUE(device_.capturing());
    fake_.clear_calls();
    EXPECT_EQ(devices::api_stop(device_), 0u);
    EXPECT_EQ(fake_.calls(), (Calls{"disk_dump_get_status", "disk_dump_stop"}));
    EXPECT_FALSE(devices::is_device_capturing(device_));

    fake_.set_capturing(0x100, true);
    fake_.set_result("disk_dump_stop", TIDEWELLAPI_ERROR);
    EXPECT_EQ(devices::api_stop(device_), 1u);
    EXPECT_TRUE(devices::is_device_capturing(device_));
    fake_.set_result("disk_dump_get_status", TIDEWELLAPI_ERROR);
    EXPECT_EQ(devices::api_stop(device_), 1u);
    EXPECT_FALSE(devices::is_device_capturing(device_));
    EXPECT_FALSE(devices::get_dd_status(device_));
}

TEST_F(OperationsTest, RestartAndSaveFeatures) {
    EXPECT_EQ(devices::api_restart_device(device_), 0u);
    EXPECT_TRUE(devices::restart_device(device_));
    EXPECT_TRUE(devices::save_features(device_));
    fake_.set_result("restart_device", -4);
    fake_.set_result("save_device_features", -2);
    EXPECT_EQ(devices::api_restart_device(device_), 6u);
    EXPECT_EQ(log_count("Could not restart device with MAC [00:1b:c5:00:00:01] - API Error: [-4]"),
              1u);
    EXPECT_FALSE(devices::restart_device(device_));
    EXPECT_FALSE(devices::save_features(device_));
}

TEST_F(OperationsTest, InterfaceStatusReadsWhatTheCapabilitiesOffer) {
    fake_.set_capabilities(0x30b);
    devices::InterfaceStatus details;
    EXPECT_TRUE(devices::get_iface_status(device_, &details));
    EXPECT_EQ(fake_.calls(),
              (Calls{"get_device_type", "get_device_capabilities", "get_device_mac", "get_versions",
                     "get_device_features", "get_device_ports_speed", "get_link_status",
                     "get_device_extra_info", "get_hw_firmwares_desc", "get_statistics",
                     "get_timing_status", "disk_dump_get_status"}));
    EXPECT_EQ(details.link.PortCount, 2u);
    EXPECT_EQ(details.timing.Synchronized, TidewellAPIState_On);

    fake_.clear_calls();
    fake_.set_capabilities(0x200);
    EXPECT_TRUE(devices::get_iface_status(device_));
    EXPECT_EQ(fake_.calls(), (Calls{"get_device_type", "get_device_capabilities", "get_device_mac",
                                    "get_versions", "get_statistics"}));

    fake_.clear_calls();
    fake_.set_capabilities(0x30b);
    fake_.set_result("get_link_status", TIDEWELLAPI_ERROR);
    EXPECT_FALSE(devices::get_iface_status(device_));
    EXPECT_EQ(fake_.calls().back(), "get_link_status");
}

TEST_F(OperationsTest, SetFeaturesIgnoresPortSpeedFailure) {
    device_.features.SlicingLength = 96;
    fake_.set_result("set_device_ports_speed", TIDEWELLAPI_ERROR);
    EXPECT_TRUE(devices::set_features(device_));
    EXPECT_EQ(fake_.calls(), (Calls{"set_device_features", "set_device_ports_speed"}));
    EXPECT_EQ(fake_.device(0x100).features.SlicingLength, 96);

    fake_.set_result("set_device_features", -3);
    EXPECT_FALSE(devices::set_features(device_));
}

TEST_F(OperationsTest, NothingTouchesTheDeviceDuringAFirmwareUpdate) {
    fake_.set_capturing(0x100, true);
    auto finished = pretend_update();
    EXPECT_EQ(devices::api_start(device_), 7u);
    EXPECT_EQ(devices::api_stop(device_), 7u);
    EXPECT_EQ(devices::api_restart_device(device_), 7u);
    EXPECT_FALSE(devices::restart_device(device_));
    EXPECT_FALSE(devices::get_dd_status(device_));
    EXPECT_FALSE(devices::get_iface_status(device_));
    EXPECT_FALSE(devices::is_device_capturing(device_));
    EXPECT_FALSE(devices::save_features(device_));
    EXPECT_FALSE(devices::set_features(device_));
    EXPECT_TRUE(fake_.calls().empty());
    finished->store(true);
    EXPECT_EQ(devices::api_stop(device_), 0u);
}

}  // namespace
}  // namespace vistrel::testing
