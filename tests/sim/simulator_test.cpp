// The device simulator as the server sees it: the real libTidewellAPI.so behind the registry.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "capturefilewriter.h"
#include "devices/deviceoperations.h"
#include "devices/deviceregistry.h"
#include "devices/tidewellfirmwareupdater.h"
#include "startup/configuration.h"
#include "startup/logger.h"
#include "support/eventually.h"
#include "support/temp_dir.h"

namespace vistrel::testing {
namespace {

namespace fs = std::filesystem;
using devices::StatsThreadInfo;

constexpr char kFirst[] = "00:1b:c5:00:00:01";
constexpr char kSecond[] = "00:1b:c5:00:00:02";
constexpr char kThird[] = "00:1b:c5:00:00:03";
constexpr char kFourth[] = "00:1b:c5:00:00:04";
constexpr char kFifth[] = "00:1b:c5:00:00:05";

bool present(const std::string& mac) {
    for (const auto& device : devices::snapshot()) {
        if (device.mac_text() == mac) return true;
    }
    return false;
}

std::string device_entry(const std::string& mac, const std::string& extra = "") {
    return "  - mac: \"" + mac + "\"\n    model: \"Tidewell Pro\"\n" + extra;
}

std::vector<std::string> capture_files(const std::string& folder) {
    std::vector<std::string> files;
    std::error_code code;
    for (const auto& entry : fs::directory_iterator(folder, code)) {
        if (entry.path().extension() == ".pcapng") files.push_back(entry.path().string());
    }
    std::sort(files.begin(), files.end());
    return files;
}

class SimulatorTest : public ::testing::Test {
  protected:
    void SetUp() override {
        config_ = temp_.file("tidewell-sim.yml");
        ::setenv("TIDEWELL_SIM_CONFIG", config_.c_str(), 1);
        configuration().capture_path =
            temp_.file("captures");  // before the log level: it resets it
        logger().open(temp_.file("test.log"));
        logger().set_level(kLogTrace);
        devices::clear_registry();
        auto note = [this](std::string what) {
            return [this, what](StatsThreadInfo info) {
                std::lock_guard lock(events_mutex_);
                events_.push_back(what + " " + std::to_string(info.handle));
            };
        };
        devices::set_new_device_subscriber(note("new"));
        devices::set_device_gone_subscriber(note("gone"));
    }

    void TearDown() override {
        if (started_) devices::uninitialise();
        devices::set_new_device_subscriber(nullptr);
        devices::set_device_gone_subscriber(nullptr);
        devices::clear_registry();
        logger().close();
        ::unsetenv("TIDEWELL_SIM_CONFIG");
    }

    // Replaces the simulator file in one step, as an editor that renames would.
    void write_devices(const std::string& entries) {
        const std::string staging = config_ + ".new";
        write_file(staging, "devices:\n" + entries);
        fs::rename(staging, config_);
    }

    void start(const std::string& entries) {
        write_devices(entries);
        ASSERT_EQ(devices::initialise(), 0);
        started_ = true;
    }

    std::vector<std::string> events() {
        std::lock_guard lock(events_mutex_);
        return events_;
    }

    // The registry record of `mac`, configured for a capture into <captures>/<name>.
    StatsThreadInfo capture_device(const std::string& mac, const std::string& name,
                                   uint32_t capture_time, uint32_t max_files, bool loop) {
        StatsThreadInfo device = devices::find_device_by_mac(mac);
        device.name = name;
        device.set_file_name("trace");
        device.dd_config.CaptureTime = capture_time;
        device.dd_config.MaxNrFiles = max_files;
        device.dd_config.LoopCapture = loop ? TidewellAPIState_On : TidewellAPIState_Off;
        device.dd_config.KeepFiles = 0;
        return device;
    }

