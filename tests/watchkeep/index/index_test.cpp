// The engine's index: the bulk sender and the records of the traffic, into the recording
// stand-in of Elasticsearch.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <numeric>
#include <set>

#include "capturefilewriter.h"
#include "dashboard/dashboardfilter.h"
#include "framebuilder.h"
#include "index/indexer.h"
#include "support/elasticsearch_standin.h"
#include "support/eventually.h"
#include "support/temp_dir.h"

namespace vistrel::watchkeep {
namespace {

using nlohmann::json;
using testing::build_frame;
using testing::ElasticsearchStandIn;
using testing::FrameSpec;

constexpr uint64_t kSecond = 1'000'000'000ULL;
// 2024-03-05 12:00:00 UTC
constexpr uint64_t kStart = 1709640000ULL * kSecond;

class IndexTest : public ::testing::Test {
  protected:
    IndexTest() {
        settings_.bulk_url = search_.address() + "/_bulk";
        settings_.spool_folder = dir_.file("spool");
    }

    // Every document that arrived, parsed, by index in arrival order.
    std::map<std::string, std::vector<json>> arrived() const {
        std::map<std::string, std::vector<json>> parsed;
        for (const auto& [index, texts] : search_.bulk_documents()) {
            for (const auto& text : texts) parsed[index].push_back(json::parse(text));
        }
        return parsed;
    }

    ElasticsearchStandIn search_;
    testing::TempDir dir_;
    IndexSettings settings_;
};

// Records numbered 0..n-1 sent through a BulkSender into the stand-in.
class BulkTest : public IndexTest {
  protected:
    BulkTest() {
        settings_.batch_documents = 4;
        settings_.retry_base_ms = 10;
        settings_.request_timeout_ms = 2000;
        settings_.probe_interval_ms = 50;
    }

    static void send(BulkSender& sender, int from, int to) {
        for (int n = from; n < to; ++n) {
            sender.enqueue("records-2024.01.01", json{{"n", n}, {"text", "record"}}.dump());
        }
    }

    // The record numbers that arrived, in arrival order.
    std::vector<int> numbers() const {
        std::vector<int> found;
        for (const auto& [index, documents] : arrived()) {
            EXPECT_EQ(index, "records-2024.01.01");
            for (const auto& document : documents) found.push_back(document["n"]);
        }
        return found;
    }

    static std::vector<int> range(int from, int to) {
        std::vector<int> numbers(to - from);
        std::iota(numbers.begin(), numbers.end(), from);
        return numbers;
    }

