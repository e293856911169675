// The registry and the operations on one device, over the fake device library.
#include <gtest/gtest.h>

#include <vector>

#include "devices/deviceoperations.h"
#include "devicetestfixture.h"

namespace vistrel::testing {
namespace {

using devices::StatsThreadInfo;
using Calls = std::vector<std::string>;

TEST(StatsThreadInfoTest, TextConversions) {
    devices::MacAddress mac{};
    ASSERT_TRUE(devices::mac_from_text("00:1B:c5:a0:0:ff", mac));
    EXPECT_EQ(devices::mac_to_text(mac), "00:1b:c5:a0:00:ff");
    const devices::MacAddress before = mac;
    for (const char* bad : {"", "00:1b:c5:a0:00", "00:1b:c5:a0:00:ff:01", "00:1b:c5:a0:00:fg",
                            "00:1b:c5:a0::ff", "001:1b:c5:a0:00:ff"}) {
        EXPECT_FALSE(devices::mac_from_text(bad, mac)) << bad;
        EXPECT_EQ(mac, before);
    }
    const std::string folder = "/caps/Zürich-\xF0\x9F\x93\xA6";
    EXPECT_EQ(devices::to_narrow(devices::to_wide(folder)), folder);
    EXPECT_EQ(devices::to_wide("ab\xFF").back(), u'\xFFFD');
    TidewellAPIDeviceType type = TidewellAPIDeviceType_Pro;
    ASSERT_TRUE(devices::model_from_name("Tidewell Lite", type));
    EXPECT_EQ(devices::model_name(type), "Tidewell Lite");
    EXPECT_FALSE(devices::model_from_name("tidewell pro", type));
    EXPECT_EQ(devices::model_name(static_cast<TidewellAPIDeviceType>(99)), "Unknown");
}

TEST(StatsThreadInfoTest, CopyOwnsItsCaptureFolder) {
    StatsThreadInfo original;
    original.capture_folder = u"/captures/first";
    StatsThreadInfo copy = original;
    original.capture_folder = u"/elsewhere";
    EXPECT_EQ(std::u16string(copy.library_config().CaptureFolder), u"/captures/first");
    EXPECT_EQ(original.dd_config.CaptureFolder, nullptr);
}

class RegistryTest : public DeviceTest {};

TEST_F(RegistryTest, InitialiseRegistersCallbacksBeforeTheLibraryStarts) {
    EXPECT_EQ(devices::initialise(), 0);
    EXPECT_EQ(devices::uninitialise(), 0);
    EXPECT_EQ(fake_.calls(),
              (Calls{"add_new_device_callback", "add_device_gone_callback", "initialize",
                     "remove_new_device_callback", "remove_device_gone_callback", "uninitialize"}));
    fake_.set_result("initialize", -5);
    EXPECT_EQ(devices::initialise(), -5);
}

TEST_F(RegistryTest, NewAndGoneDevices) {
    std::vector<StatsThreadInfo> announced, gone;
    devices::set_new_device_subscriber([&](StatsThreadInfo info) { announced.push_back(info); });
    devices::set_device_gone_subscriber([&](StatsThreadInfo info) { gone.push_back(info); });
    EXPECT_EQ(plug(0x100, 1).handle, 0x100u);
    ASSERT_EQ(announced.size(), 1u);
    EXPECT_EQ(announced[0].mac_text(), "00:1b:c5:00:00:01");

    // Announced again: one entry, with the newer record.
    auto changed = FakeDeviceLibrary::device_with_mac(1);
    changed.versions.FirmwareVersion = 0x20000;
    fake_.add_device(0x100, changed);
    devices::on_new_device(0x100, nullptr);
    ASSERT_EQ(devices::snapshot().size(), 1u);
    EXPECT_EQ(devices::snapshot()[0].versions.FirmwareVersion, 0x20000u);

    plug(0x101, 2);
    devices::on_device_gone(0x100, nullptr);
    ASSERT_EQ(gone.size(), 1u);
    EXPECT_EQ(gone[0].handle, 0x100u);
    const auto all = devices::snapshot();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].handle, 0x101u);
}

TEST_F(RegistryTest, DeviceWhoseDataCannotBeReadIsNeverPresent) {
    fake_.add_device(0x200, FakeDeviceLibrary::device_with_mac(2));
    for (const char* failing :
         {"get_device_type", "get_device_mac", "get_versions", "get_device_features"}) {
        fake_.set_result(failing, TIDEWELLAPI_ERROR);
        devices::on_new_device(0x200, nullptr);
        EXPECT_TRUE(devices::snapshot().empty()) << failing;
        fake_.set_result(failing, TIDEWELLAPI_SUCCESS);
    }
}

TEST_F(RegistryTest, LookUpsByMac) {
    StatsThreadInfo first, second;
    first.mac = {0x00, 0x1b, 0xc5, 0x00, 0x00, 0x01};
    second.mac = {0x00, 0x1b, 0xc5, 0x00, 0x00, 0x02};
    EXPECT_FALSE(devices::all_available({first}));  // empty registry
    plug(0x100, 1);
    EXPECT_EQ(devices::find_handle_by_mac("00:1b:c5:00:00:01"), 0x100u);
    // The text is matched as given: upper case names no device.
    EXPECT_THROW(devices::find_handle_by_mac("00:1B:C5:00:00:01"),
                 devices::TidewellMissingException);
    EXPECT_THROW(devices::find_handle_by_mac("00:1b:c5:00:00:02"),
                 devices::TidewellMissingException);
    EXPECT_FALSE(devices::all_available({}));
    EXPECT_TRUE(devices::all_available({first}));
    EXPECT_FALSE(devices::all_available({first, second}));
    plug(0x101, 2);
    EXPECT_TRUE(devices::all_available({second, first}));
}

TEST_F(RegistryTest, AnyCapturingAsksEveryDeviceButNotDuringAFirmwareUpdate) {
    EXPECT_FALSE(devices::any_capturing());
    plug(0x100, 1);
    plug(0x101, 2);
    EXPECT_FALSE(devices::any_capturing());
    fake_.set_capturing(0x101, true);
    EXPECT_TRUE(devices::any_capturing());

    auto finished = pretend_update();
    fake_.clear_calls();
    EXPECT_FALSE(devices::any_capturing());
    EXPECT_TRUE(fake_.calls().empty());
    finished->store(true);
    EXPECT_TRUE(devices::any_capturing());

    // A device whose status cannot be read counts as not capturing.
    fake_.set_result("disk_dump_get_status", TIDEWELLAPI_ERROR);
    EXPECT_FALSE(devices::any_capturing());
}

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

TEST_F(OperationsTest, RestartSaveAndSetFeatures) {
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

    // Setting features ignores a failure to set the port speeds.
    fake_.clear_calls();
    device_.features.SlicingLength = 96;
    fake_.set_result("set_device_ports_speed", TIDEWELLAPI_ERROR);
    EXPECT_TRUE(devices::set_features(device_));
    EXPECT_EQ(fake_.calls(), (Calls{"set_device_features", "set_device_ports_speed"}));
    EXPECT_EQ(fake_.device(0x100).features.SlicingLength, 96);

    fake_.set_result("set_device_features", -3);
    EXPECT_FALSE(devices::set_features(device_));
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
