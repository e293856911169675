// Which dashboard filters libpcap takes and which stay with tshark, on the texts the dashboard
// translation makes from the shipped rules file.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "capture/filterchoice.h"
#include "dashboard/dashboardfilter.h"

namespace vistrel::capture {
namespace {

std::string translated(const std::vector<std::string>& filters, bool bidirectional) {
    std::vector<dashboard::DashboardFilter> triples;
    for (const auto& filter : filters)
        dashboard::collect_user_filter("var-Filters", filter.c_str(), triples);
    return dashboard::translate_filters(triples, bidirectional,
                                        VISTREL_SOURCE_DIR "/config/grafana_to_tshark.yaml");
}

// Which keys of the shipped rules take the fast path, and that its results are tshark's, is
// checked end to end by the download tests; here, the texts it builds and refuses.
TEST(FilterChoice, ExactTermsCompileToBpf) {
    // Dashed, upper-case MAC addresses are the colon form.
    EXPECT_TRUE(choose_filter(translated({"MAC_DST|!~|00-1B-C5-00-00-01"}, true), "").selector);
    // "!=" holds for packets that carry the field and none of whose values is equal.
    EXPECT_EQ(choose_filter("!(ip.ttl != 64)", "").selector->expression(),
              "not ((ip and not (ip and (ip[8]) = 64)))");
}

TEST(FilterChoice, EverythingElseStaysWithTsharkAndSaysWhy) {
    const std::vector<std::pair<std::string, std::string>> slow = {
        {translated({"DNS_QUERY|=|example.com"}, false), "'dns.qry.name' has no exact BPF"},
        {translated({"VLAN_ID|=|7"}, false), "'vlan.id'"},
        {translated({"IP_SRC|>|10.0.0.1"}, false), "ordered comparison of 'ip.src'"},
        {translated({"L4_DST_PORT|=|70000"}, false), "value '70000' of 'tcp.dstport'"},
        {translated({"L4_DST_PORT|=|053"}, false), "value '053'"},
        {translated({"MAC_SRC|=|00:1b:c5"}, false), "MAC address '00:1b:c5'"},
        {"ip.src == 10.0.0.1 && tcp || udp", "&& and || mixed without parentheses"},
        {"ip.addr == 10.0.0.1/8", "address '10.0.0.1/8'"},
        {"tcp.port in {80 443}", "unsupported syntax"},
        {"(())", "')' has no exact BPF equivalent"},
        {"", "empty filter"},
    };
    for (const auto& [text, reason] : slow) {
        const FilterChoice choice = choose_filter(text, "");
        EXPECT_FALSE(choice.selector) << text;
        EXPECT_NE(choice.reason.find(reason), std::string::npos) << text << ": " << choice.reason;
    }
    // A reason given by the caller (the configuration, a raw filter) wins over libpcap.
    const FilterChoice forced = choose_filter("ip.src==10.0.0.1", "forced");
    EXPECT_FALSE(forced.selector);
    EXPECT_EQ(forced.reason, "forced");
}

TEST(FilterChoice, LinkTypesLibpcapCannotFilterAreRefused) {
    std::string error;
    // Raw IP packets have no Ethernet addresses to compare.
    EXPECT_FALSE(PacketSelector::create("ether src 00:1b:c5:00:00:01", DLT_RAW, error));
    EXPECT_NE(error, "");
    EXPECT_TRUE(PacketSelector::create("ether src 00:1b:c5:00:00:01", extract_link_type(), error));
}

}  // namespace
}  // namespace vistrel::capture
