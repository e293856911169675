#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "capturefilewriter.h"
#include "dashboard/dashboardfilter.h"
#include "dashboard/dashboardtime.h"
#include "startup/logger.h"
#include "support/temp_dir.h"

namespace vistrel::dashboard {
namespace {

using testing::read_file;
using testing::TempDir;
using testing::write_file;

constexpr uint64_t kNano = 1000000000ull;
constexpr std::time_t kWednesday = 1710343845;  // 2024-03-13 15:30:45 UTC
constexpr std::time_t kMarch13 = 1710288000;    // 2024-03-13 00:00:00 UTC
constexpr std::time_t kDay = 86400;

uint64_t ns(std::time_t seconds) {
    return static_cast<uint64_t>(seconds) * kNano;
}

TEST(DashboardTime, AbsoluteMillisecondsAreNeverRounded) {
    EXPECT_EQ(translate_timestamp("1573430400123", true, kWednesday), 1573430400123000000ull);
    EXPECT_EQ(translate_timestamp("1573430400123/d", false, kWednesday), 1573430400123000000ull);
    EXPECT_EQ(translate_timestamp("5", true, kWednesday), 5000000ull);
}

TEST(DashboardTime, RelativeTimesCountBackFromNow) {
    EXPECT_EQ(translate_timestamp("now", true, kWednesday), ns(kWednesday));
    EXPECT_EQ(translate_timestamp("now-6h", true, kWednesday), ns(kWednesday - 6 * 3600));
    EXPECT_EQ(translate_timestamp("now-30s", false, kWednesday), ns(kWednesday - 30));
    EXPECT_EQ(translate_timestamp("now-15m", false, kWednesday), ns(kWednesday - 900));
    EXPECT_EQ(translate_timestamp("now-2d", true, kWednesday), ns(kWednesday - 2 * kDay));
    EXPECT_EQ(translate_timestamp("now-1w", true, kWednesday), ns(kWednesday - 7 * kDay));
    // A month is the length of the month before the current one (February 2024: 29 days);
    // in January that is December's 31.
    EXPECT_EQ(translate_timestamp("now-1M", true, kWednesday), ns(kWednesday - 29 * kDay));
    const std::time_t january = 1705737600;  // 2024-01-20 08:00:00
    EXPECT_EQ(translate_timestamp("now-1M", true, january), ns(january - 31 * kDay));
    EXPECT_EQ(translate_timestamp("now-1y", true, kWednesday), ns(kWednesday - 366 * kDay));
}

TEST(DashboardTime, RoundingGoesToThePeriodStartOrTheNextOne) {
    EXPECT_EQ(translate_timestamp("now-1d/d", true, kWednesday), ns(kMarch13 - kDay));
    EXPECT_EQ(translate_timestamp("now-1d/d", false, kWednesday), ns(kMarch13));
    EXPECT_EQ(translate_timestamp("now/d", true, kWednesday), ns(kMarch13));
    EXPECT_EQ(translate_timestamp("now/d", false, kWednesday), ns(kMarch13 + kDay));
    // Weeks begin on Monday (March 11).
    EXPECT_EQ(translate_timestamp("now/w", true, kWednesday), ns(kMarch13 - 2 * kDay));
    EXPECT_EQ(translate_timestamp("now/w", false, kWednesday), ns(kMarch13 + 5 * kDay));
    // On a Sunday the elapsed time is negative and kept: the "start" is the next Monday.
    const std::time_t sunday = 1710669600;  // 2024-03-17 10:00:00
    EXPECT_EQ(translate_timestamp("now/w", true, sunday), ns(sunday + 14 * 3600));
    const std::time_t march1 = kMarch13 - 12 * kDay;
    EXPECT_EQ(translate_timestamp("now/M", true, kWednesday), ns(march1));
    EXPECT_EQ(translate_timestamp("now/M", false, kWednesday), ns(march1 + 31 * kDay));
    const std::time_t new_year = 1704067200;  // 2024-01-01
    EXPECT_EQ(translate_timestamp("now/y", true, kWednesday), ns(new_year));
    EXPECT_EQ(translate_timestamp("now/y", false, kWednesday), ns(new_year + 366 * kDay));
    // Unknown rounding letters and "/now" leave the time as it is.
    EXPECT_EQ(translate_timestamp("now-1h/now", true, kWednesday), ns(kWednesday - 3600));
    EXPECT_EQ(translate_timestamp("now-1h/q", true, kWednesday), ns(kWednesday - 3600));
}

TEST(DashboardTime, UnreadableTextsGiveZero) {
    for (const char* text : {"", "abc", "then-1h", "now-5x", "now-h", "now-", "now-1.5h", "12ab",
                             "99999999999999999999999", "now-999999999y"}) {
        EXPECT_EQ(translate_timestamp(text, true, kWednesday), 0u) << text;
    }
}

TEST(DashboardTime, TranslationIsLogged) {
    TempDir dir;
    logger().open(dir.file("log"));
    translate_timestamp("now-6h", true, kWednesday);
    logger().close();
    EXPECT_NE(
        read_file(dir.file("log"))
            .find("Translating Dashboard Timestamp to time-epoch: 'now-6h'  (is start_ts: 1)"),
        std::string::npos);
}

TEST(DashboardVariables, CollectorsReadTheirOwnArgumentsOnly) {
    std::vector<DashboardFilter> filters;
    collect_user_filter("var-Filters", "IP_SRC|=|10.0.0.1", filters);
    collect_user_filter("var-Filters", "K|=|a|b", filters);
    collect_user_filter("var-esinterface", "eth0", filters);
    collect_user_filter("var-Filters", nullptr, filters);
    ASSERT_EQ(filters.size(), 2u);
    EXPECT_EQ(filters[0], (DashboardFilter{"IP_SRC", "=", "10.0.0.1"}));
    // Split at the first and the last "|".
    EXPECT_EQ(filters[1], (DashboardFilter{"K", "=|a", "b"}));

    std::vector<std::string> interfaces;
    for (const char* value : {"eth0", "All", "", "eth1"}) {
        collect_interface("var-esinterface", value, interfaces);
    }
    collect_interface("var-Filters", "eth2", interfaces);
    collect_interface("var-esinterface", nullptr, interfaces);
    EXPECT_EQ(interfaces, (std::vector<std::string>{"eth0", "eth1"}));

    EXPECT_EQ(interface_filter(filters), "");
    filters.push_back({"INTERFACE", "=", "port1"});
    filters.push_back({"INTERFACE", "=", "port2"});
    EXPECT_EQ(interface_filter(filters), "port1");
}

class FilterRulesTest : public ::testing::Test {
  protected:
    void SetUp() override {
        rules_ = dir_.file("rules.yaml");
        write_file(rules_, kRules);
        logger().open(dir_.file("log"));
    }
    void TearDown() override { logger().close(); }

