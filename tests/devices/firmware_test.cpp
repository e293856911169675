#include <gtest/gtest.h>

#include "devices/deviceoperations.h"
#include "devices/firmwarestash.h"
#include "devices/tidewellfirmwareupdater.h"
#include "devicetestfixture.h"
#include "support/eventually.h"

namespace vistrel::testing {
namespace {

using devices::FirmwareUpdateStatus;
using devices::TidewellFirmwareUpdater;

constexpr char kMac[] = "00:1b:c5:00:00:01";

class FirmwareUpdaterTest : public DeviceTest {
  protected:
    void SetUp() override {
        DeviceTest::SetUp();
        plug(0x100, 1);
        firmware_ = temp_.file("image.twfw");
        write_file(firmware_, "firmware");
    }

    // The status of `kMac` once the update is over.
    FirmwareUpdateStatus final_status() {
        EXPECT_TRUE(eventually([&] { return !updater_.status(kMac).update_in_progress; }));
        return updater_.status(kMac);
    }

    std::string firmware_;
    TidewellFirmwareUpdater updater_;
};

TEST_F(FirmwareUpdaterTest, RefusedStarts) {
    EXPECT_THROW(updater_.start_update("00:1b:c5:00:00:77", firmware_),
                 devices::TidewellMissingException);
    const std::string too_long(2049, 'a');
    const auto refused = updater_.start_update(kMac, too_long);
    EXPECT_FALSE(refused.success);
    EXPECT_EQ(refused.message, "Firmware filepath [" + too_long + "] is too long. Max size: 2048");
    EXPECT_EQ(fake_.call_count("firmware_update_start"), 0u);

    // The library refuses the file: reported once by the status, then forgotten.
    fake_.set_result("firmware_update_start", TIDEWELLAPI_ERROR_FILE_NOT_FOUND);
    const auto accepted = updater_.start_update(kMac, std::string(2048, 'a'));
    EXPECT_TRUE(accepted.success);
    EXPECT_EQ(accepted.message,
              "Successfully started firmware update of device with mac [00:1b:c5:00:00:01]");
    FirmwareUpdateStatus status;
    EXPECT_TRUE(eventually([&] { return !(status = updater_.status(kMac)).start_success; }));
    EXPECT_FALSE(status.update_success);
    EXPECT_EQ(status.message,
              "The last start of a firmware update fo device [00:1b:c5:00:00:01] failed");
    const FirmwareUpdateStatus next = updater_.status(kMac);
    EXPECT_TRUE(next.start_success);
    EXPECT_FALSE(next.update_in_progress);
    EXPECT_TRUE(eventually([&] { return !updater_.any_running(); }));
    EXPECT_FALSE(devices::firmware_update_in_progress("api_start"));
}

TEST_F(FirmwareUpdaterTest, UpdateRunsGuardsTheDevicesAndCompletes) {
    fake_.set_flash_progress(42);
    ASSERT_TRUE(updater_.start_update(kMac, firmware_).success);
    // The second poll comes after the first progress has been handed to the updater.
    ASSERT_TRUE(eventually([&] { return fake_.call_count("firmware_update_get_progress") >= 2; }));

    // While it runs: a second start is refused and every operation is kept off.
    const auto second = updater_.start_update(kMac, firmware_);
    EXPECT_FALSE(second.success);
    EXPECT_EQ(second.message,
              "Could not start firmware update for device with mac "
              "[00:1b:c5:00:00:01]: Update already in progress");
    EXPECT_TRUE(updater_.any_running());
    auto device = devices::find_device_by_mac(kMac);
    EXPECT_EQ(devices::api_start(device), 7u);
    const FirmwareUpdateStatus running = updater_.status(kMac);
    EXPECT_TRUE(running.update_in_progress);
    EXPECT_EQ(running.update_progress, 42);
    EXPECT_EQ(running.message,
              "The firmware update for device with mac [00:1b:c5:00:00:01] is 42 complete");

    fake_.finish_flash(0);
    const FirmwareUpdateStatus done = final_status();
    EXPECT_TRUE(done.update_success);
    EXPECT_EQ(done.update_progress, 100);
    EXPECT_EQ(done.message,
              "The firmware update for device with mac [00:1b:c5:00:00:01] has completed "
              "successfully");
    // The worker sets its finished flag once the status has seen the completion; the guard then
    // lets operations through and the cleanup thread drops the worker but keeps the entry.
    EXPECT_TRUE(eventually([&] { return !updater_.any_running(); }));
    EXPECT_FALSE(devices::firmware_update_in_progress("api_start"));
    const std::string deleting =
        "Deleting StatsThread because Firmware Update for device [0x100] is complete";
    EXPECT_TRUE(eventually([&] { return log_count(deleting) == 1; }));
    EXPECT_TRUE(updater_.status(kMac).update_success);
}

TEST_F(FirmwareUpdaterTest, ShutDownLeavesARunningFlashToItsOwnThread) {
    fake_.set_flash_progress(10);
    {
        TidewellFirmwareUpdater updater;
        ASSERT_TRUE(updater.start_update(kMac, firmware_).success);
        ASSERT_TRUE(
            eventually([&] { return fake_.call_count("firmware_update_get_progress") >= 1; }));
    }
    EXPECT_EQ(log_count("There are still threads that are updating device firmware. We're "
                        "leaking them"),
              1u);
    EXPECT_TRUE(devices::update_running());
    // The worker ends on its own and frees itself (LeakSanitizer reports it otherwise).
    fake_.finish_flash(0);
    EXPECT_TRUE(eventually([] { return !devices::update_running(); }));
}

class FirmwareCatalogueTest : public DeviceTest {};

TEST_F(FirmwareCatalogueTest, ReadsAttributesAndChildElements) {
    const std::string path = temp_.file("firmware.xml");
    write_file(path,
               "<?xml version=\"1.0\"?>\n<devices>\n"
               "  <device name=\"Pro 1.3\" file=\"pro.twfw\" swversion=\"65539\" hwversion=\"2\" "
               "type=\"Tidewell Pro\"/>\n"
               "  <device><name>Lite</name><file>/abs/lite.twfw</file><swversion>0x10001"
               "</swversion><type>1</type></device>\n"
               "  <device name=\"bad\" file=\"x\" swversion=\"1.2\" type=\"Tidewell Pro\"/>\n"
               "</devices>\n");
    std::vector<devices::FirmwareImage> images;
    ASSERT_TRUE(devices::read_firmware_catalogue(path, images));
    ASSERT_EQ(images.size(), 2u);
    EXPECT_EQ(images[0].name, "Pro 1.3");
    EXPECT_EQ(images[0].path, temp_.file("pro.twfw"));
    EXPECT_EQ(images[0].swversion, 65539u);
    EXPECT_EQ(images[0].hwversion, 2u);
    EXPECT_EQ(images[1].path, "/abs/lite.twfw");
    EXPECT_EQ(images[1].swversion, 0x10001u);
    EXPECT_EQ(images[1].hwversion, 0u);

    devices::StatsThreadInfo pro;
    pro.type = TidewellAPIDeviceType_Pro;
    pro.versions.HardwareVersion = 2;
    pro.versions.FirmwareVersion = 65538;
    const auto for_pro = devices::firmware_for_device(images, pro);
    ASSERT_EQ(for_pro.size(), 1u);
    EXPECT_TRUE(devices::is_newer_firmware(for_pro[0], pro));
    pro.versions.HardwareVersion = 3;
    EXPECT_TRUE(devices::firmware_for_device(images, pro).empty());
    devices::StatsThreadInfo lite;
    lite.type = TidewellAPIDeviceType_Lite;
    lite.versions.HardwareVersion = 7;
    EXPECT_EQ(devices::firmware_for_device(images, lite).size(), 1u);
}

TEST_F(FirmwareCatalogueTest, MissingAndBrokenFiles) {
    std::vector<devices::FirmwareImage> images;
    EXPECT_FALSE(devices::read_firmware_catalogue(temp_.file("nothing.xml"), images));
    const std::string broken = temp_.file("broken.xml");
    write_file(broken, "<devices><device name=\"x\"></devices>");
    EXPECT_FALSE(devices::read_firmware_catalogue(broken, images));
    EXPECT_EQ(log_count("XML [" + broken + "] parsed with errors"), 1u);
}

}  // namespace
}  // namespace vistrel::testing
