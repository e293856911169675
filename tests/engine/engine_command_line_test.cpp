#include <gtest/gtest.h>
#include <stdlib.h>

#include "engine/commandline.h"

namespace vistrel::engine {
namespace {

class CommandLineTest : public ::testing::Test {
  protected:
    void SetUp() override { setenv("QUELLWICK_ROOT", "/opt/qw", 1); }
    void TearDown() override { unsetenv("QUELLWICK_ROOT"); }

    EngineOptions options;
};

const char* const kFlows = " --dump-flows \"es;tidewell;vistrel;http://localhost:9200/_bulk;\"";
const char* const kHttpIndex =
    " --http-tidewell-index \"es;tidewell;http://localhost:9200/_bulk;\"";

TEST_F(CommandLineTest, LiveCaptureOfDevicesAndInterfaces) {
    std::vector<EngineDevice> devices{{"left", "/cap/left", 60, 10, true, 0},
                                      {"right", "/cap/right", 30, 5, true, 0}};
    options.dns_mode_flag = true;
    options.arp_flag = true;
    options.pkt_stats_flag = true;
    EXPECT_EQ(live_command_line(devices, {"eth0", "eth1"}, &options),
              std::string("\"/opt/qw/vistrel/watchkeep/watchkeep\" /c") +
                  " -P \"left;/cap/left;60;10;1\" -P \"right;/cap/right;30;5;1\"" +
                  " --interface \"eth0\" --interface \"eth1\"" + kFlows + kHttpIndex +
                  " --dns-mode 1 --arp-es --pkt-stats-es");
}

TEST_F(CommandLineTest, InterfacesOnlyKeepTheHttpIndex) {
    options.es_host = "10.0.0.5";
    options.es_port = "9201";
    options.flows_index = "flows";
    options.http_index = "web";
    EXPECT_EQ(live_command_line({}, {"eth0"}, &options),
              "\"/opt/qw/vistrel/watchkeep/watchkeep\" /c --interface \"eth0\""
              " --dump-flows \"es;web;flows;http://10.0.0.5:9201/_bulk;\""
              " --http-tidewell-index \"es;web;http://10.0.0.5:9201/_bulk;\" --dns-mode 3");
}

// A device in disk-dump mode 1 drops the HTTP index for all; so does one whose own flag is off,
// checked where the engine reads the server's line.
TEST_F(CommandLineTest, OneUnindexedDeviceDropsTheHttpIndexForAll) {
    std::vector<EngineDevice> devices{{"a", "/c/a", 1, 2, true, 0}, {"b", "/c/b", 1, 2, true, 1}};
    EXPECT_EQ(live_command_line(devices, {}, &options).find("--http-tidewell-index"),
              std::string::npos);
}

TEST_F(CommandLineTest, NothingToCaptureOrNoOptionsIsEmpty) {
    EXPECT_EQ(live_command_line({}, {}, &options), "");
    EXPECT_EQ(live_command_line({}, {"eth0"}, nullptr), "");
    EXPECT_EQ(analysis_command_line("", &options), "");
    EXPECT_EQ(analysis_command_line("/up/a.pcap", nullptr), "");
}

TEST_F(CommandLineTest, AnalysisAlwaysIndexesEverything) {
    options.dns_mode_flag = false;
    EXPECT_EQ(analysis_command_line("/up/a b.pcap", &options),
              std::string("/opt/qw/vistrel/watchkeep/watchkeep /c --interface \"/up/a b.pcap\"") +
                  kFlows + kHttpIndex +
                  " --shutdown-when-done --dns-mode 1 --arp-es --pkt-stats-es --daemon");
}

// Quotes group and vanish; backslashes are plain except before a quote.
TEST(SplitCommandLineTest, QuotingRules) {
    using Args = std::vector<std::string>;
    const std::vector<std::pair<std::string, Args>> cases = {
        {"\"/a b/watchkeep\" /c -P \"x;y z;1\"", {"/a b/watchkeep", "/c", "-P", "x;y z;1"}},
        {"  one\t two  ", {"one", "two"}},
        {"a\"b c\"d \"\"", {"ab cd", ""}},
        {"", {}},
        {"a\\b c\\\\", {"a\\b", "c\\\\"}},
        {"\"a\\\"b\" c\\\\\"d e\"", {"a\"b", "c\\d e"}},
        {"\"say \"\"hi\"\"\"", {"say \"hi\""}},
    };
    for (const auto& [line, expected] : cases)
        EXPECT_EQ(split_command_line(line), expected) << line;
}

}  // namespace
}  // namespace vistrel::engine