    std::string translate(const std::vector<DashboardFilter>& filters, bool bidirectional) {
        return translate_filters(filters, bidirectional, rules_);
    }

    static constexpr const char* kRules =
        "apply_field_value_bidirectional:\n  MAC: eth.addr\n"
        "apply_field_value:\n  MAC: eth.src\n  TTL: ip.ttl\n"
        "apply_field:\n  ARP: arp\n"
        "apply_value:\n  protocol: ~\n"
        "tcp_or_udp:\n  L4_SRC_PORT: ~\n  L4_DST_PORT: ~\n  L4_PORT: ~\n"
        "ipv4_or_ipv6:\n  IP_SRC: ~\n  IP_DST: ~\n  IP: ~\n";
    TempDir dir_;
    std::string rules_;
};

TEST_F(FilterRulesTest, EachRuleKindMakesItsTerm) {
    EXPECT_EQ(translate({{"IP_SRC", "=", "10.0.0.1"}}, false), "((ip.src==10.0.0.1))");
    EXPECT_EQ(translate({{"IP_DST", "!~", "fe80::1"}}, false), "((ipv6.dst!=fe80::1))");
    EXPECT_EQ(translate({{"IP_SRC", "=", "10.0.0.1"}}, true), "((ip.addr==10.0.0.1))");
    EXPECT_EQ(translate({{"L4_SRC_PORT", "=", "80"}}, false),
              "((tcp.srcport==80||udp.srcport==80))");
    EXPECT_EQ(translate({{"L4_DST_PORT", "=", "53"}}, true), "((tcp.port==53||udp.port==53))");
    EXPECT_EQ(translate({{"ARP", "=", "ignored"}}, false), "((arp))");
    EXPECT_EQ(translate({{"protocol", "=", "dns || http"}}, false), "((dns || http))");
    EXPECT_EQ(translate({{"TTL", ">", "5"}}, false), "((ip.ttl>5))");
    EXPECT_EQ(translate({{"TTL", "=~", "5"}}, false), "((ip.ttl==5))");
    // The bidirectional section is consulted only in that mode.
    EXPECT_EQ(translate({{"MAC", "=", "00:1b:c5:00:00:01"}}, false),
              "((eth.src==00:1b:c5:00:00:01))");
    EXPECT_EQ(translate({{"MAC", "=", "00:1b:c5:00:00:01"}}, true),
              "((eth.addr==00:1b:c5:00:00:01))");
}

TEST_F(FilterRulesTest, TermsAreJoinedAndUnknownKeysSkipped) {
    EXPECT_EQ(translate({{"IP_SRC", "=", "10.0.0.1"}, {"NOPE", "=", "x"}, {"ARP", "", ""}}, false),
              "((ip.src==10.0.0.1) && (arp))");
    EXPECT_EQ(translate({{"NOPE", "=", "x"}}, false), "");
    EXPECT_EQ(translate({}, false), "");
    // Rules that cannot make a term leave an empty pair, which tshark then refuses.
    EXPECT_EQ(translate({{"IP_SRC", "=", "not-an-address"}}, false), "(())");
    EXPECT_EQ(translate({{"IP", "=", "10.0.0.1"}}, false), "(())");
    EXPECT_EQ(translate({{"L4_PORT", "=", "1"}}, false), "(())");
    EXPECT_EQ(translate({{"L4_PORT", "=", "1"}}, true), "((tcp.port==1||udp.port==1))");
}

TEST_F(FilterRulesTest, UnusableRulesFileMakesEveryTranslationEmpty) {
    const std::vector<DashboardFilter> filters = {{"IP_SRC", "=", "10.0.0.1"}};
    std::string without_value_section = kRules;
    without_value_section.replace(without_value_section.find("apply_value:\n  protocol: ~\n"), 26,
                                  "");
    write_file(rules_, without_value_section);
    EXPECT_EQ(translate(filters, false), "");
    write_file(rules_, "apply_field: [unclosed\n");
    EXPECT_EQ(translate(filters, false), "");
    write_file(rules_, "just text\n");
    EXPECT_EQ(translate(filters, false), "");
    EXPECT_EQ(translate_filters(filters, false, dir_.file("absent.yaml")), "");
    logger().close();
    EXPECT_NE(read_file(dir_.file("log"))
                  .find("Unable to load filters file at: " + rules_ + ". The file is corrupted"),
              std::string::npos);
}

// The shipped rules: every key yields a filter that tshark itself accepts.
TEST(ShippedFilterRules, EveryKeyTranslatesToAValidDisplayFilter) {
    const std::string rules = std::string(VISTREL_SOURCE_DIR) + "/config/grafana_to_tshark.yaml";
    const std::vector<DashboardFilter> filters = {{"IP_SRC", "=", "10.0.0.1"},
                                                  {"IP_DST", "!~", "2001:db8::1"},
                                                  {"L4_SRC_PORT", "=", "443"},
                                                  {"L4_DST_PORT", "=", "53"},
                                                  {"protocol", "=", "udp"},
                                                  {"PROTOCOL", "=", "dns"},
                                                  {"TSHARK_FILTER", "=", "frame.len > 60"},
                                                  {"MAC_SRC", "=", "00:1b:c5:00:00:01"},
                                                  {"MAC_DST", "=~", "00:1b:c5:00:00:02"},
                                                  {"VLAN_ID", "=", "10"},
                                                  {"ETH_TYPE", "=", "0x0800"},
                                                  {"IP_PROTOCOL", "=", "17"},
                                                  {"IP_TTL", ">", "5"},
                                                  {"TCP_FLAGS", "=", "0x002"},
                                                  {"DNS_QUERY", "=", "\"example.org\""},
                                                  {"HTTP_HOST", "=", "\"example.org\""},
                                                  {"TLS_SNI", "=", "\"example.org\""},
                                                  {"ARP", "", ""},
                                                  {"ICMP", "", ""},
                                                  {"TCP_SYN", "", ""},
                                                  {"TCP_RETRANSMISSION", "", ""},
                                                  {"FRAGMENTED", "", ""}};
    TempDir dir;
    const std::string capture = dir.file("one.pcap");
    testing::PcapBuilder pcap;
    pcap.record(1, 0, testing::udp_frame(80, "10.0.0.1", "10.0.0.2", 443, 53));
    write_file(capture, pcap.bytes());
    for (bool bidirectional : {false, true}) {
        const std::string filter = translate_filters(filters, bidirectional, rules);
        ASSERT_FALSE(filter.empty());
        // Each key contributed a non-empty term.
        EXPECT_EQ(filter.find("()"), std::string::npos) << filter;
        // tshark exits with 2 when it cannot compile the filter.
        const std::string command = "tshark -r " + capture + " -Y '" + filter + "' >/dev/null 2>&1";
        EXPECT_EQ(std::system(command.c_str()), 0) << filter;
    }
}

}  // namespace
}  // namespace vistrel::dashboard
