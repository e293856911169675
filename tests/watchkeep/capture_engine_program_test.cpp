// The engine program on its own, run as the server runs it: a recording HTTP server stands in
// for both the server (/addFile) and Elasticsearch (_bulk).
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "capture/pcapngwriter.h"
#include "capturefilewriter.h"
#include "host/childprocess.h"
#include "support/elasticsearch_standin.h"
#include "support/eventually.h"
#include "support/temp_dir.h"
#include "watchkeep/loopback_traffic.h"

namespace vistrel::testing {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using Environment = std::vector<std::pair<std::string, std::string>>;
using Arguments = std::map<std::string, std::string>;

// The real engine with a pipe on its standard input and its standard error kept in a file.
class EngineRun {
  public:
    explicit EngineRun(const TempDir& folder) : error_path_(folder.file("engine.err")) {}

    // `wrapper` runs the engine (e.g. with fewer privileges) when given.
    bool start(const std::vector<std::string>& arguments, Environment environment,
               const std::vector<std::string>& wrapper = {}) {
        std::vector<std::string> command = {"/bin/sh", "-c", "exec \"$@\" 2>\"$ENGINE_ERR\"", "sh"};
        command.insert(command.end(), wrapper.begin(), wrapper.end());
        command.push_back(WATCHKEEP_PATH);
        command.insert(command.end(), arguments.begin(), arguments.end());
        environment.emplace_back("ENGINE_ERR", error_path_);
        host::ChildProcess::Options options;
        options.input = host::ChildProcess::Stream::kPipe;
        options.output = host::ChildProcess::Stream::kNull;
        options.environment = std::move(environment);
        return child_.start(command, options);
    }
    void write_input(const std::string& text) {
        [[maybe_unused]] ssize_t written = write(child_.input().get(), text.data(), text.size());
    }
    void close_input() { child_.input().reset(); }
    // The exit code, or nothing when still running after `seconds`.
    std::optional<int> wait(int seconds) {
        std::optional<int> status;
        eventually([&] { return (status = child_.exit_status()).has_value(); }, seconds);
        return status;
    }
    std::string error_output() const { return read_file(error_path_); }

  private:
    std::string error_path_;
    host::ChildProcess child_;
};

class EngineProgramTest : public ::testing::Test {
  protected:
    Environment environment() const {
        return {{"VISTREL_SERVER_URL", recorder.address()},
                {"VISTREL_CAPTURE_PATH", folder.file("captures")},
                {"VISTREL_FILE_SECONDS", "60"},
                {"TMPDIR", folder.path()},
                {"HOME", folder.path()}};
    }
    std::string dump_flows() const {
        return "es;tidewell;vistrel;" + recorder.address() + "/_bulk;";
    }

    // The query arguments of every /addFile request, in arrival order.
    std::vector<Arguments> reports() const {
        std::vector<Arguments> found;
        for (const auto& request : recorder.requests()) {
            if (request.path != "/addFile") continue;
            std::istringstream query(request.query);
            Arguments& arguments = found.emplace_back();
            for (std::string pair; std::getline(query, pair, '&');)
                arguments[pair.substr(0, pair.find('='))] = pair.substr(pair.find('=') + 1);
        }
        return found;
    }
    // The flow records received that go to `port`.
    std::vector<nlohmann::json> flows_to(uint16_t port) const {
        std::vector<nlohmann::json> found;
        for (const auto& [index, documents] : recorder.bulk_documents()) {
            for (const auto& text : documents) {
                auto record = nlohmann::json::parse(text, nullptr, false);
                if (record.is_object() && record.value("L4_DST_PORT", 0) == port)
                    found.push_back(record);
            }
        }
        return found;
    }
    // Packets, first and last time of a file as Wireshark's capinfos reads it, and the same
    // from a registration.
    static std::string capinfos(const std::string& path) {
        std::string line = run_command("capinfos -T -r -c -a -e -S -M '" + path + "'");
        return line.substr(line.find('\t') + 1);
    }
    static std::string described(const Arguments& report) {
        auto seconds = [](const std::string& ns) {
            return ns.substr(0, ns.size() - 9) + "." + ns.substr(ns.size() - 9);
        };
        return report.at("n_packets") + "\t" + seconds(report.at("start_ts")) + "\t" +
               seconds(report.at("end_ts")) + "\n";
    }

