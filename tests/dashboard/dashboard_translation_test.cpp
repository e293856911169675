#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "capturefilewriter.h"
#include "dashboard/dashboardfilter.h"
#include "dashboard/dashboardtime.h"
#include "startup/logger.h"
#include "support/temp_dir.h"

namespace vistrel::dashboard {
namespace {

using testing::TempDir;
using testing::write_file;

TEST(DashboardTime, TextsBecomeEpochNanoseconds) {
    constexpr std::time_t kWednesday = 1710343845;  // 2024-03-13 15:30:45 UTC
    constexpr std::time_t kMarch13 = 1710288000;    // 2024-03-13 00:00:00 UTC
    constexpr std::time_t kSunday = 1710669600;     // 2024-03-17 10:00:00
    constexpr std::time_t kJanuary = 1705737600;    // 2024-01-20 08:00:00
    constexpr std::time_t kNewYear = 1704067200;    // 2024-01-01
    constexpr std::time_t kDay = 86400;
    struct Case {
        const char* text;
        bool start;
        std::time_t now;
        uint64_t expected;  // seconds, unless `milliseconds`
        bool milliseconds = false;
    };
    const Case cases[] = {
        // Absolute milliseconds are never rounded.
        {"1573430400123", true, kWednesday, 1573430400123, true},
        {"1573430400123/d", false, kWednesday, 1573430400123, true},
        {"now", true, kWednesday, kWednesday},
        {"now-6h", true, kWednesday, kWednesday - 6 * 3600},
        {"now-30s", false, kWednesday, kWednesday - 30},
        {"now-15m", false, kWednesday, kWednesday - 900},
        {"now-2d", true, kWednesday, kWednesday - 2 * kDay},
        {"now-1w", true, kWednesday, kWednesday - 7 * kDay},
        // A month is the length of the month before the current one (February 2024: 29
        // days); in January that is December's 31.
        {"now-1M", true, kWednesday, kWednesday - 29 * kDay},
        {"now-1M", true, kJanuary, kJanuary - 31 * kDay},
        {"now-1y", true, kWednesday, kWednesday - 366 * kDay},
        // Rounding goes to the period's start, or for the end to the next one.
        {"now-1d/d", true, kWednesday, kMarch13 - kDay},
        {"now-1d/d", false, kWednesday, kMarch13},
        // Weeks begin on Monday (March 11); on a Sunday the elapsed time is negative and
        // kept: the "start" is the next Monday.
        {"now/w", true, kWednesday, kMarch13 - 2 * kDay},
        {"now/w", false, kWednesday, kMarch13 + 5 * kDay},
        {"now/w", true, kSunday, kSunday + 14 * 3600},
        {"now/M", true, kWednesday, kMarch13 - 12 * kDay},
        {"now/M", false, kWednesday, kMarch13 + 19 * kDay},
        {"now/y", true, kWednesday, kNewYear},
        {"now/y", false, kWednesday, kNewYear + 366 * kDay},
        // Unknown rounding letters and "/now" leave the time as it is.
        {"now-1h/now", true, kWednesday, kWednesday - 3600},
        {"now-1h/q", true, kWednesday, kWednesday - 3600},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(translate_timestamp(c.text, c.start, c.now),
                  c.expected * (c.milliseconds ? 1000000ull : 1000000000ull))
            << c.text << " start " << c.start;
    }
    for (const char* text : {"", "abc", "then-1h", "now-5x", "now-h", "now-", "now-1.5h", "12ab",
                             "99999999999999999999999", "now-999999999y"}) {
        EXPECT_EQ(translate_timestamp(text, true, kWednesday), 0u) << text;
    }
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

TEST_F(FilterRulesTest, EachRuleKindMakesItsTermAndTermsAreJoined) {
    struct Case {
        std::vector<DashboardFilter> filters;
        bool bidirectional;
        const char* expected;
    };
    const std::vector<Case> cases = {
        {{{"IP_SRC", "=", "10.0.0.1"}}, false, "((ip.src==10.0.0.1))"},
        {{{"IP_DST", "!~", "fe80::1"}}, false, "((ipv6.dst!=fe80::1))"},
        {{{"IP_SRC", "=", "10.0.0.1"}}, true, "((ip.addr==10.0.0.1))"},
        {{{"L4_SRC_PORT", "=", "80"}}, false, "((tcp.srcport==80||udp.srcport==80))"},
        {{{"L4_DST_PORT", "=", "53"}}, true, "((tcp.port==53||udp.port==53))"},
        {{{"ARP", "=", "ignored"}}, false, "((arp))"},
        {{{"protocol", "=", "dns || http"}}, false, "((dns || http))"},
        {{{"TTL", ">", "5"}}, false, "((ip.ttl>5))"},
        {{{"TTL", "=~", "5"}}, false, "((ip.ttl==5))"},
        // The bidirectional section is consulted only in that mode.
        {{{"MAC", "=", "00:1b:c5:00:00:01"}}, false, "((eth.src==00:1b:c5:00:00:01))"},
        {{{"MAC", "=", "00:1b:c5:00:00:01"}}, true, "((eth.addr==00:1b:c5:00:00:01))"},
        {{{"IP_SRC", "=", "10.0.0.1"}, {"NOPE", "=", "x"}, {"ARP", "", ""}},
         false,
         "((ip.src==10.0.0.1) && (arp))"},
        {{{"NOPE", "=", "x"}}, false, ""},
        // Rules that cannot make a term leave an empty pair, which tshark then refuses.
        {{{"IP_SRC", "=", "not-an-address"}}, false, "(())"},
        {{{"IP", "=", "10.0.0.1"}}, false, "(())"},
        {{{"L4_PORT", "=", "1"}}, false, "(())"},
        {{{"L4_PORT", "=", "1"}}, true, "((tcp.port==1||udp.port==1))"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(translate_filters(c.filters, c.bidirectional, rules_), c.expected) << c.expected;
    }
}

TEST_F(FilterRulesTest, UnusableRulesFileMakesEveryTranslationEmpty) {
    const std::vector<DashboardFilter> filters = {{"IP_SRC", "=", "10.0.0.1"}};
    std::string without_value_section = kRules;
    without_value_section.replace(without_value_section.find("apply_value:\n  protocol: ~\n"), 26,
                                  "");
    for (const std::string& text : {without_value_section, std::string("apply_field: [unclosed\n"),
                                    std::string("just text\n")}) {
        write_file(rules_, text);
        EXPECT_EQ(translate_filters(filters, false, rules_), "") << text;
    }
    EXPECT_EQ(translate_filters(filters, false, dir_.file("absent.yaml")), "");
    logger().close();
    EXPECT_NE(testing::read_file(dir_.file("log"))
                  .find("Unable to load filters file at: " + rules_ + ". The file is corrupted"),
              std::string::npos);
}

// The shipped rules: every key yields a filter that tshark itself accepts.
TEST(ShippedFilterRules, EveryKeyTranslatesToAValidDisplayFilter) {
    // One "var-Filters" value a line, as the dashboard sends them.
    std::istringstream texts(
        "IP_SRC|=|10.0.0.1\nIP_DST|!~|2001:db8::1\nL4_SRC_PORT|=|443\nL4_DST_PORT|=|53\n"
        "protocol|=|udp\nPROTOCOL|=|dns\nTSHARK_FILTER|=|frame.len > 60\n"
        "MAC_SRC|=|00:1b:c5:00:00:01\nMAC_DST|=~|00:1b:c5:00:00:02\nVLAN_ID|=|10\n"
        "ETH_TYPE|=|0x0800\nIP_PROTOCOL|=|17\nIP_TTL|>|5\nTCP_FLAGS|=|0x002\n"
        "DNS_QUERY|=|\"example.org\"\nHTTP_HOST|=|\"example.org\"\nTLS_SNI|=|\"example.org\"\n"
        "ARP||\nICMP||\nTCP_SYN||\nTCP_RETRANSMISSION||\nFRAGMENTED||");
    std::vector<DashboardFilter> filters;
    for (std::string text; std::getline(texts, text);) {
        collect_user_filter("var-Filters", text.c_str(), filters);
    }
    ASSERT_EQ(filters.size(), 22u);
    TempDir dir;
    const std::string capture = dir.file("one.pcap");
    testing::PcapBuilder pcap;
    write_file(capture,
               pcap.record(1, 0, testing::udp_frame(80, "10.0.0.1", "10.0.0.2", 443, 53)).bytes());
    const std::string rules = std::string(VISTREL_SOURCE_DIR) + "/config/grafana_to_tshark.yaml";
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
