// The engine program on its own, run as the server runs it: a recording HTTP server stands in
// for both the server (/addFile) and Elasticsearch (_bulk).
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <thread>

#include "capture/pcapngwriter.h"
#include "capturefilewriter.h"
#include "support/elasticsearch_standin.h"
#include "support/temp_dir.h"
#include "watchkeep/engine_runner.h"
#include "watchkeep/loopback_traffic.h"

namespace vistrel::testing {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::seconds;

class WatchkeepProgramTest : public ::testing::Test {
  protected:
    EngineRunner::Environment environment() const {
        return {{"VISTREL_SERVER_URL", recorder.address()},
                {"VISTREL_CAPTURE_PATH", folder.file("captures")},
                {"VISTREL_FILE_SECONDS", "60"},
                {"TMPDIR", folder.path()},
                {"HOME", folder.path()}};
    }
    std::string dump_flows() const {
        return "es;tidewell;vistrel;" + recorder.address() + "/_bulk;";
    }

    std::vector<RecordedRequest> reports() const {
        std::vector<RecordedRequest> found;
        for (const auto& request : recorder.requests()) {
            if (request.path == "/addFile") found.push_back(request);
        }
        return found;
    }
    // One query argument of a recorded request.
    static std::string argument(const RecordedRequest& request, const std::string& name) {
        const std::string query = "&" + request.query;
        size_t at = query.find("&" + name + "=");
        if (at == std::string::npos) return "";
        at += name.size() + 2;
        return query.substr(at, query.find('&', at) - at);
    }
    // Packets, first and last time of a file as Wireshark's capinfos reads it.
    static std::string capinfos(const std::string& path) {
        std::string line = run_command("capinfos -T -r -c -a -e -S -M '" + path + "'");
        return line.substr(line.find('\t') + 1);
    }
    static std::string seconds_text(const std::string& nanoseconds) {
        return nanoseconds.substr(0, nanoseconds.size() - 9) + "." +
               nanoseconds.substr(nanoseconds.size() - 9);
    }

