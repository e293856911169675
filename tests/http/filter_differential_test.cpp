// Filtered downloads through the real program against tshark's own selection from the same
// packets: libpcap's fast path must select exactly what tshark selects, packet for packet
// (times and bytes), on plain traffic and on traffic that tshark reads deeper than libpcap.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "capturefilewriter.h"
#include "dashboard/dashboardfilter.h"
#include "support/server_process.h"
#include "traffic.h"

namespace vistrel::testing {
namespace {

constexpr uint64_t kMillisecond = 1000000ull;
constexpr uint64_t kBase = 1710000000ull * 1000000000ull;

class FilterDifferentialTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        data_ = std::make_unique<TempDir>();
        server_ = std::make_unique<ServerProcess>();
        ASSERT_TRUE(server_->start({"--mode", "debug", "--host", "127.0.0.1", "--port",
                                    std::to_string(server_->port()), "--database",
                                    data_->file("index.db"), "--loglevel", "normal"}))
            << server_->output();
        // Source "plain": plain traffic in a pcapng and a pcap file. One source per trap: a
        // little plain traffic and the trap's frames.
        uint64_t stamp = kBase;
        const auto plain = plain_traffic();
        PcapngBuilder pcapng;
        pcapng.section().interface(9).interface(9);
        PcapBuilder pcap(0xA1B23C4D);
        const uint64_t plain_start = stamp;
        for (size_t i = 0; i < plain.size(); ++i, stamp += kMillisecond) {
            if (i < plain.size() / 2) {
                pcapng.packet(static_cast<uint32_t>(i % 2), stamp, plain[i]);
            } else {
                pcap.record(static_cast<uint32_t>(stamp / 1000000000), stamp % 1000000000,
                            plain[i]);
            }
            merged_.packet(0, stamp, plain[i]);
        }
        add("plain-a.pcapng", pcapng.bytes(), "plain", plain_start, stamp - kMillisecond);
        add("plain-b.pcap", pcap.bytes(), "plain", plain_start, stamp - kMillisecond);
        sources_.push_back({"plain", plain_start, stamp - kMillisecond});

        for (const auto& trap : trap_traffic()) {
            stamp += 1000 * kMillisecond;
            PcapngBuilder file;
            file.section().interface(9);
            const uint64_t start = stamp;
            std::vector<std::string> frames(plain.begin(), plain.begin() + 12);
            frames.insert(frames.begin() + 6, trap.frames.begin(), trap.frames.end());
            for (const auto& frame : frames) {
                const bool cut =
                    trap.truncated && frame.size() > 40 &&
                    std::find(trap.frames.begin(), trap.frames.end(), frame) != trap.frames.end();
                const std::string data = cut ? frame.substr(0, 40) : frame;
                const auto original = static_cast<uint32_t>(frame.size());
                file.packet(0, stamp, data, original);
                merged_.packet(0, stamp, data, original);
                stamp += kMillisecond;
            }
            add(trap.name + ".pcapng", file.bytes(), trap.name, start, stamp - kMillisecond);
            sources_.push_back({trap.name, start, stamp - kMillisecond});
        }
        merged_path_ = data_->file("merged.pcapng");
        write_file(merged_path_, merged_.bytes());
    }

    static void TearDownTestSuite() {
        server_.reset();
        data_.reset();
    }

    static void add(const std::string& name, const std::string& bytes, const std::string& source,
                    uint64_t start, uint64_t end) {
        const std::string path = data_->file(name);
        write_file(path, bytes);
        HttpResponse response = server_->client().get(
            "/addFile?file_path=" + url_encode(path) + "&start_ts=" + std::to_string(start) +
            "&end_ts=" + std::to_string(end) + "&n_packets=1&source=" + source +
            "&es_index=vistrel-1");
        ASSERT_EQ(response.status, 200) << response.body;
    }

    struct Source {
        std::string name;
        uint64_t first;
        uint64_t last;
    };

    // Downloads `source`'s range with the dashboard filters and compares it with tshark's
    // selection from the same packets. Returns whether the server took the fast path.
    bool compare(const Source& source, const std::vector<std::string>& filters,
                 bool bidirectional) {
        // From the source's second packet to its last, which the exclusive end leaves out.
        const uint64_t from = source.first + kMillisecond;
        const uint64_t to = source.last;
        std::string query = "/getCapture?from=" + std::to_string(from / kMillisecond) +
                            "&to=" + std::to_string(to / kMillisecond) +
                            "&var-esinterface=" + source.name;
        std::vector<dashboard::DashboardFilter> triples;
        for (const auto& filter : filters) {
            query += "&var-Filters=" + url_encode(filter);
            dashboard::collect_user_filter("var-Filters", filter.c_str(), triples);
        }
        if (bidirectional) query += "&var-bidirectionalfilter=true";
        const std::string filter = dashboard::translate_filters(
            triples, bidirectional, VISTREL_SOURCE_DIR "/config/grafana_to_tshark.yaml");

        const size_t log_mark = server_->log().size();
        HttpResponse response = server_->client().get(query);
        const std::string log = server_->log().substr(log_mark);
        const bool fast = log.find("Filtering with BPF") != std::string::npos;
        const std::string context =
            source.name + " " + filter + (fast ? " (BPF)" : " (tshark)") + "\n" + log;

        // tshark reads every packet on its own here, so its selection from all sources at
        // once, cut to the range (end exclusive), is its selection from the range.
        auto cached = selections_.find(filter);
        if (cached == selections_.end()) {
            const std::string path =
                data_->file("selection-" + std::to_string(selections_.size()) + ".pcapng");
            run_command("tshark -r " + merged_path_ + " -Y '" + filter + "' -w " + path +
                        " 2>/dev/null");
            cached = selections_.emplace(filter, pcapng_packets(read_file(path))).first;
        }
        PacketList wanted;
        for (const auto& packet : cached->second) {
            if (packet.first >= from && packet.first < to) wanted.push_back(packet);
        }
        if (response.status == 0) {
            // The server's tshark refused the filter: so must tshark here.
            EXPECT_FALSE(fast) << context;
            EXPECT_TRUE(wanted.empty()) << context;
            return fast;
        }
        EXPECT_EQ(response.status, 200) << context;
        if (fast) {
            EXPECT_EQ(response.body.compare(0, 92, extract_header()), 0) << context;
        }
        const PacketList got = pcapng_packets(response.body);
        EXPECT_EQ(got.size(), wanted.size()) << context;
        EXPECT_TRUE(got == wanted) << context;
        return fast;
    }

