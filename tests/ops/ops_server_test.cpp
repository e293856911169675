// Operations through the real program, with one simulated device: docs/openapi.yaml (valid
// OpenAPI, describing exactly the endpoints the server serves, its examples what the server
// answers to the example requests of the same name), and the shipped Grafana dashboard and
// GET /metrics: the dashboard's download link, filled as Grafana fills it, streams the filtered
// capture, and the counters read by the Prometheus reference parser follow the requests,
// downloads, registrations and clean-ups.
#include <gtest/gtest.h>
#include <yaml-cpp/yaml.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>

#include "capturefilewriter.h"
#include "http/httpserver.h"
#include "http/routes.h"
#include "support/eventually.h"
#include "support/server_process.h"

namespace vistrel::testing {
namespace {

// A real server with one simulated device.
class OpsServerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        write_file(data_.file("sim.yml"),
                   "devices:\n"
                   "  - mac: \"00:1b:c5:00:00:21\"\n"
                   "    packets_per_second: 10\n");
        server_.set_env("TIDEWELL_SIM_CONFIG", data_.file("sim.yml"));
        ASSERT_TRUE(
            server_.start({"--mode", "debug", "--host", "127.0.0.1", "--port",
                           std::to_string(server_.port()), "--database", data_.file("index.db")}))
            << server_.output();
    }

    TempDir data_;
    ServerProcess server_;
    HttpClient http_ = server_.client();
};

const std::string kDocument = VISTREL_SOURCE_DIR "/docs/openapi.yaml";

// The document as JSON, as PyYAML reads it: plain scalars take their JSON type, quoted ones
// stay strings. `at(document, "/a/b")` is document["a"]["b"], null when missing.
const nlohmann::json& document() {
    static const nlohmann::json parsed = nlohmann::json::parse(
        run_command("/usr/bin/python3 -c 'import json, sys, yaml; "
                    "json.dump(yaml.safe_load(open(sys.argv[1])), sys.stdout)' " +
                    kDocument));
    return parsed;
}
nlohmann::json at(const nlohmann::json& node, const std::string& pointer) {
    return node.value(nlohmann::json::json_pointer(pointer), nlohmann::json());
}
std::string text(const nlohmann::json& value) {
    return value.is_string() ? value.get<std::string>() : value.dump();
}

TEST(OpenApiDocumentTest, IsValidOpenApi) {
    const std::string result =
        run_command("swagger-cli validate " + kDocument + " 2>&1; echo rc=$?");
    EXPECT_NE(result.find("rc=0"), std::string::npos) << result;
}

TEST(OpenApiDocumentTest, DescribesExactlyTheServedEndpoints) {
    std::set<std::string> documented;
    for (const auto& [path, operations] : document()["paths"].items()) {
        for (const char* method : {"get", "post"}) {
            if (operations.contains(method)) documented.insert(std::string(method) + " " + path);
        }
    }
    std::set<std::string> served;
    const http::HttpServer& server = http::HttpServer::instance();
    for (const http::GetRoute& route : server.get_routes()) {
        if (!route.handler) continue;
        // URLs that merely contain the path are documented as files below it.
        served.insert("get " + route.path + (route.match_anywhere ? "{file}" : ""));
    }
    for (const http::PostRoute& route : server.post_routes()) {
        if (route.handler) served.insert("post " + route.path);
    }
    http::HttpServer::discard();
    EXPECT_EQ(documented, served);
}

// The request of the example `name` of `operation`: path and query from the parameters'
// examples, the body from the request body's.
std::pair<std::string, std::string> request_of(std::string url, const nlohmann::json& operation,
                                               const std::string& name) {
    std::string query;
    for (const nlohmann::json& parameter : operation.value("parameters", nlohmann::json::array())) {
        const nlohmann::json example = at(parameter, "/examples/" + name + "/value");
        if (example.is_null()) continue;
        const std::string key = parameter["name"];
        if (parameter["in"] == "path") {
            url.replace(url.find("{" + key + "}"), key.size() + 2, text(example));
            continue;
        }
        for (const nlohmann::json& value :
             example.is_array() ? example : nlohmann::json::array({example})) {
            query += (query.empty() ? "?" : "&") + key + "=" + url_encode(text(value));
        }
    }
    const nlohmann::json body =
        at(operation, "/requestBody/content/application~1json/examples/" + name + "/value");
    return {url + query, body.is_null() ? "" : text(body)};
}