    TempDir folder;
    ElasticsearchStandIn recorder;
    EngineRunner engine{folder};
};

TEST_F(WatchkeepProgramTest, WhatCannotBeUsedEndsWithOneLineAndCode2) {
    write_file(folder.file("plain"), "a file, not a folder");
    struct Case {
        std::vector<std::string> arguments;
        EngineRunner::Environment extra;
        std::string says;
    };
    const std::vector<Case> cases = {
        {{"/c", "--interface", "lo", "--bogus"}, {}, "unknown argument '--bogus'"},
        {{"/c", "--interface", folder.file("missing.pcap")}, {}, "No such file or directory"},
        {{"/c", "--interface", "nosuch9"}, {}, "network interface 'nosuch9' does not exist"},
        {{"/c", "--interface", "lo"}, {{"VISTREL_FILE_SECONDS", "0"}}, "VISTREL_FILE_SECONDS"},
        {{"/c", "-P", "left;" + folder.file("plain") + ";60;10;1"},
         {},
         "cannot watch device folder '" + folder.file("plain") + "'"},
    };
    for (const auto& test : cases) {
        std::vector<std::string> arguments = test.arguments;
        if (arguments.back() != "--bogus") {
            arguments.push_back("--dump-flows");
            arguments.push_back(dump_flows());
        }
        EngineRunner::Environment environment = this->environment();
        environment.insert(environment.end(), test.extra.begin(), test.extra.end());
        EngineRunner run(folder);
        run.start(arguments, environment);
        ASSERT_TRUE(run.started());
        EXPECT_EQ(run.wait(seconds(10)), 2) << test.says;
        const std::string error = run.error_output();
        EXPECT_NE(error.find(test.says), std::string::npos) << error;
        EXPECT_EQ(std::count(error.begin(), error.end(), '\n'), 1) << error;
    }
}

TEST_F(WatchkeepProgramTest, CaptureWithoutPrivilegesSaysWhatIsNeeded) {
    engine.start({"/c", "--interface", "lo", "--dump-flows", dump_flows()}, environment(),
                 {"/usr/bin/setpriv", "--bounding-set=-net_raw", "--"});
    EXPECT_EQ(engine.wait(seconds(10)), 2);
    EXPECT_NE(engine.error_output().find("needs root or the CAP_NET_RAW capability"),
              std::string::npos)
        << engine.error_output();
}

TEST_F(WatchkeepProgramTest, StopLineEndsALiveCaptureWithEveryPacketFiledAndRegistered) {
    engine.start({"/c", "--interface", "lo", "--dump-flows", dump_flows(), "--dns-mode", "3"},
                 environment());
    // The capture is open once its folder exists.
    const std::string lo_folder = folder.file("captures/lo");
    for (int i = 0; i < 100 && !fs::exists(lo_folder); ++i)
        std::this_thread::sleep_for(milliseconds(50));
    ASSERT_TRUE(fs::exists(lo_folder)) << engine.error_output();
    std::this_thread::sleep_for(milliseconds(300));
    LoopbackTraffic traffic;
    traffic.send(300);

    const auto stopped_at = std::chrono::steady_clock::now();
    engine.write_input("STOP\r\n");
    EXPECT_EQ(engine.wait(seconds(7)), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - stopped_at, seconds(5));

    std::vector<std::string> files;
    for (const auto& entry : fs::directory_iterator(lo_folder)) files.push_back(entry.path());
    ASSERT_EQ(files.size(), 1u);
    EXPECT_TRUE(fs::path(files[0]).filename().string().starts_with("lo_"));
    EXPECT_TRUE(files[0].ends_with("_00001.pcapng"));
    const std::string udp = run_command("tshark -r '" + files[0] + "' -Y 'udp.dstport==" +
                                        std::to_string(traffic.port()) + "' | wc -l");
    EXPECT_EQ(std::stoi(udp), 300);

    const auto registered = reports();
    ASSERT_EQ(registered.size(), 1u);
    EXPECT_EQ(argument(registered[0], "file_path"), files[0]);
    EXPECT_EQ(argument(registered[0], "source"), "lo");
    EXPECT_EQ(argument(registered[0], "es_index"), "vistrel");
    EXPECT_EQ(capinfos(files[0]), argument(registered[0], "n_packets") + "\t" +
                                      seconds_text(argument(registered[0], "start_ts")) + "\t" +
                                      seconds_text(argument(registered[0], "end_ts")) + "\n");
}

TEST_F(WatchkeepProgramTest, DeviceFilesAreTakenUntilTheEndOfInput) {
    const std::string device_folder = folder.file("captures/left");
    engine.start({"/c", "-P", "left;" + device_folder + ";1;10;1", "--dump-flows", dump_flows()},
                 environment());
    for (int i = 0; i < 100 && !fs::exists(device_folder); ++i)
        std::this_thread::sleep_for(milliseconds(50));
    ASSERT_TRUE(fs::exists(device_folder)) << engine.error_output();
    std::this_thread::sleep_for(milliseconds(200));

    // A device closes one file and is still writing the next when the input ends.
    const uint64_t base = 1795428000ULL * 1'000'000'000ULL;
    {
        capture::PcapngWriter writer;
        ASSERT_TRUE(writer.open(device_folder + "/left_1.pcapng", {"port A", "port B"}));
        for (uint64_t i = 0; i < 5; ++i) {
            std::string frame = udp_frame(80, "10.0.0.1", "10.0.0.2", 1000, 53);
            writer.write_packet(i % 2, base + i, reinterpret_cast<const uint8_t*>(frame.data()),
                                static_cast<uint32_t>(frame.size()));
        }
    }
    capture::PcapngWriter open_writer;
    ASSERT_TRUE(open_writer.open(device_folder + "/left_2.pcapng", {"port A", "port B"}));
    std::string frame = udp_frame(80, "10.0.0.1", "10.0.0.2", 1000, 53);
    open_writer.write_packet(0, base + 100, reinterpret_cast<const uint8_t*>(frame.data()),
                             static_cast<uint32_t>(frame.size()));
    open_writer.flush();
    std::this_thread::sleep_for(milliseconds(300));

    engine.close_input();
    EXPECT_EQ(engine.wait(seconds(7)), 0);
    const auto registered = reports();
    ASSERT_EQ(registered.size(), 2u);
    EXPECT_EQ(argument(registered[0], "file_path"), device_folder + "/left_1.pcapng");
    EXPECT_EQ(argument(registered[0], "n_packets"), "5");
    EXPECT_EQ(argument(registered[0], "start_ts"), std::to_string(base));
    EXPECT_EQ(argument(registered[0], "end_ts"), std::to_string(base + 4));
    EXPECT_EQ(argument(registered[0], "source"), "left");
    EXPECT_EQ(argument(registered[1], "file_path"), device_folder + "/left_2.pcapng");
    EXPECT_EQ(argument(registered[1], "n_packets"), "1");
}

TEST_F(WatchkeepProgramTest, AnalysisRegistersTheFileAsAnUploadAndEndsByItself) {
    const std::string file = folder.file("trace.pcap");
    PcapBuilder pcap;
    for (uint32_t i = 0; i < 7; ++i)
        pcap.record(1795428000 + i, 250, udp_frame(90, "10.0.0.3", "10.0.0.4", 5000, 80));
    write_file(file, pcap.bytes());
    engine.start({"/c", "--interface", file, "--dump-flows", dump_flows(), "--http-tidewell-index",
                  "es;tidewell;" + recorder.address() + "/_bulk;", "--shutdown-when-done",
                  "--dns-mode", "1", "--arp-es", "--pkt-stats-es", "--daemon"},
                 environment());
    // Standard input stays open: the engine ends because the file is done.
    EXPECT_EQ(engine.wait(seconds(10)), 0) << engine.error_output();
    const auto registered = reports();
    ASSERT_EQ(registered.size(), 1u);
    EXPECT_EQ(argument(registered[0], "file_path"), file);
    EXPECT_EQ(argument(registered[0], "source"), "upload");
    EXPECT_EQ(argument(registered[0], "n_packets"), "7");
    EXPECT_EQ(argument(registered[0], "start_ts"), "1795428000000250000");
    EXPECT_EQ(argument(registered[0], "end_ts"), "1795428006000250000");
}

}  // namespace
}  // namespace vistrel::testing
