#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>

#include "capturefilewriter.h"
#include "dashboard/dashboardfilter.h"
#include "framebuilder.h"
#include "index/indexer.h"
#include "support/elasticsearch_standin.h"
#include "support/temp_dir.h"

namespace vistrel::watchkeep {
namespace {

using nlohmann::json;
using testing::build_frame;
using testing::FrameSpec;

constexpr uint64_t kSecond = 1'000'000'000ULL;
// 2024-03-05 12:00:00 UTC
constexpr uint64_t kStart = 1709640000ULL * kSecond;

// One source indexed into the stand-in; documents() finishes and reads what arrived.
class IndexingTest : public ::testing::Test {
  protected:
    IndexingTest() {
        settings_.bulk_url = search_.address() + "/_bulk";
        settings_.flows_index = "flows";
        settings_.spool_folder = dir_.file("spool");
        settings_.flow_idle_timeout_s = 3;
        settings_.flow_active_timeout_s = 4;
    }

    void start() {
        sender_ = std::make_unique<BulkSender>(settings_);
        indexer_ = std::make_unique<SourceIndexer>(settings_, *sender_, "eth0");
    }

    void feed(const std::string& frame, uint64_t time_ns) {
        frames_.push_back({time_ns, frame});
        indexer_->packet(1, time_ns, reinterpret_cast<const uint8_t*>(frame.data()),
                         static_cast<uint32_t>(frame.size()), static_cast<uint32_t>(frame.size()));
    }

    // Every document by index, in arrival order, after the indexer and sender finish.
    std::map<std::string, std::vector<json>> documents() {
        indexer_->finish();
        EXPECT_TRUE(sender_->finish(std::chrono::seconds(10)));
        std::map<std::string, std::vector<json>> parsed;
        for (const auto& [index, texts] : search_.bulk_documents()) {
            for (const auto& text : texts) parsed[index].push_back(json::parse(text));
        }
        return parsed;
    }

    // Documents of one index that have `field`.
    static std::vector<json> with(const std::vector<json>& all, const std::string& field) {
        std::vector<json> found;
        for (const auto& document : all) {
            if (document.contains(field)) found.push_back(document);
        }
        return found;
    }