using OpenApiExamplesTest = OpsServerTest;

TEST_F(OpenApiExamplesTest, ExamplesAreTheServersReplies) {
    // The simulated device must be announced before the device examples are replayed.
    EXPECT_TRUE(eventually(
        [&] { return http_.get("/getDevices").body.find("00:1b:c5") != std::string::npos; }, 10));
    int replayed = 0;
    for (const auto& [path, operations] : document()["paths"].items()) {
        for (const char* method : {"get", "post"}) {
            if (!operations.contains(method)) continue;
            const nlohmann::json& operation = operations[method];
            for (const auto& [status, listed] : operation["responses"].items()) {
                nlohmann::json response = listed;
                if (response.contains("$ref")) {
                    const std::string name = response["$ref"];
                    response =
                        at(document(), "/components/responses/" + name.substr(name.rfind('/') + 1));
                }
                const nlohmann::json contents = response.value("content", nlohmann::json::object());
                for (const auto& [media, content] : contents.items()) {
                    const nlohmann::json examples =
                        content.value("examples", nlohmann::json::object());
                    for (const auto& [name, example] : examples.items()) {
                        if (!example.value("x-replay", true)) continue;
                        auto [url, body] = request_of(path, operation, name);
                        SCOPED_TRACE(std::string(method) + " " + url + " " + body + " (" + name +
                                     ")");
                        HttpResponse reply =
                            std::string(method) == "get" ? http_.get(url) : http_.post(url, body);
                        ++replayed;
                        EXPECT_EQ(reply.status, std::stol(status));
                        const nlohmann::json& expected = example["value"];
                        const bool varies = example.value("x-varies", false);
                        if (media != "application/json") {
                            if (!varies) {
                                EXPECT_EQ(reply.body, text(expected));
                            }
                            continue;
                        }
                        const nlohmann::json actual =
                            nlohmann::json::parse(reply.body, nullptr, false);
                        if (!varies) {
                            EXPECT_EQ(actual, expected) << reply.body;
                        } else if (expected.is_object()) {
                            for (const auto& [key, value] : expected.items()) {
                                EXPECT_TRUE(actual.contains(key)) << key << " in " << reply.body;
                            }
                        } else {
                            EXPECT_EQ(actual.type(), expected.type()) << reply.body;
                        }
                    }
                }
            }
        }
    }
    EXPECT_GT(replayed, 20);
}

constexpr uint64_t kSecond = 1000000000ull;
constexpr uint64_t kBase = 1710000000ull * kSecond;
constexpr int kPackets = 30;

const std::string kGrafanaFolder = VISTREL_SOURCE_DIR "/config/grafana";

nlohmann::json dashboard() {
    std::ifstream file(kGrafanaFolder + "/dashboard.json");
    return nlohmann::json::parse(file);
}

TEST(GrafanaDashboardTest, VariablesAndDataSourcesAreThoseTheServerAndEngineUse) {
    const nlohmann::json board = dashboard();
    std::map<std::string, nlohmann::json> variables;
    for (const nlohmann::json& variable : board["templating"]["list"]) {
        variables[variable["name"]] = variable;
    }
    ASSERT_TRUE(variables.count("esinterface"));
    EXPECT_NE(variables["esinterface"]["query"].get<std::string>().find("\"INTERFACE\""),
              std::string::npos);
    EXPECT_TRUE(variables["esinterface"]["multi"].get<bool>());
    ASSERT_TRUE(variables.count("Filters"));
    EXPECT_EQ(variables["Filters"]["type"], "adhoc");
    ASSERT_TRUE(variables.count("bidirectionalfilter"));
    ASSERT_TRUE(variables.count("cs_address"));
    EXPECT_EQ(variables["cs_address"]["query"], "cs_address");

    std::set<std::string> provisioned;
    for (const YAML::Node& source :
         YAML::LoadFile(kGrafanaFolder + "/provisioning/datasources/vistrel.yaml")["datasources"]) {
        provisioned.insert(source["uid"].as<std::string>());
    }
    std::set<std::string> used;
    for (const auto& [name, variable] : variables) {
        if (variable.contains("datasource")) used.insert(variable["datasource"]["uid"]);
    }
    for (const nlohmann::json& panel : board["panels"]) {
        used.insert(panel["datasource"]["uid"]);
        for (const nlohmann::json& target : panel["targets"]) {
            used.insert(target["datasource"]["uid"]);
        }
    }
    for (const std::string& uid : used) EXPECT_TRUE(provisioned.count(uid)) << uid;
}

