// Counting the packets of a pcapng stream handed over in pieces of any size.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "capture/pcapngpacketcounter.h"
#include "capturefilewriter.h"

namespace vistrel::capture {
namespace {

using testing::PcapngBuilder;

uint64_t count_in_pieces(const std::string& stream, size_t piece, bool& broken) {
    PcapngPacketCounter counter;
    const auto* bytes = reinterpret_cast<const uint8_t*>(stream.data());
    for (size_t offset = 0; offset < stream.size(); offset += piece) {
        counter.feed(bytes + offset, std::min(piece, stream.size() - offset));
    }
    broken = counter.broken();
    return counter.packets();
}

// The same blocks in the other byte order: every 32-bit word reversed (16-bit fields and
// packet bytes come out scrambled, which the counter does not read).
std::string byte_swapped(std::string stream) {
    for (size_t at = 0; at + 4 <= stream.size(); at += 4) {
        std::reverse(stream.begin() + at, stream.begin() + at + 4);
    }
    return stream;
}

TEST(PcapngPacketCounterTest, CountsPacketBlocksWhateverThePieces) {
    PcapngBuilder builder;
    builder.section().interface().interface(9);
    for (uint32_t i = 0; i < 25; ++i) {
        builder.packet(i % 2, 1000 + i, testing::udp_frame(60 + i, "10.0.0.1", "10.0.0.2", 1, 2));
    }
    builder.block(5, "statistics");  // not a packet
    // A second section in the other byte order.
    const std::string stream =
        builder.bytes() +
        byte_swapped(
            PcapngBuilder().section().interface().packet(0, 1, "a").packet(0, 2, "").bytes());
    for (size_t piece : {size_t{1}, size_t{3}, size_t{7}, size_t{4096}, stream.size()}) {
        bool broken = true;
        EXPECT_EQ(count_in_pieces(stream, piece, broken), 27u) << "pieces of " << piece;
        EXPECT_FALSE(broken);
    }
}

TEST(PcapngPacketCounterTest, StopsAtWhatIsNotPcapng) {
    bool broken = false;
    testing::PcapBuilder pcap;
    pcap.record(1, 0, testing::udp_frame(60, "10.0.0.1", "10.0.0.2", 1, 2));
    EXPECT_EQ(count_in_pieces(pcap.bytes(), 16, broken), 0u);
    EXPECT_TRUE(broken);

    // A block length that is not a multiple of 4 ends the count after the good packets.
    PcapngBuilder builder;
    builder.section().interface().packet(0, 1, "abcd");
    std::string stream = builder.bytes() + std::string("\x06\x00\x00\x00\x0d\x00\x00\x00", 8);
    stream += builder.bytes();
    EXPECT_EQ(count_in_pieces(stream, 5, broken), 1u);
    EXPECT_TRUE(broken);
}

}  // namespace
}  // namespace vistrel::capture