    TempDir temp_;
    std::string config_;
    bool started_ = false;
    std::mutex events_mutex_;
    std::vector<std::string> events_;
};

// Devices come and go with the file; a device fails only the calls its entry names.
TEST_F(SimulatorTest, DevicesOfTheFileArePluggedAndUnplugged) {
    start(device_entry(kFirst, "    hw_firmware_id: 3\n    firmware_version: 65540\n") +
          device_entry(kThird, "    fail: [TidewellAPIGetVersions]\n"));
    ASSERT_TRUE(eventually([] { return present(kFirst); }));
    EXPECT_FALSE(present(kThird));  // its versions can't be read
    StatsThreadInfo first = devices::find_device_by_mac(kFirst);
    EXPECT_EQ(first.type, TidewellAPIDeviceType_Pro);
    EXPECT_EQ(first.capabilities, 0x30bu);
    EXPECT_EQ(first.features.HWFirmwareId, 3);
    EXPECT_EQ(first.versions.FirmwareVersion, 65540u);
    devices::InterfaceStatus details;
    EXPECT_TRUE(devices::get_iface_status(first, &details));
    EXPECT_EQ(details.link.PortCount, 2u);
    EXPECT_EQ(details.link.Ports[0].LinkUp, TidewellAPIState_On);

    const std::string lite =
        "  - mac: \"00:1B:C5:00:00:02\"\n    model: \"Tidewell Lite\"\n    capabilities: 0x309\n"
        "    fail: [TidewellAPIRestartDevice, TidewellAPIDiskDumpStart]\n";
    write_devices(device_entry(kFirst) + lite);
    ASSERT_TRUE(eventually([] { return present(kSecond); }));
    StatsThreadInfo second = capture_device(kSecond, "second", 0, 0, false);
    EXPECT_EQ(second.type, TidewellAPIDeviceType_Lite);
    EXPECT_EQ(second.capabilities, 0x309u);
    EXPECT_EQ(devices::api_restart_device(second), 6u);
    EXPECT_EQ(devices::api_start(second), 1u);
    EXPECT_TRUE(devices::get_dd_status(second));
    write_devices(lite);
    ASSERT_TRUE(eventually([] { return !present(kFirst); }));
    EXPECT_TRUE(present(kSecond));
    EXPECT_EQ(events().back(), "gone " + std::to_string(first.handle));
    // Plugged in again, it keeps its handle.
    write_devices(lite + device_entry(kFirst));
    ASSERT_TRUE(eventually([] { return present(kFirst); }));
    EXPECT_EQ(devices::find_handle_by_mac(kFirst), first.handle);
    // A file that is no YAML leaves the devices as they are.
    write_file(config_, "devices: [\n");
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(devices::snapshot().size(), 2u);
}

// Captures write rotating pcapng files of well-formed traffic and stop at their file limit
// unless they loop; unplugged, restarted or shut down, a capturing device leaves complete files.
TEST_F(SimulatorTest, CapturesRotateStopAtTheirLimitAndEndCleanly) {
    const std::string fast = "    packets_per_second: 1500\n";
    const std::string slow = "    packets_per_second: 100\n";
    const std::string others = device_entry(kFirst, fast) + device_entry(kSecond, slow) +
                               device_entry(kThird, slow) + device_entry(kFifth, slow);
    start(others + device_entry(kFourth, slow));
    ASSERT_TRUE(eventually([] { return devices::snapshot().size() == 5; }));
    StatsThreadInfo rotating = capture_device(kFirst, "tap one", 1, 0, false);
    StatsThreadInfo limited = capture_device(kSecond, "limited", 1, 2, false);
    StatsThreadInfo ring = capture_device(kThird, "ring", 1, 2, true);
    StatsThreadInfo unplugged = capture_device(kFourth, "unplugged", 0, 0, false);
    StatsThreadInfo restarted = capture_device(kFifth, "restarted", 0, 0, false);
    for (auto* device : {&rotating, &limited, &ring, &unplugged, &restarted})
        ASSERT_EQ(devices::api_start(*device), 0u);
    EXPECT_TRUE(devices::is_device_capturing(rotating));
    EXPECT_TRUE(devices::any_capturing());
    EXPECT_EQ(devices::api_start(rotating), 2u);

    write_devices(others);
    ASSERT_TRUE(eventually([] { return !present(kFourth); }));
    const size_t before = events().size();
    ASSERT_EQ(devices::api_restart_device(restarted), 0u);
    // It goes and comes back with its handle.
    ASSERT_TRUE(eventually([&] { return events().size() >= before + 2; }));
    const std::string handle = std::to_string(restarted.handle);
    const auto all = events();
    EXPECT_EQ(std::vector<std::string>(all.begin() + before, all.end()),
              (std::vector<std::string>{"gone " + handle, "new " + handle}));
    EXPECT_TRUE(present(kFifth));
    EXPECT_FALSE(devices::is_device_capturing(restarted));

    ASSERT_TRUE(eventually([&] { return !devices::is_device_capturing(limited); }));
    EXPECT_EQ(capture_files(configuration().capture_path + "/limited").size(), 2u);
    EXPECT_EQ(devices::api_stop(limited), 0u);
    const std::string folder = configuration().capture_path + "/tap one";
    ASSERT_TRUE(eventually([&] {
        devices::get_dd_status(ring);
        return ring.dd_status.FilesWritten >= 3 && capture_files(folder).size() >= 3;
    }));
    ASSERT_EQ(devices::api_stop(rotating), 0u);
    EXPECT_FALSE(devices::is_device_capturing(rotating));
    ASSERT_TRUE(devices::get_dd_status(rotating));
    EXPECT_GT(rotating.dd_status.PacketsWritten, 0u);
    // The ring keeps only the newest files, until the library shuts down.
    EXPECT_TRUE(devices::is_device_capturing(ring));
    ASSERT_EQ(devices::uninitialise(), 0);
    started_ = false;
    for (const auto& [name, count] :
         {std::pair{"unplugged", 1u}, {"restarted", 1u}, {"ring", 2u}}) {
        const auto files = capture_files(configuration().capture_path + "/" + name);
        ASSERT_EQ(files.size(), count) << name;
        for (const auto& file : files)
            EXPECT_EQ(std::system(("capinfos '" + file + "' >/dev/null 2>&1").c_str()), 0) << file;
    }
    EXPECT_EQ(capture_files(configuration().capture_path + "/ring")[0].find("_00001.pcapng"),
              std::string::npos);

    const std::vector<std::string> files = capture_files(folder);
    ASSERT_GE(files.size(), 3u);
    uint64_t packets = 0;
    for (const auto& file : files) {
        EXPECT_EQ(fs::path(file).filename().string().rfind("trace_", 0), 0u) << file;
        const std::string info = run_command("capinfos -M '" + file + "' 2>&1");
        for (const char* line :
             {"File type:           pcapng", "Number of interfaces in file: 2",
              "File timestamp precision:  nanoseconds (9)", "Number of packets:"}) {
            EXPECT_NE(info.find(line), std::string::npos) << info;
        }
        packets += std::strtoull(info.c_str() + info.find("Number of packets:") + 18, nullptr, 10);
    }
    EXPECT_EQ(packets, rotating.dd_status.PacketsWritten);

    // Every frame decodes, with good checksums, and all kinds of traffic are there.
    const std::string tshark =
        "tshark -o ip.check_checksum:TRUE -o tcp.check_checksum:TRUE -o udp.check_checksum:TRUE "
        "-r '" +
        files[0] + "' ";
    const std::string protocols = run_command(tshark + "-T fields -e frame.protocols 2>&1");
    for (const char* kind :
         {"eth:ethertype:ip:tcp", "eth:ethertype:ip:udp", "eth:ethertype:ipv6:tcp",
          "eth:ethertype:ipv6:udp", "eth:ethertype:arp"}) {
        EXPECT_NE(protocols.find(kind), std::string::npos) << kind;
    }
    const std::string bad =
        run_command(tshark +
                    "-Y 'ip.checksum.status == 0 || tcp.checksum.status == 0 || "
                    "udp.checksum.status == 0 || _ws.malformed || "
                    "_ws.expert.severity >= 8388608' 2>/dev/null | wc -l");
    EXPECT_EQ(std::strtoul(bad.c_str(), nullptr, 10), 0u) << bad;
    EXPECT_EQ(run_command(tshark + "-T fields -e frame.interface_id | sort -u | tr '\\n' ' '"),
              "0 1 ");
}

TEST_F(SimulatorTest, FirmwareFlashReportsProgressThenItsEnd) {
    start(device_entry(kFirst, "    firmware_update_seconds: 2.5\n") +
          device_entry(kSecond,
                       "    firmware_update_seconds: 0.5\n    firmware_update_fails: true\n"));
    ASSERT_TRUE(eventually([] { return present(kFirst) && present(kSecond); }));
    const std::string image = temp_.file("image.twfw");
    write_file(image, "firmware image");
    devices::TidewellFirmwareUpdater updater;
    EXPECT_TRUE(updater.start_update(kFirst, temp_.file("missing.twfw")).success);
    ASSERT_TRUE(eventually([&] { return !updater.any_running(); }));
    EXPECT_FALSE(updater.status(kFirst).start_success);  // the library refused the missing file

    ASSERT_TRUE(updater.start_update(kFirst, image).success);
    std::set<int32_t> seen;
    ASSERT_TRUE(eventually([&] {
        const auto status = updater.status(kFirst);
        if (status.update_in_progress) seen.insert(status.update_progress);
        return !status.update_in_progress;
    }));
    EXPECT_TRUE(updater.status(kFirst).update_success);
    EXPECT_GE(seen.size(), 2u);  // at least 0 and one later value
    for (int32_t progress : seen) EXPECT_LT(progress, 100);

    ASSERT_TRUE(eventually([&] { return !updater.any_running(); }));
    ASSERT_TRUE(updater.start_update(kSecond, image).success);
    ASSERT_TRUE(eventually([&] { return !updater.status(kSecond).update_in_progress; }));
    EXPECT_FALSE(updater.status(kSecond).update_success);
    ASSERT_TRUE(eventually([&] { return !updater.any_running(); }));
}

// Plugging and unplugging while request threads run operations: no finding under the
// sanitizers, no deadlock.
TEST_F(SimulatorTest, PluggingWhileOperationsRun) {
    start(device_entry(kFirst, "    packets_per_second: 300\n") + device_entry(kSecond));
    ASSERT_TRUE(eventually([] { return devices::snapshot().size() == 2; }));
    std::atomic<bool> stop{false};
    std::atomic<int> rounds{0};
    auto worker = [&](int index) {
        while (!stop) {
            for (auto device : devices::snapshot()) {
                device.name = "stress" + std::to_string(index);
                device.set_file_name("s");
                device.dd_config.CaptureTime = 1;
                devices::InterfaceStatus details;
                devices::get_iface_status(device, &details);
                if (devices::api_start(device) == 0) devices::api_stop(device);
                devices::is_device_capturing(device);
                devices::any_capturing();
                devices::all_available({device});
                try {
                    devices::find_handle_by_mac(device.mac_text());
                } catch (const devices::TidewellMissingException&) {
                }
            }
            ++rounds;
        }
    };
    std::thread first(worker, 1);
    std::thread second(worker, 2);
    for (int cycle = 0; cycle < 6; ++cycle) {
        write_devices(device_entry(kSecond));
        ASSERT_TRUE(eventually([] { return !present(kFirst); }));
        write_devices(device_entry(kSecond) +
                      device_entry(kFirst, "    packets_per_second: 300\n"));
        ASSERT_TRUE(eventually([] { return present(kFirst); }));
    }
    StatsThreadInfo restarting = devices::find_device_by_mac(kSecond);
    devices::restart_device(restarting);
    stop = true;
    first.join();
    second.join();
    EXPECT_GT(rounds.load(), 0);
}

}  // namespace
}  // namespace vistrel::testing
