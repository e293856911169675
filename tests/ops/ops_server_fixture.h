#pragma once

// A real server with one simulated device and a capture file registered on demand, for the
// operations tests.
#include <gtest/gtest.h>

#include <string>

#include "capturefilewriter.h"
#include "support/server_process.h"

namespace vistrel::testing {

constexpr uint64_t kSecond = 1000000000ull;
constexpr uint64_t kBase = 1710000000ull * kSecond;
constexpr int kPackets = 30;

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

    TempDir data_;
    ServerProcess server_;
    HttpClient http_ = server_.client();
};

}  // namespace vistrel::testing
