// The engine program on its own, run as the server runs it: a recording HTTP server stands in
// for both the server (/addFile) and Elasticsearch (_bulk).
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <thread>

#include "capture/pcapngwriter.h"
#include "capturefilewriter.h"
#include "host/childprocess.h"
#include "support/elasticsearch_standin.h"
#include "support/eventually.h"
#include "support/temp_dir.h"

namespace vistrel::testing {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using Environment = std::vector<std::pair<std::string, std::string>>;

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

    // The query of every /addFile request, in arrival order.
    std::vector<std::string> reports() const {
        std::vector<std::string> found;
        for (const auto& request : recorder.requests()) {
            if (request.path == "/addFile") found.push_back(request.query);
        }
        return found;
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

// A capture while the server and Elasticsearch are away: the STOP line ends it within the
// server's grace, and what could not be sent waits on disk. The next run, ended by the end of its
// input, sends that first, each item once.
TEST_F(EngineProgramTest, WhatWaitsOnDiskAfterAStopGoesOutWithTheNextRun) {
    recorder.stop();
    const std::string device_folder = folder.file("captures/left");
    const std::vector<std::string> arguments = {"/c", "-P", "left;" + device_folder + ";1;10;1",
                                                "--dump-flows", dump_flows()};
    EngineRun first(folder);
    ASSERT_TRUE(first.start(arguments, environment()));
    // Watching once its folder exists.
    ASSERT_TRUE(eventually([&] { return fs::exists(device_folder); }, 10)) << first.error_output();
    std::this_thread::sleep_for(milliseconds(200));

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
    first.write_input("STOP\r\n");
    EXPECT_EQ(first.wait(7), 0) << first.error_output();
    EXPECT_TRUE(reports().empty());
    EXPECT_FALSE(fs::is_empty(folder.file("captures/.watchkeep-spool")));

    recorder.start();
    EngineRun next(folder);
    ASSERT_TRUE(next.start(arguments, environment()));
    next.close_input();
    EXPECT_EQ(next.wait(7), 0) << next.error_output();
    auto report = [&](int file, uint64_t first, uint64_t last, int packets) {
        return "file_path=" + device_folder + "/left_" + std::to_string(file) +
               ".pcapng&start_ts=" + std::to_string(first) + "&end_ts=" + std::to_string(last) +
               "&n_packets=" + std::to_string(packets) + "&source=left&es_index=vistrel";
    };
    EXPECT_EQ(reports(), (std::vector<std::string>{report(1, base, base + 4, 5),
                                                   report(2, base + 100, base + 100, 1)}));
    // This run had no traffic of its own: the records are those of the first.
    EXPECT_GT(recorder.bulk_document_count(), 0u);
    EXPECT_EQ(recorder.bulk_replaced_count(), 0u);
}

}  // namespace
}  // namespace vistrel::testing
