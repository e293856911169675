// GET /getCapture through the real program: files registered with /addFile, downloaded and
// filtered by the dashboard's variables, and filtered downloads compared with tshark's own
// selection from the same packets: libpcap's fast path must select exactly what tshark selects,
// packet for packet (times and bytes), on plain traffic and on traffic that tshark reads deeper.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "capturefilewriter.h"
#include "dashboard/dashboardfilter.h"
#include "support/server_process.h"
#include "traffic.h"

namespace vistrel::testing {
namespace {

constexpr uint64_t kMillisecond = 1000000ull;
constexpr uint64_t kSecond = 1000000000ull;
constexpr uint64_t kBaseSeconds = 1710000000;  // 2024-03-09
constexpr uint64_t kBase = kBaseSeconds * kSecond;
// The filter comparisons' sources, a day later.
constexpr uint64_t kFilterBase = kBase + 86400 * kSecond;

// One server for every test. Two devices' files: dev1 writes pcapng (two ports, packets every
// second from kBase), dev2 classic pcap (every second from kBase + 0.5 s); ports 53 and 80
// alternate. For the filter comparisons, source "plain": plain traffic in a pcapng and a pcap
// file; and one source per trap: a little plain traffic and the trap's frames.
class CaptureDownloadServerTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        data_ = std::make_unique<TempDir>();
        server_ = std::make_unique<ServerProcess>();
        ASSERT_TRUE(server_->start({"--mode", "debug", "--host", "127.0.0.1", "--port",
                                    std::to_string(server_->port()), "--database",
                                    data_->file("index.db"), "--loglevel", "debug"}))
            << server_->output();
        PcapngBuilder devices;
        devices.section().interface(9).interface(9);
        PcapBuilder classic;
        for (uint64_t i = 0; i < 40; ++i) {
            devices.packet(static_cast<uint32_t>(i % 2), kBase + i * kSecond, frame(i));
            classic.record(static_cast<uint32_t>(kBaseSeconds + i), 500000, frame(i + 100));
        }
        register_file("dev1.pcapng", devices.bytes(), "dev1", kBase, kBase + 39 * kSecond);
        register_file("dev2.pcap", classic.bytes(), "dev2", kBase + kSecond / 2,
                      kBase + 39 * kSecond + kSecond / 2);

        uint64_t stamp = kFilterBase;
        merged_.section().interface(9);
        const auto plain = plain_traffic();
        PcapngBuilder pcapng;
        pcapng.section().interface(9).interface(9);
        PcapBuilder pcap(0xA1B23C4D);
        for (size_t i = 0; i < plain.size(); ++i, stamp += kMillisecond) {
            if (i < plain.size() / 2) {
                pcapng.packet(static_cast<uint32_t>(i % 2), stamp, plain[i]);
            } else {
                pcap.record(static_cast<uint32_t>(stamp / kSecond), stamp % kSecond, plain[i]);
            }
            merged_.packet(0, stamp, plain[i]);
        }
        register_file("plain-a.pcapng", pcapng.bytes(), "plain", kFilterBase, stamp - kMillisecond);
        register_file("plain-b.pcap", pcap.bytes(), "plain", kFilterBase, stamp - kMillisecond);
        sources_.push_back({"plain", kFilterBase, stamp - kMillisecond});
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
            register_file(trap.name + ".pcapng", file.bytes(), trap.name, start,
                          stamp - kMillisecond);
            sources_.push_back({trap.name, start, stamp - kMillisecond});
        }
        merged_path_ = data_->file("merged.pcapng");
        write_file(merged_path_, merged_.bytes());
    }

    static void TearDownTestSuite() {
        server_.reset();
        data_.reset();
    }

    static std::string frame(uint64_t i) {
        return udp_frame(60 + (i * 211) % 1400, "10.0.0.1", "10.0.0.2", 40000,
                         i % 2 == 0 ? 53 : 80);
    }

    static void register_file(const std::string& name, const std::string& bytes,
                              const std::string& source, uint64_t start, uint64_t end) {
        const std::string path = data_->file(name);
        write_file(path, bytes);
        HttpResponse response = server_->client().get(
            "/addFile?file_path=" + url_encode(path) + "&start_ts=" + std::to_string(start) +
            "&end_ts=" + std::to_string(end) + "&n_packets=40&source=" + source +
            "&es_index=vistrel-1");
        ASSERT_EQ(response.status, 200) << response.body;
    }

    static std::string capture_query(uint64_t from, uint64_t to, const std::string& extra = "") {
        return "/getCapture?from=" + std::to_string(from / kMillisecond) +
               "&to=" + std::to_string(to / kMillisecond) + extra;
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
        std::string query = capture_query(from, to, "&var-esinterface=" + source.name);
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

    HttpClient http_ = server_->client();
    static inline std::unique_ptr<ServerProcess> server_;
    static inline std::unique_ptr<TempDir> data_;
    static inline PcapngBuilder merged_;
    static inline std::string merged_path_;
    static inline std::vector<Source> sources_;
    static inline std::map<std::string, PacketList> selections_;
};