    size_t spooled_files() const {
        size_t files = 0;
        std::error_code error;
        for (const auto& entry :
             std::filesystem::directory_iterator(settings_.spool_folder, error)) {
            files += entry.path().extension() == ".ndjson" ? 1 : 0;
        }
        return files;
    }
};

// Bounded NDJSON batches with an id per record, whatever the endpoint answers.
TEST_F(BulkTest, BatchesAreBoundedAndRefusalsSplitRetriedOrCounted) {
    settings_.batch_bytes = 150;  // about two records
    struct Case {
        const char* name;
        std::function<void(ElasticsearchStandIn&)> refuse;
        uint64_t failed;
        uint64_t retries_at_least;
    };
    const std::vector<Case> cases = {
        {"accepted", [](ElasticsearchStandIn&) {}, 0, 0},
        {"413 splits", [](ElasticsearchStandIn& s) { s.bulk_max_documents(1); }, 0, 2},
        {"429 retried", [](ElasticsearchStandIn& s) { s.bulk_status(429, 3); }, 0, 3},
        {"503 retried", [](ElasticsearchStandIn& s) { s.bulk_status(503, 2); }, 0, 2},
        {"items refused", [](ElasticsearchStandIn& s) { s.bulk_item_error("\"n\":3,"); }, 1, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        search_.clear();
        c.refuse(search_);
        BulkSender sender(settings_);
        send(sender, 0, 8);
        ASSERT_TRUE(sender.finish(std::chrono::seconds(10)));
        std::vector<int> expected = range(0, 8);
        if (c.failed > 0) expected.erase(expected.begin() + 3);
        EXPECT_EQ(numbers(), expected);
        // Retries and halves carry the ids they had: a record sent twice replaces itself.
        std::set<std::string> ids;
        for (const auto& request : search_.requests()) {
            EXPECT_EQ(request.header("Content-Type"), "application/x-ndjson");
            size_t lines = 0;
            std::istringstream body(request.body);
            for (std::string line; std::getline(body, line); ++lines) {
                if (lines % 2 == 0)
                    ids.insert(json::parse(line)["index"]["_id"].get<std::string>());
            }
            EXPECT_LE(lines, 2 * 4u);
            EXPECT_LE(request.body.size(), 150u + 100u);
        }
        EXPECT_EQ(ids.size(), 8u);
        BulkStatistics statistics = sender.statistics();
        EXPECT_EQ(statistics.documents_failed, c.failed);
        EXPECT_EQ(statistics.documents_sent, 8 - c.failed);
        EXPECT_GE(statistics.retries, c.retries_at_least);
        EXPECT_EQ(spooled_files(), 0u);
        search_.bulk_max_documents(0);
        search_.bulk_status(200, 0);
        search_.bulk_item_error("");
    }
}

TEST_F(BulkTest, WhatCannotBeSentWaitsOnDiskAndGoesFirstOrIsCountedLost) {
    search_.stop();
    {
        // A spool that cannot be written: the records are counted as lost.
        IndexSettings unwritable = settings_;
        testing::write_file(dir_.file("file"), "x");
        unwritable.spool_folder = dir_.file("file/spool");
        BulkSender sender(unwritable);
        send(sender, 0, 5);
        EXPECT_FALSE(sender.finish(std::chrono::seconds(2)));
        EXPECT_EQ(sender.statistics().documents_lost, 5u);
    }
    {
        BulkSender sender(settings_);
        send(sender, 0, 10);
        ASSERT_TRUE(sender.finish(std::chrono::seconds(5)));
        EXPECT_EQ(sender.statistics().documents_spooled, 10u);
    }
    EXPECT_EQ(spooled_files(), 3u);
    // Still down: the next run adds its own behind them.
    {
        BulkSender sender(settings_);
        send(sender, 10, 12);
        ASSERT_TRUE(sender.finish(std::chrono::seconds(5)));
    }
    search_.start();
    BulkSender sender(settings_);
    send(sender, 12, 20);
    // Going away in the middle of a run loses nothing either.
    search_.stop();
    send(sender, 20, 30);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // for the sender to notice
    search_.start();
    send(sender, 30, 40);
    ASSERT_TRUE(sender.finish(std::chrono::seconds(10)));
    EXPECT_EQ(numbers(), range(0, 40));
    EXPECT_EQ(spooled_files(), 0u);
}

TEST_F(BulkTest, AStopDuringAnUnansweredRequestKeepsItForLater) {
    settings_.request_timeout_ms = 5000;
    search_.bulk_silent(true);
    {
        BulkSender sender(settings_);
        send(sender, 0, 6);
        ASSERT_TRUE(testing::eventually([&] { return search_.bulk_held_count() == 1; }, 5));
        // The budget ends while the request hangs: it is aborted and spooled, not lost.
        ASSERT_TRUE(sender.finish(std::chrono::milliseconds(300)));
    }
    search_.bulk_silent(false);
    EXPECT_EQ(spooled_files(), 2u);
    BulkSender sender(settings_);
    ASSERT_TRUE(sender.finish(std::chrono::seconds(10)));
    // The stand-in took the abandoned request when its silence ended; sent again with the
    // same ids, its records replaced themselves instead of arriving twice.
    EXPECT_EQ(numbers(), range(0, 6));
    EXPECT_EQ(search_.bulk_replaced_count(), 4u);
}

// One source indexed into the stand-in; documents() finishes and reads what arrived.
class IndexingTest : public IndexTest {
  protected:
    IndexingTest() {
        settings_.flows_index = "flows";
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
        return arrived();
    }

    // Documents of one index that have `field`.
    static std::vector<json> with(const std::vector<json>& all, const std::string& field) {
        std::vector<json> found;
        std::copy_if(all.begin(), all.end(), std::back_inserter(found),
                     [&](const json& document) { return document.contains(field); });
        return found;
    }

    // The one document that has `field`; null when there is not exactly one.
    static json one(const std::vector<json>& all, const std::string& field) {
        auto found = with(all, field);
        EXPECT_EQ(found.size(), 1u) << field;
        return found.size() == 1 ? found[0] : json();
    }

    // Checks the fields of `expected` (a JSON object's text) in `document`.
    static void expect_fields(const json& document, const std::string& expected) {
        ASSERT_TRUE(document.is_object());
        const json wanted = json::parse(expected);
        for (const auto& [key, value] : wanted.items()) {
            EXPECT_EQ(document.value(key, json()), value) << key << " in " << document;
        }
    }

    std::unique_ptr<BulkSender> sender_;
    std::unique_ptr<SourceIndexer> indexer_;
    std::vector<std::pair<uint64_t, std::string>> frames_;
};

TEST_F(IndexingTest, FlowsAreBidirectionalPerVlanNamedByTheirInitiatorAndKeepTheirFragments) {
    start();
    // The client has the higher address and port: naming does not follow their order.
    FrameSpec syn{.vlan = 10, .ip_src = "10.0.0.9", .protocol = 6, .port_src = 51000};
    syn.port_dst = 443;
    syn.tcp_flags = 0x02;
    FrameSpec answer = testing::reply(syn);
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
    FrameSpec late{.ip_src = "2001:db8::1", .ip_dst = "2001:db8::80", .protocol = 6};
    late.port_src = 60000;
    late.tcp_flags = 0x12;
    feed(build_frame(testing::reply(late)), kStart + 4'000'000);
    // Later fragments, which carry no ports, count in the flow of their first fragment.
    for (const std::string source : {"10.1.1.1", "2001:db8::5"}) {
        FrameSpec first{.ip_src = source,
                        .ip_dst = source == "10.1.1.1" ? "10.1.1.2" : "2001:db8::6",
                        .payload = std::string(64, 'a'),
                        .fragment_id = 77,
                        .more_fragments = true};
        feed(build_frame(first), kStart);
        first.payload = std::string(72, 'b');
        for (uint16_t offset : {9, 18}) {
            first.fragment_offset = offset;
            first.more_fragments = offset == 9;
            feed(build_frame(first), kStart + offset);
        }
    }

    auto all = documents();
    ASSERT_EQ(all.size(), 1u);
    auto flows = with(all["flows-2024.03.05"], "IN_PKTS");
    ASSERT_EQ(flows.size(), 5u);
    // By VLAN, else by client port; the fragmented ones apart.
    std::map<uint64_t, json> by_port;
    std::vector<json> fragmented;
    for (auto& flow : flows) {
        if (flow.contains("FRAGMENTED")) {
            fragmented.push_back(flow);
        } else {
            by_port[flow.value("VLAN_ID", flow["L4_SRC_PORT"].get<uint64_t>())] = flow;
        }
    }
    expect_fields(by_port[10],
                  R"({"INTERFACE": "eth0", "IP_SRC": "10.0.0.9", "IP_DST": "10.0.0.2",
        "L4_SRC_PORT": 51000, "L4_DST_PORT": 443, "IP_PROTOCOL": 6, "ETH_TYPE": 33024,
        "MAC_SRC": "02:00:00:00:00:01", "MAC_DST": "02:00:00:00:00:02", "TCP_FLAGS_SEEN": 18,
        "IN_PKTS": 2, "OUT_PKTS": 1, "FLOW_END_REASON": "capture-end",
        "FIRST_SWITCHED": 1709640000000, "LAST_SWITCHED": 1709640000002,
        "@timestamp": 1709640000002})");
    EXPECT_EQ(by_port[10]["OUT_BYTES"], frames_[1].second.size());
    EXPECT_EQ(by_port[20]["IN_PKTS"], 1);
    expect_fields(
        by_port[60000],
        R"({"IP_SRC": "2001:db8::1", "L4_SRC_PORT": 60000, "OUT_PKTS": 1, "ETH_TYPE": 34525})");
    ASSERT_EQ(fragmented.size(), 2u);
    for (const auto& flow : fragmented) {
        expect_fields(flow, R"({"IN_PKTS": 3, "FRAGMENTED": 3, "L4_DST_PORT": 80})");
    }
}

TEST_F(IndexingTest, LongFlowsAreReportedWhileTheyLastIdleOnesEndStatisticsEachPeriod) {
    settings_.packet_statistics = true;
    start();
    indexer_->drops(5, 2);
    FrameSpec packet{.protocol = 17, .port_src = 5000, .port_dst = 6000};
    // One packet a second for 7 s (active time-out 4 s), then silence (idle time-out 3 s), then
    // one more.
    for (uint64_t second = 0; second < 7; ++second) {
        feed(build_frame(packet), kStart + second * kSecond);
        indexer_->tick(kStart + second * kSecond + kSecond / 2);
    }
    for (uint64_t second = 7; second < 20; ++second) indexer_->tick(kStart + second * kSecond);
    feed(build_frame(packet), kStart + 30 * kSecond);

    auto all = documents();
    auto statistics = with(all["flows-2024.03.05"], "STATS_PACKETS");
    ASSERT_EQ(statistics.size(), 2u);
    expect_fields(statistics[0], R"({"STATS_PACKETS": 7, "STATS_PERIOD_MS": 10000,
        "STATS_KERNEL_DROPS": 5, "STATS_ENGINE_DROPS": 2})");
    auto flows = with(all["flows-2024.03.05"], "IN_PKTS");
    ASSERT_EQ(flows.size(), 3u);
    std::vector<std::pair<std::string, int>> parts;
    for (const auto& flow : flows) {
        parts.emplace_back(flow["FLOW_END_REASON"], flow["IN_PKTS"]);
        EXPECT_LE(flow["LAST_SWITCHED"].get<uint64_t>() - flow["FIRST_SWITCHED"].get<uint64_t>(),
                  4000u);
    }
    EXPECT_EQ(parts, (decltype(parts){{"active", 5}, {"idle", 2}, {"capture-end", 1}}));
}

// Lookups that cross the index's growth and the moves that expiry makes, then more
// conversations at once than the table holds: no packet counts in a wrong or second flow.
TEST_F(IndexingTest, FlowsAreFoundWhileTheTableGrowsExpiresAndEvicts) {
    settings_.max_flows = 800;
    settings_.flow_active_timeout_s = 60;
    start();
    auto packet = [&](int n, bool answer, uint64_t time) {
        FrameSpec out{.ip_src = "10.0." + std::to_string(n / 200) + "." + std::to_string(n % 200),
                      .port_src = static_cast<uint16_t>(1000 + n % 7)};
        feed(build_frame(answer ? testing::reply(out) : out), time);
    };
    // Every 10 ms a conversation, answered 2 s later; the answered ones time out (3 s idle), so
    // some 600 are live at a time.
    uint64_t time = kStart;
    for (int n = 0; n < 1700; ++n, time += kSecond / 100) {
        if (n < 1500) packet(n, false, time);
        if (n >= 200) packet(n - 200, true, time + 1000);
        if (n % 10 == 0) indexer_->tick(time);
    }
    indexer_->tick(time + 10 * kSecond);
    for (int n = 0; n < 1000; ++n) {
        packet(n, false, time + 11 * kSecond + n * 1000);
        packet(n, true, time + 11 * kSecond + n * 1000 + 10);
    }

    std::map<std::string, int> reasons;
    auto all = documents();
    for (const auto& flow : all["flows-2024.03.05"]) {
        ++reasons[flow["FLOW_END_REASON"]];
        ASSERT_EQ(flow["IN_PKTS"], 1) << flow;
        ASSERT_EQ(flow["OUT_PKTS"], 1) << flow;
    }
    EXPECT_EQ(reasons, (std::map<std::string, int>{
                           {"idle", 1500}, {"table-full", 200}, {"capture-end", 800}}));
}

TEST_F(IndexingTest, OptionalRecordsAreOffByDefault) {
    start();
    feed(build_frame({.port_dst = 53, .payload = testing::dns_message("example.org", 1, 1, false)}),
         kStart);
    feed(build_frame({.protocol = 6, .payload = "GET / HTTP/1.1\r\nHost: h\r\n\r\n"}), kStart);
    feed(testing::arp_frame(1, "02:00:00:00:00:01", "10.0.0.1", "00:00:00:00:00:00", "10.0.0.2"),
         kStart);
    auto all = documents();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(with(all["flows-2024.03.05"], "IN_PKTS").size(), 2u);
    EXPECT_EQ(all["flows-2024.03.05"].size(), 2u);
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
        build_frame({.protocol = 6,
                     .payload = "POST /a?b=\"c\" HTTP/1.0\r\nHost: ex\x01\xe9.org\r\n"
                                "User-Agent: tester\r\n\r\n"}),
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
    expect_fields(dns[0], R"({"DNS_QUERY": "a.b.c", "DNS_RET_CODE": 3, "DNS_QUERY_TYPE": 28,
        "DNS_RESPONSE": 1, "VLAN_ID": 5, "IP_SRC": "2001:db8::1"})");
    ASSERT_FALSE(all["web-2024.03.05"].empty());
    // Quotes, control and non-ASCII bytes arrive as valid JSON text.
    expect_fields(all["web-2024.03.05"].back(), R"({"HTTP_METHOD": "POST", "HTTP_URL": "/a?b=\"c\"",
        "HTTP_HOST": "ex\u0001\u00e9.org", "HTTP_USER_AGENT": "tester", "INTERFACE": "eth0"})");
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
    ASSERT_EQ(all["web-2024.03.05"].size(), 1u);
    expect_fields(one(all["flows-2024.03.05"], "DNS_QUERY"),
                  R"({"DNS_QUERY": "example.org", "DNS_QUERY_ID": 9, "DNS_RESPONSE": 0})");
    expect_fields(
        one(all["flows-2024.03.05"], "ARP_OPCODE"),
        R"({"ARP_SENDER_IP": "10.0.0.1", "ARP_TARGET_IP": "10.0.0.2", "ETH_TYPE": 2054})");
    EXPECT_EQ(one(all["flows-2024.03.05"], "STATS_PACKETS")["STATS_PACKETS"], 4);

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
