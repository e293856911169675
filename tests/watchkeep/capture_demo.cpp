// `make demo`: one capture from start to finish on this machine, step by step, with the real
// server, the real capture engine staged by the build, a simulated device and the loopback
// interface. Elasticsearch is the test suite's recording stand-in. Ends with status 0 when
// every step gave what it should, 1 otherwise.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <thread>

#include "capturefilewriter.h"
#include "database/sqlite_query.h"
#include "host/processes.h"
#include "host/uniquefd.h"
#include "support/elasticsearch_standin.h"
#include "support/eventually.h"
#include "support/server_process.h"
#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using namespace vistrel::testing;
using std::chrono::milliseconds;

constexpr int kDatagrams = 500;
int failures = 0;
int step_number = 0;
const auto demo_start = std::chrono::steady_clock::now();

double elapsed_seconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - demo_start).count();
}
void step(const std::string& title) {
    std::printf("\n[%d] %s (at %.1f s)\n", ++step_number, title.c_str(), elapsed_seconds());
}
void say(const std::string& text) {
    std::printf("    %s\n", text.c_str());
}
void check(bool good, const std::string& what) {
    std::printf("    %s %s\n", good ? "ok:  " : "FAIL:", what.c_str());
    if (!good) ++failures;
}
uint64_t now_ms() {
    return static_cast<uint64_t>(std::chrono::duration_cast<milliseconds>(
                                     std::chrono::system_clock::now().time_since_epoch())
                                     .count());
}

// Packets of a pcapng stream, all and those matching a display filter.
size_t packets_in(const TempDir& folder, const std::string& name, const std::string& bytes,
                  const std::string& filter = "") {
    const std::string path = folder.file(name);
    write_file(path, bytes);
    const std::string listed =
        run_command("tshark -r '" + path + "'" + (filter.empty() ? "" : " -Y '" + filter + "'") +
                    " 2>/dev/null");
    return static_cast<size_t>(std::count(listed.begin(), listed.end(), '\n'));
}

