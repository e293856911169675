#include <gtest/gtest.h>

#include <cstring>
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
        device_.dd_config.CaptureTime = 60;
        device_.dd_config.MaxNrFiles = 5;
        device_.dd_config.LoopCapture = TidewellAPIState_On;
        device_.dd_config.KeepFiles = 1;
        fake_.clear_calls();
    }

    StatsThreadInfo device_;
};

TEST_F(OperationsTest, StartHandsTheFolderAndOptionsToTheLibrary) {
    EXPECT_EQ(devices::api_start(device_), 0u);
    EXPECT_EQ(fake_.calls(),
              (Calls{"disk_dump_get_status", "disk_dump_set_config", "disk_dump_start"}));
    const std::string folder = configuration().capture_path + "/left tap";
    EXPECT_EQ(fake_.last_folder(), devices::to_wide(folder));
    EXPECT_EQ(device_.capture_folder, devices::to_wide(folder));
    const TidewellAPIDiskDumpConfig config = fake_.last_config();
    EXPECT_STREQ(config.FileName, "trace");
    EXPECT_STREQ(config.FileExtension, ".pcapng");
    EXPECT_EQ(config.CaptureTime, 60u);
    EXPECT_EQ(config.MaxNrFiles, 5u);
    EXPECT_EQ(config.LoopCapture, TidewellAPIState_On);
    EXPECT_EQ(config.KeepFiles, 1u);
    EXPECT_EQ(log_count("Going to capture to folder: " + folder), 1u);
    EXPECT_EQ(log_count("Going to capture to folder [new string]: " + folder), 1u);
    EXPECT_EQ(log_count("Starting capture for device '00:1b:c5:00:00:01'"), 1u);
    EXPECT_EQ(log_count("Saving files at: '" + folder + "'"), 1u);
}

TEST_F(OperationsTest, StartRefusals) {
    fake_.set_capturing(0x100, true);
    device_.capture_folder = u"/old";
    EXPECT_EQ(devices::api_start(device_), 2u);
    EXPECT_EQ(device_.capture_folder, u"/old");
    EXPECT_EQ(fake_.calls(), (Calls{"disk_dump_get_status"}));
    EXPECT_EQ(log_count("Failed: capture is already started"), 1u);
    fake_.set_capturing(0x100, false);
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"disk_dump_get_status", "Failed: cannot get status"},
        {"disk_dump_set_config", "Failed: cannot set configuration"},
        {"disk_dump_start", "Failed: cannot start capture"},
    };
    for (const auto& [function, message] : cases) {
        SCOPED_TRACE(function);
        fake_.set_result(function, TIDEWELLAPI_ERROR);
        EXPECT_EQ(devices::api_start(device_), 1u);
        EXPECT_EQ(log_count(message), 1u);
        fake_.set_result(function, TIDEWELLAPI_SUCCESS);
    }
}

TEST_F(OperationsTest, Stop) {
    EXPECT_EQ(devices::api_stop(device_), 0u);
    EXPECT_EQ(fake_.calls(), (Calls{"disk_dump_get_status"}));
    EXPECT_EQ(log_count("Capture for device with mac [00:1b:c5:00:00:01] is already stopped"), 1u);
    fake_.set_capturing(0x100, true);
    EXPECT_TRUE(devices::get_dd_status(device_));
    EXPECT_TRUE(device_.capturing());
    fake_.clear_calls();
    EXPECT_EQ(devices::api_stop(device_), 0u);
    EXPECT_EQ(fake_.calls(), (Calls{"disk_dump_get_status", "disk_dump_stop"}));
    EXPECT_EQ(log_count("Stopped capture for device '00:1b:c5:00:00:01'"), 1u);
    EXPECT_FALSE(devices::is_device_capturing(device_));

    fake_.set_capturing(0x100, true);
    fake_.set_result("disk_dump_stop", TIDEWELLAPI_ERROR);
    EXPECT_EQ(devices::api_stop(device_), 1u);
    EXPECT_EQ(log_count("Failed: cannot stop capture for device '00:1b:c5:00:00:01'"), 1u);
    EXPECT_TRUE(devices::is_device_capturing(device_));
    fake_.set_result("disk_dump_get_status", TIDEWELLAPI_ERROR);
    EXPECT_EQ(devices::api_stop(device_), 1u);
    EXPECT_EQ(log_count("Could not get Capturing Statistics for device with mac "
                        "[00:1b:c5:00:00:01]"),
              1u);
    EXPECT_FALSE(devices::is_device_capturing(device_));
    EXPECT_FALSE(devices::get_dd_status(device_));
}

TEST_F(OperationsTest, RestartAndSaveFeatures) {
    EXPECT_EQ(devices::api_restart_device(device_), 0u);
    EXPECT_EQ(log_count("Restarted device with MAC [00:1b:c5:00:00:01]"), 1u);
    EXPECT_TRUE(devices::restart_device(device_));
    EXPECT_TRUE(devices::save_features(device_));
    EXPECT_EQ(log_count("Saving device features returned (0)"), 1u);
    fake_.set_result("restart_device", -4);
    fake_.set_result("save_device_features", -2);
    EXPECT_EQ(devices::api_restart_device(device_), 6u);
    EXPECT_EQ(log_count("Could not restart device with MAC [00:1b:c5:00:00:01] - API Error: [-4]"),
              1u);
    EXPECT_FALSE(devices::restart_device(device_));
    EXPECT_FALSE(devices::save_features(device_));
    EXPECT_EQ(log_count("Saving device features returned (-2)"), 1u);
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

TEST_F(OperationsTest, SetFeaturesLogsTheFieldsAndIgnoresPortSpeedFailure) {
    device_.features.SlicingLength = 96;
    device_.features.PortBTimestampMoment = TidewellAPITimestampMoment_EndOfFrame;
    fake_.set_result("set_device_ports_speed", TIDEWELLAPI_ERROR);
    EXPECT_TRUE(devices::set_features(device_));
    EXPECT_EQ(fake_.calls(), (Calls{"set_device_features", "set_device_ports_speed"}));
    EXPECT_EQ(fake_.device(0x100).features.SlicingLength, 96);
    EXPECT_EQ(log_count("Set device features - setting portspeed returned (-1)"), 1u);
    const std::string all = log();
    size_t at = all.find("Going to save the following features:");
    ASSERT_NE(at, std::string::npos);
    // In field order, with the values handed over.
    for (const char* line : {"Setting HWFirmwareId: [1]", "Setting PortBTimestampMoment: [1]",
                             "Setting SlicingLength: [96]", "Setting WaitForSync: [0]"}) {
        const size_t next = all.find(line, at);
        ASSERT_NE(next, std::string::npos) << line;
        at = next;
    }

    fake_.set_result("set_device_features", -3);
    EXPECT_FALSE(devices::set_features(device_));
    EXPECT_EQ(log_count("API retured error code setting features(-3)"), 1u);
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
    EXPECT_EQ(log_count("Unable to save features, a firmware update is ongoing"), 1u);
    EXPECT_EQ(log_count("Firmware update is ongoing, unable to set features"), 1u);
    EXPECT_EQ(log_count("Firmware update in progress: No api_restart_device possible - "
                        "Returning TRUE"),
              1u);
    finished->store(true);
    EXPECT_EQ(devices::api_stop(device_), 0u);
}

}  // namespace
}  // namespace vistrel::testing
