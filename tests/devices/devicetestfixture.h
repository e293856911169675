#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>

#include "devices/deviceregistry.h"
#include "devices/firmwareguard.h"
#include "fakedevicelibrary.h"
#include "startup/configuration.h"
#include "startup/logger.h"
#include "support/temp_dir.h"

namespace vistrel::testing {

// A fake library, an empty registry, a fresh log at trace level, a temporary capture folder.
class DeviceTest : public ::testing::Test {
  protected:
    void SetUp() override {
        devices::clear_registry();
        devices::set_new_device_subscriber(nullptr);
        devices::set_device_gone_subscriber(nullptr);
        devices::set_running_update(nullptr);
        // The first use of the configuration resets the log level, so it comes first.
        configuration().capture_path = temp_.file("captures");
        logger().open(temp_.file("test.log"));
        logger().set_level(kLogTrace);
    }

    void TearDown() override {
        devices::set_running_update(nullptr);
        devices::clear_registry();
        logger().close();
    }

    // Adds a device to the fake library and announces it.
    devices::StatsThreadInfo plug(TidewellAPIHandle handle, uint8_t mac_last) {
        fake_.add_device(handle, FakeDeviceLibrary::device_with_mac(mac_last));
        devices::on_new_device(handle, nullptr);
        return devices::find_device_by_mac(devices::mac_to_text(fake_.device(handle).mac));
    }

    // How often the log holds `text`.
    size_t log_count(const std::string& text) const {
        const std::string all = read_file(temp_.file("test.log"));
        size_t count = 0;
        for (size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + 1)) {
            ++count;
        }
        return count;
    }

    // Makes a firmware update look running until the returned flag is set.
    std::shared_ptr<std::atomic<bool>> pretend_update() {
        auto finished = std::make_shared<std::atomic<bool>>(false);
        devices::set_running_update(finished);
        return finished;
    }

    TempDir temp_;
    FakeDeviceLibrary fake_;
};

}  // namespace vistrel::testing