// The download links of the dashboard and of its panels, each once.
std::set<std::string> download_links(const nlohmann::json& board) {
    std::set<std::string> urls;
    auto take = [&urls](const nlohmann::json& links) {
        for (const nlohmann::json& link : links) {
            const std::string url = link.value("url", "");
            if (url.find("/getCapture") != std::string::npos) urls.insert(url);
        }
    };
    take(board.value("links", nlohmann::json::array()));
    for (const nlohmann::json& panel : board["panels"]) {
        take(panel["fieldConfig"]["defaults"].value("links", nlohmann::json::array()));
        take(panel.value("links", nlohmann::json::array()));
    }
    return urls;
}

void replace_all(std::string& text, const std::string& from, const std::string& to) {
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at)) {
        text.replace(at, from.size(), to);
        at += to.size();
    }
}

using Samples = std::vector<nlohmann::json>;

class DashboardMetricsTest : public OpsServerTest {
  protected:
    // kPackets UDP packets of source "dev", one a second from kBase; every third to port 53.
    void register_capture() {
        PcapngBuilder pcapng;
        pcapng.section().interface(9);
        for (int i = 0; i < kPackets; ++i) {
            pcapng.packet(0, kBase + i * kSecond,
                          udp_frame(80, "10.0.0.1", "10.0.0.2", 4000, i % 3 == 0 ? 53 : 80));
        }
        write_file(data_.file("dev.pcapng"), pcapng.bytes());
        ASSERT_EQ(http_
                      .get("/addFile?file_path=" + url_encode(data_.file("dev.pcapng")) +
                           "&start_ts=" + std::to_string(kBase) +
                           "&end_ts=" + std::to_string(kBase + kPackets * kSecond) +
                           "&n_packets=30&source=dev&es_index=vistrel")
                      .status,
                  200);
    }

    // The reference parser's reading of a scrape; fails the test when it cannot parse it.
    Samples scrape() {
        HttpResponse response = http_.get("/metrics");
        EXPECT_EQ(response.status, 200);
        EXPECT_EQ(response.headers["content-type"], "text/plain; version=0.0.4; charset=utf-8");
        const std::string path = data_.file("scrape-" + std::to_string(++scrapes_) + ".txt");
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
            nlohmann::json merged = sample["labels"];
            merged.update(labels);
            if (sample["name"] == name && merged == sample["labels"]) return sample["value"];
        }
        return -1;
    }

    // The dashboard's download link as Grafana fills it: an absolute range in milliseconds, and
    // every variable as var-NAME=VALUE, ad-hoc filters as KEY|OPERATOR|VALUE.
    std::string filled(std::string url, const std::string& address) const {
        replace_all(url, "${cs_address}", address);
        replace_all(url, "${cs_port}", std::to_string(server_.port()));
        replace_all(url, "${__url_time_range}",
                    "from=" + std::to_string(kBase / 1000000) +
                        "&to=" + std::to_string((kBase + kPackets * kSecond) / 1000000));
        replace_all(url, "${__all_variables}",
                    "var-cs_address=" + address + "&var-cs_port=" + std::to_string(server_.port()) +
                        "&var-esinterface=dev&var-bidirectionalfilter=false"
                        "&var-Filters=L4_DST_PORT%7C%3D%7C53");
        EXPECT_EQ(url.find('$'), std::string::npos) << "a variable Grafana would not fill";
        return url;
    }

    int scrapes_ = 0;
};