    static std::map<std::string, PacketList> selections_;
    static std::unique_ptr<ServerProcess> server_;
    static std::unique_ptr<TempDir> data_;
    static PcapngBuilder merged_;
    static std::string merged_path_;
    static std::vector<Source> sources_;
};

std::unique_ptr<ServerProcess> FilterDifferentialTest::server_;
std::unique_ptr<TempDir> FilterDifferentialTest::data_;
PcapngBuilder FilterDifferentialTest::merged_ = [] {
    PcapngBuilder builder;
    builder.section().interface(9);
    return builder;
}();
std::string FilterDifferentialTest::merged_path_;
std::vector<FilterDifferentialTest::Source> FilterDifferentialTest::sources_;
std::map<std::string, PacketList> FilterDifferentialTest::selections_;

// One row per way a dashboard filter reaches the packets: each kind of field the fast path
// compiles, with each operator form it treats apart, and the kinds it leaves to tshark.
TEST_F(FilterDifferentialTest, FastPathSelectsWhatTsharkSelectsOnPlainTraffic) {
    struct Case {
        std::vector<std::string> filters;
        bool bidirectional;
        bool fast;  // libpcap's path expected
    };
    const std::vector<Case> cases = {
        // Addresses: a libpcap primitive, negated within the packets that carry the field.
        {{"IP_SRC|=|" + kHostA}, false, true},
        {{"IP_DST|!=|" + kHostB}, false, true},
        {{"IP_SRC|=|" + kHostA}, true, true},
        {{"IP_SRC|=|" + kHost6A}, false, true},
        {{"IP_DST|!=|" + kHost6A}, true, true},
        {{"MAC_SRC|=|" + kMacA}, false, true},
        {{"MAC_DST|!=|" + kMacB}, false, true},
        {{"MAC_SRC|=|" + kMacA}, true, true},
        // Loads: EtherType, IP fields, ports over TCP and UDP on IPv4 and IPv6, TCP flags.
        {{"ETH_TYPE|!=|34525"}, false, true},
        {{"IP_PROTOCOL|<|17"}, false, true},
        {{"IP_TTL|>|64"}, false, true},
        {{"L4_SRC_PORT|=|53"}, false, true},
        {{"L4_DST_PORT|!=|1024"}, false, true},
        {{"L4_DST_PORT|>|1023"}, true, true},
        {{"TCP_FLAGS|=|0x012"}, false, true},
        {{"TCP_FLAGS|<|16"}, false, true},
        // Protocols alone and single flags.
        {{"ARP|=|x"}, false, true},
        {{"ICMP|=|x", "IP_DST|!=|" + kHostA}, true, true},
        {{"TCP_SYN|=|x", "IP_SRC|=|" + kHost6A}, false, true},
        {{"IP_SRC|=|" + kHostA, "L4_DST_PORT|!=|53", "IP_TTL|<|100"}, false, true},
        // Left to tshark: no libpcap counterpart, ordered addresses, the user's own filter, and
        // a value tshark itself refuses.
        {{"VLAN_ID|=|7"}, false, false},
        {{"DNS_QUERY|=|example.com"}, false, false},
        {{"IP_SRC|>|" + kHostA}, false, false},
        {{"protocol|=|udp"}, false, false},
        {{"DNS_QUERY_ID|=|example.com"}, false, false},
    };
    for (const Case& test : cases) {
        EXPECT_EQ(compare(sources_.front(), test.filters, test.bidirectional), test.fast)
            << test.filters.front() << (test.bidirectional ? " both ways" : "");
    }
}

TEST_F(FilterDifferentialTest, TrafficThatTsharkReadsDeeperGoesThroughTshark) {
    const std::vector<std::pair<std::vector<std::string>, bool>> cases = {
        {{"IP_SRC|=|" + kHostC}, false},
        {{"L4_DST_PORT|=|53"}, false},
        {{"IP_SRC|=|" + kHost6A, "TCP_SYN|=|x"}, true},
    };
    for (size_t k = 1; k < sources_.size(); ++k) {
        for (const auto& [filters, bidirectional] : cases) {
            EXPECT_FALSE(compare(sources_[k], filters, bidirectional)) << sources_[k].name;
        }
    }
}

}  // namespace
}  // namespace vistrel::testing