// Eight clients at once are each given the same stream.
TEST_F(CaptureDownloadServerTest, DirectDownloadIsTheRangeOfEveryFileInIndexOrder) {
    // The index selects files whose first or last packet is in the range.
    const uint64_t from = kBase + 30 * kSecond;
    const uint64_t to = kBase + 45 * kSecond;
    std::vector<HttpResponse> responses(8);
    std::vector<std::thread> threads;
    for (auto& response : responses) {
        threads.emplace_back([&response, this] { response = http_.get(capture_query(from, to)); });
    }
    for (auto& thread : threads) thread.join();

    // dev1's file first (it starts earlier), then dev2's: the header, then each file's EPBs.
    std::string expected = extract_header();
    std::string second_file;
    for (uint64_t i = 30; i < 40; ++i) {
        expected += expected_epb(static_cast<uint32_t>(i % 2), kBase + i * kSecond, frame(i));
        second_file += expected_epb(0, kBase + i * kSecond + kSecond / 2, frame(i + 100));
    }
    expected += second_file;
    for (auto& response : responses) {
        ASSERT_EQ(response.status, 200) << response.body;
        EXPECT_EQ(response.headers["content-type"], "application/x-pcapng");
        EXPECT_EQ(response.headers["content-disposition"], "attachment; filename=capture_" +
                                                               std::to_string(from) + "_" +
                                                               std::to_string(to) + ".pcapng");
        EXPECT_EQ(response.body.size(), expected.size());
        EXPECT_TRUE(response.body == expected);
    }
    EXPECT_NE(server_->log().find("Found 2 files"), std::string::npos);
}

TEST_F(CaptureDownloadServerTest, DashboardVariablesSelectSourcesAndFilterThePackets) {
    const uint64_t from = kBase;
    const uint64_t to = kBase + 30 * kSecond;
    // Only dev1, only port 53: packets 0, 2, ..., 28 (30 is at the exclusive end).
    HttpResponse response = http_.get(capture_query(
        from, to, "&var-esinterface=dev1&var-Filters=" + url_encode("L4_DST_PORT|=|53")));
    ASSERT_EQ(response.status, 200) << response.body;
    EXPECT_EQ(response.headers["content-type"], "application/x-pcapng");
    PacketList wanted;
    for (uint64_t i = 0; i < 30; i += 2) wanted.emplace_back(kBase + i * kSecond, frame(i));
    EXPECT_TRUE(pcapng_packets(response.body) == wanted);
    EXPECT_NE(server_->log().find("Translated Grafana filters to tshark like: "
                                  "'((tcp.dstport==53||udp.dstport==53))'"),
              std::string::npos);

    // An INTERFACE filter names the source; bidirectional ports match either side.
    response = http_.get(capture_query(from, to,
                                       "&var-Filters=" + url_encode("INTERFACE|=|dev2") +
                                           "&var-Filters=" + url_encode("L4_SRC_PORT|=|80") +
                                           "&var-bidirectionalfilter=true"));
    ASSERT_EQ(response.status, 200);
    // dev2's packets i + 100 carry port 80 when i is odd: 15 of the 30 in range.
    wanted.clear();
    for (uint64_t i = 1; i < 30; i += 2) {
        wanted.emplace_back(kBase + i * kSecond + kSecond / 2, frame(i + 100));
    }
    EXPECT_TRUE(pcapng_packets(response.body) == wanted);
    EXPECT_NE(server_->log().find(
                  "Got an interface (user) filter from Grafana, using as interface: 'dev2'"),
              std::string::npos);
}