// Sends `count` UDP datagrams from 127.0.0.1 to the sending socket itself, so that lo carries
// them without ICMP answers; returns its port.
uint16_t send_on_loopback(int count, const std::string& payload) {
    vistrel::host::UniqueFd udp(socket(AF_INET, SOCK_DGRAM, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(udp.get(), reinterpret_cast<sockaddr*>(&address), length);
    getsockname(udp.get(), reinterpret_cast<sockaddr*>(&address), &length);
    for (int i = 0; i < count; ++i) {
        sendto(udp.get(), payload.data(), payload.size(), 0,
               reinterpret_cast<const sockaddr*>(&address), length);
        // Drained so that the receive buffer never overflows.
        char sink[2048];
        recv(udp.get(), sink, sizeof sink, MSG_DONTWAIT);
    }
    return ntohs(address.sin_port);
}

}  // namespace

int main() {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    if (geteuid() != 0) {
        std::printf("The demo captures the loopback interface live: run it as root.\n");
        return 1;
    }
    if (vistrel::host::process_exists("watchkeep")) {
        std::printf("A capture engine already runs on this machine; stop it first.\n");
        return 1;
    }
    TempDir scratch;
    const std::string staged = std::string(VISTREL_BINARY_DIR) + "/quellwick";

    step("Elasticsearch");
    ElasticsearchStandIn search;
    say("A recording stand-in of the test suite listens on " + search.address() + ".");
    say("It is NOT a search engine: it answers every request with success and only keeps what");
    say("it receives, so that this demo can show the records the engine sends. For a real one,");
    say("see the README section \"A capture from start to finish\".");

    step("The server, as `make run` starts it");
    write_file(scratch.file("sim.yml"),
               "devices:\n  - mac: \"00:1b:c5:00:00:31\"\n    model: \"Tidewell Pro\"\n"
               "    packets_per_second: 200\n");
    ServerProcess server;
    server.set_env("QUELLWICK_ROOT", staged);
    server.set_env("TIDEWELL_SIM_CONFIG", scratch.file("sim.yml"));
    server.set_env("VISTREL_FILE_SECONDS", "2");
    const std::string database = scratch.file("demo.db");
    const bool started = server.start({"--mode", "debug", "--host", "127.0.0.1", "--port",
                                       std::to_string(server.port()), "--database", database});
    check(started,
          "server on " + server.base_url() + ", engine " + staged + "/vistrel/watchkeep/watchkeep");
    if (!started) return 1;
    HttpClient client = server.client();
    check(eventually(
              [&] {
                  return client.get("/getDevices").body.find("00:1b:c5:00:00:31") !=
                         std::string::npos;
              },
              20),
          "simulated device 00:1b:c5:00:00:31 attached");

    step("POST /startCapture: the device \"demo-left\" and the interface lo");
    const uint64_t from_ms = now_ms() - 1000;
    const std::string analyzer =
        R"("analyzer":{"dns":true,"arp_stats":true,"pkt_stats":true,"es_host":"127.0.0.1","es_port":")" +
        std::to_string(search.port()) +
        R"(","es_index":"vistrel","es_type":"tidewell","http_host":"127.0.0.1","http_port":")" +
        std::to_string(server.port()) + "\"}";
    auto reply = client.post(
        "/startCapture",
        R"({"tidewells":[{"model":"Tidewell Pro","friendly_name":"demo-left","mac":"00:1b:c5:00:00:31","file_name":"demo-left","capture_time":2,"max_nr_files":100,"keep_files":1}],)"
        R"("interfaces":[{"name":"lo","id":0,"mac":""}],)" +
            analyzer + "}");
    say("HTTP " + std::to_string(reply.status) + ": " + reply.body.substr(0, 160) + "...");
    check(reply.status == 200, "capture started");
    check(vistrel::host::process_exists("watchkeep"), "the engine runs");

    step("Traffic on lo");
    const uint16_t port = send_on_loopback(kDatagrams, "vistrel demo datagram");
    say(std::to_string(kDatagrams) + " UDP datagrams sent to 127.0.0.1:" + std::to_string(port));
    std::this_thread::sleep_for(milliseconds(3000));

    step("GET /stopCaptureAll");
    reply = client.get("/stopCaptureAll");
    say("HTTP " + std::to_string(reply.status) + ": " + reply.body.substr(0, 120) + "...");
    check(reply.status == 200, "capture stopped");
    check(server.log().find("Killed watchkeep gracefully") != std::string::npos &&
              server.log().find("Going to try hand kill") == std::string::npos,
          "the engine stopped by itself on the stop line (server log)");
    const uint64_t to_ms = now_ms() + 1000;

    step("Capture files");
    const std::string captures = server.home() + "/Documents/Vistrel/captures";
    std::vector<std::string> paths;
    for (const std::string source : {"demo-left", "lo"}) {
        const size_t before = paths.size();
        for (const auto& entry : fs::directory_iterator(captures + "/" + source)) {
            paths.push_back(entry.path().string());
        }
        check(paths.size() > before, std::to_string(paths.size() - before) + " files of " + source);
    }
    std::sort(paths.begin(), paths.end());
    std::string described;  // "path\tpackets\n" of capinfos, by path
    for (const auto& path : paths) {
        const std::string info = run_command("capinfos -T -r -c -M '" + path + "'");
        say(info.substr(0, info.size() - 1) + " packets");
        described += info;
    }

    step("The capture index (GET /addFile from the engine)");
    const std::string rows =
        sqlite_value(database,
                     "SELECT group_concat(file_path || char(9) || n_packets || char(10), '') "
                     "FROM (SELECT * FROM TidewellCapture ORDER BY file_path)");
    say(std::to_string(std::count(rows.begin(), rows.end(), '\n')) + " rows (path, packets)");
    check(rows == described, "one row per file, with the packet count capinfos reads");

    step("Records sent to Elasticsearch");
    size_t total = 0;
    for (const auto& [index, documents] : search.bulk_documents()) {
        say(index + ": " + std::to_string(documents.size()) +
            " records, the first: " + documents.front().substr(0, 200));
        total += documents.size();
    }
    say(std::to_string(total) + " records in all");
    check(total > 0, "records of the capture reached the bulk endpoint");

    step("GET /getCapture for the time of the capture");
    const std::string range =
        "/getCapture?from=" + std::to_string(from_ms) + "&to=" + std::to_string(to_ms);
    reply = client.get(range);
    const std::string mine = "udp.dstport==" + std::to_string(port);
    const size_t all = packets_in(scratch, "all.pcapng", reply.body);
    const size_t sent = packets_in(scratch, "all.pcapng", reply.body, mine);
    say("unfiltered: " + std::to_string(all) + " packets (lo and the device), " +
        std::to_string(sent) + " of them the datagrams sent");
    check(reply.status == 200 && sent == kDatagrams, "every datagram sent is in the download");
    reply = client.get(range + "&var-esinterface=lo&var-Filters=" +
                       url_encode("L4_DST_PORT|=|" + std::to_string(port)));
    const size_t filtered = packets_in(scratch, "filtered.pcapng", reply.body);
    say("filtered on lo and L4_DST_PORT " + std::to_string(port) + ": " + std::to_string(filtered) +
        " packets");
    check(reply.status == 200 && filtered == kDatagrams,
          "the filtered download is exactly the datagrams");

    step("POST /analyzeCapture: a file of 20 packets");
    PcapBuilder pcap;
    for (uint32_t i = 0; i < 20; ++i) {
        pcap.record(static_cast<uint32_t>(from_ms / 1000) + i, 0,
                    udp_frame(100, "192.0.2.1", "192.0.2.2", 4000, 53));
    }
    reply = client.post_form("/analyzeCapture", {{"json", "{" + analyzer + "}", ""},
                                                 {"file", pcap.bytes(), "demo.pcap"}});
    say("HTTP " + std::to_string(reply.status) + ": " + reply.body.substr(0, 120) + "...");
    check(
        reply.status == 200 && reply.body.find("Sucessfully executed command") != std::string::npos,
        "analysis started");
    check(eventually([] { return !vistrel::host::process_exists("watchkeep"); }, 15),
          "the engine ended by itself once the file was indexed");
    const std::string uploads = sqlite_value(database,
                                             "SELECT group_concat(n_packets || ' ' || file_path) "
                                             "FROM TidewellCapture WHERE source = 'upload'");
    say("index row: upload " + uploads);
    check(uploads.starts_with("20 "),
          "the uploaded file is in the capture index once, as \"upload\"");

    std::printf("\n%s (%.1f s)\n", failures == 0 ? "Every step worked." : "Some steps FAILED.",
                elapsed_seconds());
    if (failures != 0) std::printf("Server log: %s\n", server.log_path().c_str());
    return failures == 0 ? 0 : 1;
}
