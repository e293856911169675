// GET /metrics through the real program, read by the Prometheus reference parser: the counters
// follow the requests, downloads, registrations and clean-ups made.
#include <chrono>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "ops_server_fixture.h"

namespace vistrel::testing {
namespace {

using Samples = std::vector<nlohmann::json>;

class MetricsServerTest : public OpsServerTest {
  protected:
    // The reference parser's reading of a scrape; fails the test when it cannot parse it.
    Samples scrape() {
        HttpResponse response = http_.get("/metrics");
        EXPECT_EQ(response.status, 200);
        EXPECT_EQ(response.headers["content-type"], "text/plain; version=0.0.4; charset=utf-8");
        const std::string path = data_.file("scrape-" + std::to_string(++files_) + ".txt");
        write_file(path, response.body);
        const std::string parsed =
            run_command("/usr/bin/python3 " VISTREL_SOURCE_DIR "/tests/ops/parse_metrics.py < " +
                        path + " 2>&1 && echo PARSED");
        EXPECT_NE(parsed.find("PARSED"), std::string::npos) << parsed << response.body;
        Samples samples;
        std::istringstream lines(parsed);
        for (std::string line; std::getline(lines, line);) {
            if (!line.empty() && line[0] == '{') samples.push_back(nlohmann::json::parse(line));
        }
        return samples;
    }

    // The value of the one sample with this name whose labels include `labels`; -1 if none.
    static double value(const Samples& samples, const std::string& name,
                        const nlohmann::json& labels = nlohmann::json::object()) {
        for (const nlohmann::json& sample : samples) {
            if (sample["name"] != name) continue;
            bool matches = true;
            for (const auto& [key, wanted] : labels.items()) {
                if (!sample["labels"].contains(key) || sample["labels"][key] != wanted) {
                    matches = false;
                }
            }
            if (matches) return sample["value"].get<double>();
        }
        return -1;
    }

    std::string download(const std::string& extra) {
        const std::string range = "/getCapture?from=" + std::to_string(kBase / 1000000) +
                                  "&to=" + std::to_string((kBase + kPackets * kSecond) / 1000000);
        HttpResponse response = http_.get(range + extra);
        EXPECT_EQ(response.status, 200);
        EXPECT_EQ(response.headers["content-type"], "application/x-pcapng");
        return response.body;
    }
};

TEST_F(MetricsServerTest, CountersFollowTheRequestsMade) {
    const Samples before = scrape();
    EXPECT_EQ(value(before, "vistrel_build_info", {{"version", "2019.03.25"}}), 1);
    EXPECT_EQ(value(before, "vistrel_engine_running"), 0);
    EXPECT_GT(value(before, "vistrel_capture_volume_free_bytes"), 0);
    EXPECT_GT(value(before, "vistrel_start_time_seconds"), 1.7e9);
    EXPECT_EQ(value(before, "vistrel_index_rows"), 0);
    EXPECT_EQ(value(before, "vistrel_download_bytes_total", {{"path", "direct"}}), 0);
    EXPECT_EQ(value(before, "vistrel_downloads_in_flight"), 0);

    for (int i = 0; i < 3; ++i) ASSERT_EQ(http_.get("/getStatus").status, 200);
    ASSERT_EQ(http_.get("/no/such/page?x=1").status, 404);
    ASSERT_EQ(http_.post("/search", "{").status, 400);
    register_capture();
    const std::string direct = download("");
    const std::string filtered = download("&var-Filters=L4_DST_PORT%7C%3D%7C53");
    ASSERT_EQ(http_.get("/cleanup?es_index=vistrel").status, 200);

    // A request is counted when libmicrohttpd reports it complete, which may come just after the
    // client has read the whole reply: wait (bounded) until both downloads are done.
    Samples after = scrape();
    const nlohmann::json capture_done = {{"endpoint", "/getCapture"}, {"le", "+Inf"}};
    for (int wait = 0; wait < 100 && (value(after, "vistrel_downloads_in_flight") != 0 ||
                                      value(after, "vistrel_http_request_duration_seconds_bucket",
                                            capture_done) < 2);
         ++wait) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        after = scrape();
    }
    const nlohmann::json status_ok = {{"endpoint", "/getStatus"}, {"status", "200"}};
    EXPECT_EQ(value(after, "vistrel_http_requests_total", status_ok) -
                  std::max(0.0, value(before, "vistrel_http_requests_total", status_ok)),
              3);
    // Unknown URLs share one label value, whatever the URL.
    EXPECT_EQ(
        value(after, "vistrel_http_requests_total", {{"endpoint", "other"}, {"status", "404"}}), 1);
    EXPECT_EQ(value(after, "vistrel_http_requests_total",
                    {{"method", "POST"}, {"endpoint", "/search"}, {"status", "400"}}),
              1);
    EXPECT_GE(
        value(after, "vistrel_http_request_duration_seconds_count", {{"endpoint", "/getStatus"}}),
        3);
    EXPECT_EQ(value(after, "vistrel_http_request_duration_seconds_bucket",
                    {{"endpoint", "/getCapture"}, {"le", "+Inf"}}),
              2);

    EXPECT_EQ(value(after, "vistrel_download_bytes_total", {{"path", "direct"}}),
              static_cast<double>(direct.size()));
    EXPECT_EQ(value(after, "vistrel_download_packets_total", {{"path", "direct"}}), kPackets);
    EXPECT_EQ(value(after, "vistrel_download_bytes_total", {{"path", "filtered"}}),
              static_cast<double>(filtered.size()));
    EXPECT_EQ(value(after, "vistrel_download_packets_total", {{"path", "filtered"}}),
              static_cast<double>(tshark_packets(filtered)));
    EXPECT_EQ(value(after, "vistrel_download_packets_total", {{"path", "filtered"}}), kPackets / 3);
    EXPECT_EQ(value(after, "vistrel_downloads_in_flight"), 0);

    EXPECT_EQ(value(after, "vistrel_capture_files_registered_total"), 1);
    EXPECT_EQ(value(after, "vistrel_cleanups_total", {{"target", "files"}}), 1);
    EXPECT_EQ(value(after, "vistrel_cleanup_errors_total", {{"target", "files"}}), 0);
    EXPECT_EQ(value(after, "vistrel_index_rows"), 1);  // kept: no filesystem=true

    // The device of the simulator, idle, once the library has announced it.
    Samples devices = after;
    for (int i = 0; i < 50 && value(devices, "vistrel_devices_attached") != 1; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        devices = scrape();
    }
    EXPECT_EQ(value(devices, "vistrel_devices_attached"), 1);
    EXPECT_EQ(value(devices, "vistrel_device_capturing", {{"mac", "00:1b:c5:00:00:21"}}), 0);
    EXPECT_EQ(value(after, "vistrel_firmware_updates_in_progress"), 0);
    EXPECT_EQ(value(after, "vistrel_uploads_in_flight"), 0);
}

}  // namespace
}  // namespace vistrel::testing