    testing::ElasticsearchStandIn search_;
    testing::TempDir dir_;
    IndexSettings settings_;
    std::unique_ptr<BulkSender> sender_;
    std::unique_ptr<SourceIndexer> indexer_;
    std::vector<std::pair<uint64_t, std::string>> frames_;
};

TEST_F(IndexingTest, FlowsAreBidirectionalPerVlanAndNamedByTheirInitiator) {
    start();
    FrameSpec syn{.mac_src = "02:00:00:00:00:0a",
                  .mac_dst = "02:00:00:00:00:0b",
                  .vlan = 10,
                  .ip_src = "192.168.1.20",
                  .ip_dst = "10.0.0.1",
                  .protocol = 6,
                  .port_src = 51000,
                  .port_dst = 443,
                  .tcp_flags = 0x02};
    FrameSpec answer = syn;
    std::swap(answer.mac_src, answer.mac_dst);
    std::swap(answer.ip_src, answer.ip_dst);
    std::swap(answer.port_src, answer.port_dst);
    answer.tcp_flags = 0x12;
    answer.payload = std::string(100, 'x');
    feed(build_frame(syn), kStart);
    feed(build_frame(answer), kStart + 1'500'000);
    syn.tcp_flags = 0x10;
    feed(build_frame(syn), kStart + 2'000'000);
    // Same addresses and ports on another VLAN: another flow.
    FrameSpec other = syn;
    other.vlan = 20;
    feed(build_frame(other), kStart + 3'000'000);
    // A flow first seen at its SYN+ACK is named by the client all the same.
    FrameSpec late{.ip_src = "2001:db8::80",
                   .ip_dst = "2001:db8::1",
                   .protocol = 6,
                   .port_src = 80,
                   .port_dst = 60000,
                   .tcp_flags = 0x12};
    feed(build_frame(late), kStart + 4'000'000);

    auto all = documents();
    ASSERT_EQ(all.size(), 1u);
    ASSERT_TRUE(all.count("flows-2024.03.05"));
    auto flows = with(all["flows-2024.03.05"], "IN_PKTS");
    ASSERT_EQ(flows.size(), 3u);
    std::map<uint64_t, json> by_vlan;
    json unnamed;
    for (auto& flow : flows) {
        if (flow.contains("VLAN_ID")) {
            by_vlan[flow["VLAN_ID"]] = flow;
        } else {
            unnamed = flow;
        }
    }
    ASSERT_EQ(by_vlan.size(), 2u);
    const json& first = by_vlan[10];
    EXPECT_EQ(first["INTERFACE"], "eth0");
    EXPECT_EQ(first["IP_SRC"], "192.168.1.20");
    EXPECT_EQ(first["IP_DST"], "10.0.0.1");
    EXPECT_EQ(first["L4_SRC_PORT"], 51000);
    EXPECT_EQ(first["L4_DST_PORT"], 443);
    EXPECT_EQ(first["IP_PROTOCOL"], 6);
    EXPECT_EQ(first["MAC_SRC"], "02:00:00:00:00:0a");
    EXPECT_EQ(first["MAC_DST"], "02:00:00:00:00:0b");
    EXPECT_EQ(first["ETH_TYPE"], 0x8100);
    EXPECT_EQ(first["TCP_FLAGS_SEEN"], 0x12);
    EXPECT_EQ(first["IN_PKTS"], 2);
    EXPECT_EQ(first["OUT_PKTS"], 1);
    EXPECT_EQ(first["OUT_BYTES"], frames_[1].second.size());
    EXPECT_EQ(first["FIRST_SWITCHED"], kStart / 1'000'000);
    EXPECT_EQ(first["LAST_SWITCHED"], kStart / 1'000'000 + 2);
    EXPECT_EQ(first["@timestamp"], kStart / 1'000'000 + 2);
    EXPECT_EQ(first["FLOW_END_REASON"], "capture-end");
    EXPECT_EQ(by_vlan[20]["IN_PKTS"], 1);
    EXPECT_EQ(unnamed["IP_SRC"], "2001:db8::1");
    EXPECT_EQ(unnamed["L4_SRC_PORT"], 60000);
    EXPECT_EQ(unnamed["OUT_PKTS"], 1);
    EXPECT_EQ(unnamed["ETH_TYPE"], 0x86dd);
}

TEST_F(IndexingTest, LongFlowsAreReportedWhileTheyLastAndIdleOnesEnd) {
    start();
    FrameSpec packet{.protocol = 17, .port_src = 5000, .port_dst = 6000};
    // One packet a second for 7 s (active time-out 4 s), then silence (idle time-out 3 s), then
    // one more.
    for (uint64_t second = 0; second < 7; ++second) {
        feed(build_frame(packet), kStart + second * kSecond);
        indexer_->tick(kStart + second * kSecond + kSecond / 2);
    }
    for (uint64_t second = 7; second < 20; ++second) indexer_->tick(kStart + second * kSecond);
    feed(build_frame(packet), kStart + 30 * kSecond);

    auto flows = with(documents()["flows-2024.03.05"], "IN_PKTS");
    ASSERT_EQ(flows.size(), 3u);
    uint64_t packets = 0;
    std::vector<std::string> reasons;
    for (const auto& flow : flows) {
        packets += flow["IN_PKTS"].get<uint64_t>();
        reasons.push_back(flow["FLOW_END_REASON"]);
        EXPECT_LE(flow["LAST_SWITCHED"].get<uint64_t>() - flow["FIRST_SWITCHED"].get<uint64_t>(),
                  4000u);
    }
    EXPECT_EQ(packets, 8u);
    EXPECT_EQ(reasons, (std::vector<std::string>{"active", "idle", "capture-end"}));
    EXPECT_EQ(flows[0]["IN_PKTS"], 5);
}

TEST_F(IndexingTest, FragmentsCountInTheFlowOfTheirFirstFragment) {
    start();
    for (const char* source : {"10.1.1.1", "2001:db8::5"}) {
        std::string destination =
            std::string(source).find(':') != std::string::npos ? "2001:db8::6" : "10.1.1.2";
        FrameSpec first{.ip_src = source,
                        .ip_dst = destination,
                        .protocol = 17,
                        .port_src = 7000,
                        .port_dst = 2049,
                        .payload = std::string(64, 'a'),
                        .fragment_id = 77,
                        .more_fragments = true};
        FrameSpec middle = first;
        middle.fragment_offset = 9;
        middle.payload = std::string(72, 'b');
        FrameSpec last = middle;
        last.fragment_offset = 18;
        last.more_fragments = false;
        feed(build_frame(first), kStart);
        feed(build_frame(middle), kStart + 1000);
        feed(build_frame(last), kStart + 2000);
    }
    auto flows = with(documents()["flows-2024.03.05"], "IN_PKTS");
    ASSERT_EQ(flows.size(), 2u);
    for (const auto& flow : flows) {
        EXPECT_EQ(flow["IN_PKTS"], 3) << flow;
        EXPECT_EQ(flow["FRAGMENTED"], 3) << flow;
        EXPECT_EQ(flow["L4_DST_PORT"], 2049) << flow;
    }
}

TEST_F(IndexingTest, OptionalRecordsFollowTheirSettings) {
    // Off: only flows, nothing in an HTTP index.
    FrameSpec query{.protocol = 17,
                    .port_src = 33000,
                    .port_dst = 53,
                    .payload = testing::dns_message("example.org", 0x1234, 1, false)};
    FrameSpec request{.protocol = 6,
                      .port_src = 41000,
                      .port_dst = 80,
                      .payload =
                          "GET /a?b=\"c\" HTTP/1.1\r\nHost: ex\x01\xe9.org\r\n"
                          "User-Agent: tester\r\n\r\n"};
    std::string arp =
        testing::arp_frame(1, "02:00:00:00:00:01", "10.0.0.1", "00:00:00:00:00:00", "10.0.0.2");
    auto run = [&] {
        start();
        feed(build_frame(query), kStart);
        feed(build_frame(request), kStart + 1000);
        feed(arp, kStart + 2000);
        indexer_->drops(5, 2);
        indexer_->tick(kStart + 20 * kSecond);
        return documents();
    };
    auto off = run();
    ASSERT_EQ(off.size(), 1u);
    EXPECT_EQ(off["flows-2024.03.05"].size(), 2u);
    search_.clear();

    settings_.dns_records = true;
    settings_.arp_records = true;
    settings_.packet_statistics = true;
    settings_.http_index = "web";
    auto on = run();
    auto& flows_index = on["flows-2024.03.05"];
    auto dns = with(flows_index, "DNS_QUERY");
    ASSERT_EQ(dns.size(), 1u);
    EXPECT_EQ(dns[0]["DNS_QUERY"], "example.org");
    EXPECT_EQ(dns[0]["DNS_QUERY_ID"], 0x1234);
    EXPECT_EQ(dns[0]["DNS_QUERY_TYPE"], 1);
    EXPECT_EQ(dns[0]["DNS_RESPONSE"], 0);
    EXPECT_EQ(dns[0]["L4_DST_PORT"], 53);
    auto arps = with(flows_index, "ARP_OPCODE");
    ASSERT_EQ(arps.size(), 1u);
    EXPECT_EQ(arps[0]["ARP_SENDER_IP"], "10.0.0.1");
    EXPECT_EQ(arps[0]["ARP_TARGET_IP"], "10.0.0.2");
    EXPECT_EQ(arps[0]["ETH_TYPE"], 0x0806);
    auto statistics = with(flows_index, "STATS_PACKETS");
    ASSERT_EQ(statistics.size(), 1u);
    EXPECT_EQ(statistics[0]["STATS_PACKETS"], 3);
    EXPECT_EQ(statistics[0]["STATS_KERNEL_DROPS"], 5);
    EXPECT_EQ(statistics[0]["STATS_ENGINE_DROPS"], 2);
    EXPECT_EQ(statistics[0]["STATS_PERIOD_MS"], 20000);
    ASSERT_EQ(on["web-2024.03.05"].size(), 1u);
    const json& http = on["web-2024.03.05"][0];
    EXPECT_EQ(http["HTTP_METHOD"], "GET");
    EXPECT_EQ(http["HTTP_URL"], "/a?b=\"c\"");
    // Control and non-ASCII bytes arrive as valid JSON text.
    EXPECT_EQ(http["HTTP_HOST"], "ex\x01\xc3\xa9.org");
    EXPECT_EQ(http["HTTP_USER_AGENT"], "tester");
    EXPECT_EQ(http["INTERFACE"], "eth0");
}

TEST_F(IndexingTest, CutFramesAreCountedWithoutReadingPastThem) {
    settings_.dns_records = true;
    settings_.http_index = "web";
    start();
    std::vector<std::string> frames = {
        build_frame({.vlan = 5,
                     .inner_vlan = 6,
                     .ip_src = "2001:db8::1",
                     .ip_dst = "2001:db8::2",
                     .protocol = 17,
                     .port_dst = 53,
                     .payload = testing::dns_message("a.b.c", 1, 28, true, 3)}),
        build_frame({.protocol = 6, .payload = "POST /x HTTP/1.0\r\nHost: h\r\n\r\n"}),
        testing::arp_frame(2, "02:00:00:00:00:01", "10.0.0.1", "02:00:00:00:00:02", "10.0.0.2")};
    for (const auto& frame : frames) {
        for (size_t length = 0; length <= frame.size(); ++length) {
            // A copy of exactly `length` bytes, so that a read past it is caught.
            std::vector<uint8_t> cut(frame.begin(), frame.begin() + length);
            for (uint32_t link : {0u, 1u, 101u, 113u, 276u}) {
                indexer_->packet(link, kStart, cut.data(), static_cast<uint32_t>(cut.size()),
                                 static_cast<uint32_t>(frame.size()));
            }
        }
    }
    auto all = documents();
    auto dns = with(all["flows-2024.03.05"], "DNS_QUERY");
    ASSERT_FALSE(dns.empty());
    EXPECT_EQ(dns[0]["DNS_QUERY"], "a.b.c");
    EXPECT_EQ(dns[0]["DNS_RET_CODE"], 3);
    EXPECT_EQ(dns[0]["VLAN_ID"], 5);
}

// A filter a user picks on any field of a record must be a key of the shipped rules, and the
// download it gives must hold the packets the record describes.
TEST_F(IndexingTest, EveryRecordFieldIsADashboardFilterThatFindsItsPackets) {
    settings_.dns_records = true;
    settings_.arp_records = true;
    settings_.packet_statistics = true;
    settings_.http_index = "web";
    start();
    feed(build_frame({.vlan = 7, .protocol = 6, .port_dst = 80, .tcp_flags = 0x02}), kStart);
    feed(build_frame({.vlan = 7,
                      .protocol = 6,
                      .port_dst = 80,
                      .tcp_flags = 0x18,
                      .payload = "GET /index.html HTTP/1.1\r\nHost: example.org\r\n"
                                 "User-Agent: curl\r\n\r\n"}),
         kStart + 1000);
    feed(build_frame({.ip_src = "2001:db8::1",
                      .ip_dst = "2001:db8::2",
                      .protocol = 17,
                      .port_dst = 53,
                      .payload = testing::dns_message("example.org", 9, 1, false)}),
         kStart + 2000);
    feed(testing::arp_frame(1, "02:00:00:00:00:01", "10.0.0.1", "00:00:00:00:00:00", "10.0.0.2"),
         kStart + 3000);
    auto all = documents();

    testing::PcapBuilder pcap;
    for (const auto& [time, frame] : frames_) {
        pcap.record(static_cast<uint32_t>(time / kSecond),
                    static_cast<uint32_t>(time % kSecond / 1000), frame);
    }
    testing::write_file(dir_.file("traffic.pcap"), pcap.bytes());
    const std::string rules = std::string(VISTREL_SOURCE_DIR) + "/config/grafana_to_tshark.yaml";

    std::set<std::string> fields;
    for (const auto& [index, documents] : all) {
        for (const auto& document : documents) {
            // Each record's own fields, as "KEY|=|value" filters, all at once.
            std::vector<dashboard::DashboardFilter> filters;
            const bool ipv6 = document.value("IP_SRC", "").find(':') != std::string::npos;
            for (const auto& [key, value] : document.items()) {
                if (key == "@timestamp") continue;
                fields.insert(key);
                // A download takes the source from INTERFACE itself: it is no display filter.
                if (key == "INTERFACE") continue;
                std::string text = value.is_string() ? value.get<std::string>() : value.dump();
                if (key == "DNS_QUERY" || key.rfind("HTTP_", 0) == 0) text = "\"" + text + "\"";
                EXPECT_NE(dashboard::translate_filters({{key, "=", text}}, false, rules), "")
                    << key << " is no key of the rules";
                // The shipped rules test IP_PROTOCOL with ip.proto, an IPv4 field.
                if (key == "IP_PROTOCOL" && ipv6) continue;
                filters.push_back({key, "=", text});
            }
            const std::string filter = dashboard::translate_filters(filters, false, rules);
            ASSERT_FALSE(filter.empty()) << document;
            EXPECT_EQ(filter.find("()"), std::string::npos) << filter;
            const std::string command =
                "tshark -r " + dir_.file("traffic.pcap") + " -Y '" + filter + "' 2>&1 | grep -c .";
            EXPECT_NE(testing::run_command(command), "0\n") << document << "\n" << filter;
        }
    }
    EXPECT_GE(fields.size(), 40u);

    // The shipped index template maps every field.
    std::ifstream file(std::string(VISTREL_SOURCE_DIR) + "/config/elasticsearch-template.json");
    const json mappings = json::parse(file)["template"]["mappings"]["properties"];
    for (const auto& field : fields) EXPECT_TRUE(mappings.contains(field)) << field;
}

}  // namespace
}  // namespace vistrel::watchkeep