    TempDir folder;
    ElasticsearchStandIn recorder;
};

TEST_F(EngineProgramTest, WhatCannotBeUsedEndsWithOneLineAndCode2) {
    write_file(folder.file("plain"), "a file, not a folder");
    struct Case {
        std::vector<std::string> arguments;
        Environment extra;
        std::vector<std::string> wrapper;
        std::string says;
    };
    const std::vector<Case> cases = {
        {{"--bogus"}, {}, {}, "unknown argument '--bogus'"},
        {{"--interface", "nosuch9"}, {}, {}, "network interface 'nosuch9' does not exist"},
        {{"--interface", "lo"}, {{"VISTREL_FILE_SECONDS", "0"}}, {}, "VISTREL_FILE_SECONDS"},
        {{"-P", "left;" + folder.file("plain") + ";60;10;1"},
         {},
         {},
         "cannot watch device folder '" + folder.file("plain") + "'"},
        {{"--interface", "lo"},
         {},
         {"/usr/bin/setpriv", "--bounding-set=-net_raw", "--"},
         "needs root or the CAP_NET_RAW capability"},
    };
    for (const auto& test : cases) {
        std::vector<std::string> arguments = {"/c", "--dump-flows", dump_flows()};
        arguments.insert(arguments.end(), test.arguments.begin(), test.arguments.end());
        Environment environment = this->environment();
        environment.insert(environment.end(), test.extra.begin(), test.extra.end());
        EngineRun run(folder);
        ASSERT_TRUE(run.start(arguments, environment, test.wrapper));
        EXPECT_EQ(run.wait(10), 2) << test.says;
        const std::string error = run.error_output();
        EXPECT_NE(error.find(test.says), std::string::npos) << error;
        EXPECT_EQ(std::count(error.begin(), error.end(), '\n'), 1) << error;
    }
}

// A live capture and a device folder while the server and Elasticsearch are away: the STOP line
// ends it within the server's grace, every packet in a file, and what could not be sent waits on
// disk. The next run, an analysis that ends by itself, sends that first, each item once.
TEST_F(EngineProgramTest, CapturesEndOnStopAndWhatWaitsOnDiskGoesOutWithTheNextRun) {
    recorder.stop();
    const std::string lo_folder = folder.file("captures/lo");
    const std::string device_folder = folder.file("captures/left");
    EngineRun live(folder);
    ASSERT_TRUE(live.start({"/c", "--interface", "lo", "-P", "left;" + device_folder + ";1;10;1",
                            "--dump-flows", dump_flows(), "--dns-mode", "3"},
                           environment()));
    // Capturing once its folders exist.
    ASSERT_TRUE(eventually([&] { return fs::exists(lo_folder) && fs::exists(device_folder); }, 10))
        << live.error_output();
    std::this_thread::sleep_for(milliseconds(300));
    LoopbackTraffic traffic;
    traffic.send(300);

    // A device closes one file and is still writing the next when the capture stops.
    const uint64_t base = 1795428000ULL * 1'000'000'000ULL;
    const std::string frame = udp_frame(80, "10.0.0.1", "10.0.0.2", 1000, 53);
    const auto* data = reinterpret_cast<const uint8_t*>(frame.data());
    capture::PcapngWriter closed;
    capture::PcapngWriter still_open;
    ASSERT_TRUE(closed.open(device_folder + "/left_1.pcapng", {"port A", "port B"}));
    ASSERT_TRUE(still_open.open(device_folder + "/left_2.pcapng", {"port A", "port B"}));
    for (uint64_t i = 0; i < 5; ++i) closed.write_packet(i % 2, base + i, data, 80);
    closed.close();
    still_open.write_packet(0, base + 100, data, 80);
    still_open.flush();
    std::this_thread::sleep_for(milliseconds(300));

    live.write_input("STOP\r\n");
    EXPECT_EQ(live.wait(7), 0) << live.error_output();
    std::vector<std::string> files;
    for (const auto& entry : fs::directory_iterator(lo_folder)) files.push_back(entry.path());
    ASSERT_EQ(files.size(), 1u);
    const std::string lo_file = files[0];
    EXPECT_TRUE(fs::path(lo_file).filename().string().starts_with("lo_"));
    EXPECT_TRUE(lo_file.ends_with("_00001.pcapng"));
    const std::string udp = run_command("tshark -r '" + lo_file + "' -Y 'udp.dstport==" +
                                        std::to_string(traffic.port()) + "' | wc -l");
    EXPECT_EQ(std::stoi(udp), 300);
    EXPECT_FALSE(fs::is_empty(folder.file("captures/.watchkeep-spool")));

    recorder.start();
    const std::string trace = folder.file("trace.pcap");
    PcapBuilder pcap;
    for (uint32_t i = 0; i < 7; ++i)
        pcap.record(1795428000 + i, 250, udp_frame(90, "10.0.0.3", "10.0.0.4", 5000, 80));
    write_file(trace, pcap.bytes());
    EngineRun analysis(folder);
    ASSERT_TRUE(analysis.start(
        {"/c", "--interface", trace, "--dump-flows", dump_flows(), "--http-tidewell-index",
         "es;tidewell;" + recorder.address() + "/_bulk;", "--shutdown-when-done", "--dns-mode", "1",
         "--arp-es", "--pkt-stats-es", "--daemon"},
        environment()));
    // Its standard input stays open: it ends because the file is done.
    EXPECT_EQ(analysis.wait(10), 0) << analysis.error_output();

    std::vector<Arguments> registered = reports();
    ASSERT_EQ(registered.size(), 4u);
    EXPECT_EQ(registered[3], (Arguments{{"file_path", trace},
                                        {"source", "upload"},
                                        {"n_packets", "7"},
                                        {"start_ts", "1795428000000250000"},
                                        {"end_ts", "1795428006000250000"},
                                        {"es_index", "vistrel"}}));
    std::map<std::string, Arguments> by_path;
    for (const auto& report : registered) by_path[report.at("file_path")] = report;
    EXPECT_EQ(by_path[lo_file]["source"], "lo");
    EXPECT_EQ(capinfos(lo_file), described(by_path[lo_file]));
    EXPECT_EQ(by_path[device_folder + "/left_1.pcapng"],
              (Arguments{{"file_path", device_folder + "/left_1.pcapng"},
                         {"source", "left"},
                         {"n_packets", "5"},
                         {"start_ts", std::to_string(base)},
                         {"end_ts", std::to_string(base + 4)},
                         {"es_index", "vistrel"}}));
    EXPECT_EQ(by_path[device_folder + "/left_2.pcapng"]["n_packets"], "1");

    const auto flows = flows_to(traffic.port());
    ASSERT_EQ(flows.size(), 1u);
    EXPECT_EQ(flows[0]["INTERFACE"], "lo");
    for (const char* field : {"@timestamp", "IP_SRC", "IP_DST", "L4_SRC_PORT", "IP_PROTOCOL",
                              "MAC_SRC", "MAC_DST", "ETH_TYPE"}) {
        EXPECT_TRUE(flows[0].contains(field)) << field << " missing in " << flows[0].dump();
    }
}

TEST_F(EngineProgramTest, TheEndOfInputEndsACapture) {
    EngineRun run(folder);
    ASSERT_TRUE(run.start(
        {"/c", "-P", "left;" + folder.file("left") + ";1;10;1", "--dump-flows", dump_flows()},
        environment()));
    ASSERT_TRUE(eventually([&] { return fs::exists(folder.file("left")); }, 10));
    run.close_input();
    EXPECT_EQ(run.wait(7), 0) << run.error_output();
}

}  // namespace
}  // namespace vistrel::testing