TEST_F(DashboardMetricsTest, DownloadLinkStreamsTheCaptureAndCountersFollowTheRequests) {
    // The start-up's one answered /getStatus may be counted just after its reply was read.
    const nlohmann::json status_ok = {{"endpoint", "/getStatus"}, {"status", "200"}};
    Samples before;
    eventually(
        [&] {
            before = scrape();
            return value(before, "vistrel_http_requests_total", status_ok) >= 1;
        },
        5);
    EXPECT_EQ(value(before, "vistrel_build_info", {{"version", "2019.03.25"}}), 1);
    EXPECT_EQ(value(before, "vistrel_engine_running"), 0);
    EXPECT_GT(value(before, "vistrel_capture_volume_free_bytes"), 0);
    EXPECT_GT(value(before, "vistrel_start_time_seconds"), 1.7e9);

    for (int i = 0; i < 3; ++i) ASSERT_EQ(http_.get("/getStatus").status, 200);
    ASSERT_EQ(http_.get("/no/such/page?x=1").status, 404);
    ASSERT_EQ(http_.post("/search", "{").status, 400);
    register_capture();
    HttpResponse direct = http_.get("/getCapture?from=" + std::to_string(kBase / 1000000) + "&to=" +
                                    std::to_string((kBase + kPackets * kSecond) / 1000000));
    ASSERT_EQ(direct.status, 200);
    EXPECT_EQ(direct.headers["content-type"], "application/x-pcapng");
    // The server's answer to the dashboard's own cs_address search.
    HttpResponse search = http_.post("/search", R"({"target":"cs_address"})");
    ASSERT_EQ(search.status, 200);
    const std::string address = nlohmann::json::parse(search.body).at(0);
    const std::set<std::string> links = download_links(dashboard());
    ASSERT_EQ(links.size(), 1u);
    HttpResponse filtered = HttpClient("").get(filled(*links.begin(), address));
    ASSERT_EQ(filtered.status, 200);
    EXPECT_EQ(filtered.headers["content-type"], "application/x-pcapng");
    EXPECT_EQ(filtered.body.rfind("\x0a\x0d\x0d\x0a", 0), 0u);
    EXPECT_EQ(pcapng_packets(filtered.body).size(), static_cast<size_t>(kPackets / 3));
    ASSERT_EQ(http_.get("/cleanup?es_index=vistrel").status, 200);

    // A request is counted when libmicrohttpd reports it complete, which may come just after the
    // client has read the whole reply: wait until both downloads are done.
    Samples after;
    const nlohmann::json capture_done = {{"endpoint", "/getCapture"}, {"le", "+Inf"}};
    eventually(
        [&] {
            after = scrape();
            return value(after, "vistrel_downloads_in_flight") == 0 &&
                   value(after, "vistrel_http_request_duration_seconds_bucket", capture_done) >= 2;
        },
        5);
    EXPECT_EQ(value(after, "vistrel_http_requests_total", status_ok) -
                  value(before, "vistrel_http_requests_total", status_ok),
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
    EXPECT_EQ(value(after, "vistrel_http_request_duration_seconds_bucket", capture_done), 2);

    EXPECT_EQ(value(after, "vistrel_download_bytes_total", {{"path", "direct"}}),
              static_cast<double>(direct.body.size()));
    EXPECT_EQ(value(after, "vistrel_download_packets_total", {{"path", "direct"}}), kPackets);
    EXPECT_EQ(value(after, "vistrel_download_bytes_total", {{"path", "filtered"}}),
              static_cast<double>(filtered.body.size()));
    EXPECT_EQ(value(after, "vistrel_download_packets_total", {{"path", "filtered"}}), kPackets / 3);
    EXPECT_EQ(value(after, "vistrel_downloads_in_flight"), 0);

    EXPECT_EQ(value(after, "vistrel_capture_files_registered_total"), 1);
    EXPECT_EQ(value(after, "vistrel_cleanups_total", {{"target", "files"}}), 1);
    EXPECT_EQ(value(after, "vistrel_cleanup_errors_total", {{"target", "files"}}), 0);
    EXPECT_EQ(value(after, "vistrel_index_rows"), 1);  // kept: no filesystem=true
    EXPECT_EQ(value(after, "vistrel_firmware_updates_in_progress"), 0);
    EXPECT_EQ(value(after, "vistrel_uploads_in_flight"), 0);

    // The device of the simulator, idle, once the library has announced it.
    Samples devices;
    EXPECT_TRUE(eventually(
        [&] {
            devices = scrape();
            return value(devices, "vistrel_devices_attached") == 1;
        },
        10));
    EXPECT_EQ(value(devices, "vistrel_device_capturing", {{"mac", "00:1b:c5:00:00:21"}}), 0);
}

}  // namespace
}  // namespace vistrel::testing