// A missing time and a range without files answer the documented examples' pages
// (ops/ops_server_test).
TEST_F(CaptureDownloadServerTest, ErrorsAnswerTheirPages) {
    HttpResponse response = http_.get("/getCapture?from=yesterday&to=now");
    EXPECT_EQ(response.status, 400);
    EXPECT_EQ(response.body, "Error : Bad timestamps given");

    // SQL in a dashboard variable is a source name like any other: it matches nothing.
    for (const char* source : {"' OR '1'='1", "x') OR ('1'='1"}) {
        response = http_.get(
            capture_query(kBase, kBase + 39 * kSecond, "&var-esinterface=" + url_encode(source)));
        EXPECT_NE(response.body.find("<h2>Error Extracting Capture File</h2>"), std::string::npos)
            << source;
    }

    // Files selected, but no packet inside the range.
    register_file(
        "late.pcapng",
        PcapngBuilder().section().interface(9).packet(0, kBase + 500 * kSecond, frame(1)).bytes(),
        "dev3", kBase + 455 * kSecond, kBase + 500 * kSecond);
    response = http_.get(capture_query(kBase + 450 * kSecond, kBase + 460 * kSecond));
    EXPECT_EQ(response.status, 200);
    EXPECT_NE(response.body.find("<h2>Extract Capture Error</h2><p>Couldn't find traffic data "
                                 "for the requested parameters in your capture machine</p>"),
              std::string::npos);

    // Only an unreadable file: nothing to send.
    register_file("junk.pcap", std::string(300, 'j'), "dev4", kBase + 800 * kSecond,
                  kBase + 900 * kSecond);
    response = http_.get(capture_query(kBase + 800 * kSecond, kBase + 810 * kSecond));
    EXPECT_EQ(response.status, 204);
    EXPECT_EQ(response.body, "");
}

TEST_F(CaptureDownloadServerTest, ParallelTsharkDownloadsOfALargeRangeAreWhatTsharkSelects) {
    // About 27 MB of packets; nine in ten go to port 53, more than the socket buffers hold. Each
    // download ends only when tshark's output has been read to its end, however late the reader
    // comes to it.
    PcapngBuilder big;
    big.section().interface(9);
    const uint64_t start = kBase + 5000 * kSecond;
    for (uint64_t i = 0; i < 24000; ++i) {
        big.packet(
            0, start + i * 1000,
            udp_frame(900 + (i * 37) % 600, "10.0.0.1", "10.0.0.2", 40000, i % 10 == 0 ? 80 : 53));
    }
    register_file("big.pcapng", big.bytes(), "big", start, start + 23999 * 1000);
    // A raw display filter of the user: always tshark.
    const std::string query = capture_query(
        start, start + kSecond,
        "&var-esinterface=big&var-Filters=" + url_encode("protocol|=|udp.dstport==53"));
    const std::string reference = data_->file("reference.pcapng");
    run_command("tshark -r " + data_->file("big.pcapng") +
                " -Y '( frame.time_epoch >= " + std::to_string(start / kSecond) +
                ".000000000 ) && ((udp.dstport==53))' -w " + reference + " 2>/dev/null");
    const PacketList wanted = pcapng_packets(read_file(reference));
    ASSERT_EQ(wanted.size(), 21600u);

    // Slow readers: tshark has long written its last bytes and exited when they get to them.
    std::string command;
    for (int i = 0; i < 8; ++i) {
        command += "curl -s --limit-rate 8M -o " + data_->file("parallel-" + std::to_string(i)) +
                   " -w '%{http_code} ' '" + http_.base_url() + query + "' & ";
    }
    EXPECT_EQ(run_command(command + "wait"), "200 200 200 200 200 200 200 200 ");
    for (int i = 0; i < 8; ++i) {
        const std::string body = read_file(data_->file("parallel-" + std::to_string(i)));
        EXPECT_TRUE(pcapng_packets(body) == wanted) << body.size() << " bytes";
    }
    EXPECT_NE(server_->log().find("Filtering with tshark: the filter holds a display filter of "
                                  "the user's own"),
              std::string::npos);
}

// One row per way a dashboard filter reaches the packets: each kind of field the fast path
// compiles, with each operator form it treats apart, and the kinds it leaves to tshark.
TEST_F(CaptureDownloadServerTest, FastPathSelectsWhatTsharkSelectsOnPlainTraffic) {
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

TEST_F(CaptureDownloadServerTest, TrafficThatTsharkReadsDeeperGoesThroughTshark) {
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
