#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "capture/capturefile.h"
#include "capture/pcapngwriter.h"
#include "capturefilewriter.h"
#include "support/temp_dir.h"

namespace vistrel::capture {
namespace {

using testing::expected_epb;
using testing::run_command;
using testing::TempDir;

std::string frame(size_t length, uint16_t port) {
    return testing::udp_frame(length, "10.0.0.1", "10.0.0.2", 40000, port);
}

bool write(PcapngWriter& writer, uint32_t interface_id, uint64_t timestamp,
           const std::string& data) {
    return writer.write_packet(interface_id, timestamp,
                               reinterpret_cast<const uint8_t*>(data.data()),
                               static_cast<uint32_t>(data.size()));
}

// More than one buffer's worth of packets of every padding, read back by our own reader and by
// Wireshark's tools.
TEST(PcapngWriterTest, FilesReadBackPacketForPacket) {
    TempDir dir;
    const std::string path = dir.file("out.pcapng");
    PcapngWriter writer;
    writer.set_application("writer test");
    ASSERT_TRUE(writer.open(path, {"port A", "port B"}));
    constexpr int kPackets = 400;
    for (int i = 0; i < kPackets; ++i) {
        ASSERT_TRUE(write(writer, i % 2, 1'700'000'000'123'456'789 + i, frame(1511 + i % 4, i)));
    }
    ASSERT_TRUE(writer.close());
    EXPECT_EQ(writer.bytes_written(), std::filesystem::file_size(path));

    auto reader = open_capture_file(path);
    ASSERT_TRUE(reader);
    for (int i = 0; i < kPackets; ++i) {
        auto packet = reader->next_packet();
        ASSERT_TRUE(packet) << i;
        const uint64_t timestamp = 1'700'000'000'123'456'789 + i;
        EXPECT_EQ(packet->timestamp, timestamp);
        EXPECT_EQ(std::string(packet->block.begin(), packet->block.end()),
                  expected_epb(i % 2, timestamp, frame(1511 + i % 4, i)));
    }
    EXPECT_FALSE(reader->next_packet());

    const std::string info = run_command("capinfos -c -I '" + path + "' 2>&1");
    EXPECT_NE(info.find("400"), std::string::npos) << info;
    EXPECT_NE(info.find("port B"), std::string::npos) << info;
    EXPECT_EQ(
        run_command("tshark -r '" + path + "' -Y 'udp.dstport == 7' -T fields -e frame.number"),
        "8\n");
}

TEST(PcapngWriterTest, LinkTypeAndFailures) {
    TempDir dir;
    PcapngWriter writer;
    EXPECT_FALSE(writer.open(dir.file("missing/out.pcapng"), {"x"}));
    EXPECT_FALSE(writer.is_open());
    EXPECT_FALSE(write(writer, 0, 1, frame(60, 53)));

    const std::string path = dir.file("raw.pcapng");
    ASSERT_TRUE(writer.open(path, {""}, 101));  // raw IP
    ASSERT_TRUE(write(writer, 0, 1'000'000'000, frame(60, 53).substr(14)));
    ASSERT_TRUE(writer.flush());
    const std::string info = run_command("capinfos -E '" + path + "' 2>&1");
    EXPECT_NE(info.find("Raw IP"), std::string::npos) << info;
}

}  // namespace
}  // namespace vistrel::capture
