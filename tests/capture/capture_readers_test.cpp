#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "capture/capturefile.h"
#include "capture/pcapformatparser.h"
#include "capture/pcapngformatparser.h"
#include "capture/timestampresolution.h"
#include "capturefilewriter.h"
#include "support/temp_dir.h"

namespace vistrel::capture {
namespace {

using testing::append;
using testing::expected_epb;
using testing::PcapBuilder;
using testing::PcapngBuilder;
using testing::TempDir;

std::string frame(size_t length) {
    return testing::udp_frame(length, "10.0.0.1", "10.0.0.2", 40000, 53);
}

std::string as_text(const std::vector<uint8_t>& bytes) {
    return {bytes.begin(), bytes.end()};
}

class ReaderTest : public ::testing::Test {
  protected:
    std::string write(const std::string& name, const std::string& bytes) {
        const std::string path = dir_.file(name);
        testing::write_file(path, bytes);
        return path;
    }

    // Every packet the reader of `bytes` delivers, opened as the download opens it.
    std::vector<Packet> packets_of(const std::string& bytes) {
        auto reader = open_capture_file(write("file-" + std::to_string(++count_), bytes));
        std::vector<Packet> packets;
        if (!reader) return packets;
        while (auto packet = reader->next_packet()) packets.push_back(std::move(*packet));
        return packets;
    }

    TempDir dir_;
    int count_ = 0;
};

TEST_F(ReaderTest, FormatIsRecognisedByContentNotName) {
    auto reader = open_capture_file(
        write("looks.pcap", PcapngBuilder().section().interface().packet(0, 1, frame(60)).bytes()));
    ASSERT_TRUE(reader);
    EXPECT_NE(dynamic_cast<PcapngFormatParser*>(reader.get()), nullptr);

    PcapBuilder pcap(0xA1B23C4D);
    reader = open_capture_file(write("looks.pcapng", pcap.bytes()));
    ASSERT_TRUE(reader);
    EXPECT_NE(dynamic_cast<PcapFormatParser*>(reader.get()), nullptr);
    // Recognition leaves no file open: the readers of a long selection wait without a
    // descriptor each.
    EXPECT_EQ(reader->descriptor(), -1);

    // The other byte order, a short header, rubbish and a missing file are refused.
    PcapBuilder swapped(0xD4C3B2A1);
    swapped.record(1, 0, frame(60));
    EXPECT_FALSE(open_capture_file(write("swapped.pcap", swapped.bytes())));
    EXPECT_FALSE(open_capture_file(write("short.pcap", pcap.bytes().substr(0, 23))));
    EXPECT_FALSE(open_capture_file(write("empty.pcap", "")));
    EXPECT_FALSE(open_capture_file(write("text.pcap", std::string(200, 'x'))));
    // (What a missing file logs is checked by the extraction tests.)
    EXPECT_FALSE(open_capture_file(dir_.file("missing.pcap")));
}

TEST_F(ReaderTest, PcapRecordsBecomeNanosecondEpbsOnInterfaceZero) {
    const std::string odd = frame(61);
    const std::string even = frame(64);
    PcapBuilder micro;
    micro.record(1500000000, 123456, odd, 1500).record(1500000001, 999999, even).record(7, 0, "");
    auto packets = packets_of(micro.bytes());
    ASSERT_EQ(packets.size(), 3u);
    EXPECT_EQ(packets[0].timestamp, 1500000000123456000ull);
    EXPECT_EQ(as_text(packets[0].block), expected_epb(0, 1500000000123456000ull, odd, 1500));
    EXPECT_EQ(as_text(packets[1].block), expected_epb(0, 1500000001999999000ull, even));
    EXPECT_EQ(packets[2].block.size(), 32u);

    PcapBuilder nano(0xA1B23C4D);
    packets = packets_of(nano.record(1500000000, 123, odd).bytes());
    ASSERT_EQ(packets.size(), 1u);
    EXPECT_EQ(as_text(packets[0].block), expected_epb(0, 1500000000000000123ull, odd));
}

TEST_F(ReaderTest, MalformedPcapEndsTheStreamAfterTheGoodRecords) {
    PcapBuilder good;
    good.record(1, 0, frame(60)).record(2, 0, frame(60));
    // Truncated inside the last record's data, and inside its header.
    EXPECT_EQ(packets_of(good.bytes().substr(0, good.bytes().size() - 1)).size(), 1u);
    EXPECT_EQ(packets_of(good.bytes().substr(0, 24 + 76 + 10)).size(), 1u);

    // 1,048,561 bytes of data make a record of 1,048,577 bytes: implausible, the end; one
    // byte less is still read.
    EXPECT_EQ(packets_of(PcapBuilder(good)
                             .record(3, 0, std::string(1048561, 'z'))
                             .record(4, 0, frame(60))
                             .bytes())
                  .size(),
              2u);
    EXPECT_EQ(packets_of(PcapBuilder().record(1, 0, std::string(1048560, 'y')).bytes()).size(), 1u);
    // Lengths near the 32-bit limit must not wrap into plausible sizes.
    std::string huge = PcapBuilder().bytes();
    for (uint32_t field : {3u, 0u, 0xFFFFFFF4u, 0u}) append(huge, field);
    EXPECT_TRUE(packets_of(huge + std::string(64, 'h')).empty());
}

TEST(TimestampResolution, EveryKindOfUnitBecomesNanoseconds) {
    struct Case {
        uint64_t value;
        uint8_t resolution;
        uint64_t nanoseconds;
    };
    const Case cases[] = {
        {7, 0, 7000000000ull},
        // Finer than nanoseconds: divided, rounded to the nearest, halves upwards.
        {12345, 10, 1235ull},
        {12344, 10, 1234ull},
        // 10^19 still fits; 10^20 and beyond do not: they count as 1.
        {15000000000000000000ull, 28, 2ull},
        {987654321, 29, 987654321ull},
        {987654321, 127, 987654321ull},
        {~uint64_t{0}, 29, ~uint64_t{0}},
        // Binary fractions: 2^-n seconds, the fraction scaled by 999,999,999 / 2^n.
        {(uint64_t{5} << 10) | 1023, 128 + 10, 5999023437ull},  // 999023436.6
        {(uint64_t{5} << 10) | 512, 128 + 10, 5500000000ull},   // 499999999.5 rounds up
        {uint64_t{3} << 32, 128 + 32, 3000000000ull},
        {(uint64_t{3} << 32) | 0xFFFFFFFF, 128 + 32, 3999999999ull},
        {42, 128, 42000000000ull},
        {0, 128 + 100, 0},  // shifts past the word do not fault
    };
    for (const Case& c : cases) {
        EXPECT_EQ(to_nanoseconds(c.value, c.resolution), c.nanoseconds)
            << c.value << " at " << int(c.resolution);
    }
    EXPECT_LE(to_nanoseconds(~uint64_t{0}, 128 + 100), 1000000000ull);
}

TEST_F(ReaderTest, PcapngTimestampsFollowTheirInterfaceResolution) {
    const std::string data = frame(60);
    PcapngBuilder file;
    file.section()
        .block(4, std::string(8, 'n'))  // name resolution before the interfaces
        .interface(3)                   // 0: milliseconds
        .interface()                    // 1: no option, microseconds
        .interface(9)                   // 2: nanoseconds
        .interface(128 + 10)            // 3: 2^-10 seconds
        .packet(0, 1500, data)
        .packet(1, 1500, data)
        .packet(2, 1500000000123456789ull, data)
        .packet(3, (uint64_t{7} << 10) | 512, data)
        .interface(3)                    // after the first packet: not an interface of ours
        .block(5, std::string(16, 's'))  // interface statistics
        .block(3, std::string(8, 'p'))   // simple packet block: not delivered
        .packet(4, 1500, data);  // one past the last: the default resolution, not the late 3
    auto packets = packets_of(file.bytes());
    ASSERT_EQ(packets.size(), 5u);
    const uint64_t stamps[] = {1500000000ull, 1500000ull, 1500000000123456789ull, 7500000000ull,
                               1500000ull};
    // Ids are folded onto the two interfaces of the extract; timestamp words rewritten.
    for (uint32_t i = 0; i < 5; ++i) {
        EXPECT_EQ(as_text(packets[i].block), expected_epb(i % 2 == 0 ? 0 : 1, stamps[i], data))
            << "packet " << i;
    }
}

TEST(PcapngResolution, OptionsAreWalkedToTheirEnd) {
    auto resolution_of = [](const std::string& options, size_t keep = std::string::npos) {
        std::string body;
        append(body, uint32_t{1});
        append(body, uint32_t{65535});
        const std::string block = PcapngBuilder().block(1, body + options).bytes();
        std::vector<uint8_t> bytes(block.begin(), block.begin() + std::min(keep, block.size()));
        return PcapngFormatParser::interface_resolution(bytes);
    };
    const std::string name("\x02\0\x05\0eth0\0\0\0\0", 12);  // if_name, 5 bytes padded to 8
    const std::string milliseconds("\x09\0\x01\0\x03\0\0\0", 8);
    const std::string end(4, '\0');
    EXPECT_EQ(resolution_of(name + milliseconds + end), 3);
    // An option after the end-of-options mark is not looked at.
    EXPECT_EQ(resolution_of(end + milliseconds), 6);
    // An option whose length runs past the block stops the walk without reading beyond it.
    EXPECT_EQ(resolution_of(std::string("\x02\0\xff\xff", 4)), 6);
    EXPECT_EQ(resolution_of(std::string("\x02\0\xff\xff", 4), 19), 6);
}

TEST_F(ReaderTest, MalformedPcapngEndsTheStreamCleanly) {
    const std::string data = frame(60);
    PcapngBuilder head;
    head.section().interface(9);
    const std::string one = PcapngBuilder(head).packet(0, 10, data).bytes();

    // No interface before the first packet: nothing at all.
    EXPECT_TRUE(
        packets_of(PcapngBuilder().section().packet(0, 10, data).interface(9).bytes()).empty());
    // An id beyond "one past the last" ends the file.
    const std::string bad_id =
        PcapngBuilder(head).packet(0, 10, data).packet(2, 20, data).packet(0, 30, data).bytes();
    EXPECT_EQ(packets_of(bad_id).size(), 1u);

    // Truncated packet, truncated block head, lengths below 12 and from 1,048,577 on, an EPB
    // too short for its fields, an EPB whose data overruns it, lengths that disagree: only the
    // first packet comes.
    std::vector<std::string> tails = {one.substr(head.bytes().size(), 50),
                                      std::string("\x06\0\0\0", 4),
                                      PcapngBuilder().block(6, std::string(8, '\0')).bytes()};
    for (uint32_t length : {0u, 8u, 11u, 1048577u, 0xFFFFFFFFu}) {
        tails.emplace_back("\x06\0\0\0", 4);
        append(tails.back(), length);
        tails.back() += std::string(64, '\0');
    }
    std::string overrun;
    for (uint32_t field : {0u, 0u, 40u, 500u, 500u}) append(overrun, field);  // 500 > block
    tails.push_back(PcapngBuilder().block(6, overrun + "dddddddd").bytes());
    // A whole packet whose trailing length word disagrees with its leading one.
    std::string mismatched = PcapngBuilder().packet(0, 20, data).bytes();
    mismatched[mismatched.size() - 4] ^= 4;
    tails.push_back(mismatched);
    for (size_t i = 0; i < tails.size(); ++i) {
        EXPECT_EQ(packets_of(one + tails[i]).size(), 1u) << "tail " << i;
    }

    // A file in the other byte order is not recognised.
    std::string swapped = head.bytes();
    swapped[4] = 0;
    swapped[7] = 28;  // big-endian total length
    EXPECT_TRUE(packets_of(swapped).empty());

    // Once ended, the stream stays ended.
    auto reader = open_capture_file(write("ended.pcapng", bad_id));
    ASSERT_TRUE(reader);
    EXPECT_TRUE(reader->next_packet());
    EXPECT_FALSE(reader->next_packet());
    EXPECT_FALSE(reader->next_packet());
}

// Forty packets of every size on two interfaces, 10 ns apart from 1000.
TEST_F(ReaderTest, RangeIsClosedAndEveryChunkResumesExactlyAfterTheLast) {
    PcapngBuilder file;
    file.section().interface(9).interface(9);
    std::vector<std::string> epbs;
    for (uint32_t i = 0; i < 40; ++i) {
        const std::string data = frame(60 + i * 37 % 1400);
        file.packet(i % 2, 1000 + i * 10, data);
        epbs.push_back(expected_epb(i % 2, 1000 + i * 10, data));
    }
    const std::string path = write("range.pcapng", file.bytes());
    auto expected = [&](size_t first, size_t last) {
        std::string bytes;
        for (size_t i = first; i <= last; ++i) bytes += epbs[i];
        return bytes;
    };
    auto reader = open_capture_file(path);
    ASSERT_TRUE(reader);
    // A packet larger than the maximum is left in place.
    EXPECT_FALSE(reader->read_range(0, ~uint64_t{0}, epbs[0].size() - 1));
    auto chunk = reader->read_range(0, 1100, 1 << 20);
    ASSERT_TRUE(chunk);
    EXPECT_EQ(as_text(*chunk), expected(0, 10));
    // The packet after `end` was put back: a later range starts with it.
    chunk = reader->read_range(0, ~uint64_t{0}, 1 << 20);
    ASSERT_TRUE(chunk);
    EXPECT_EQ(as_text(*chunk), expected(11, 39));
    EXPECT_FALSE(reader->read_range(0, ~uint64_t{0}, 1 << 20));

    chunk = open_capture_file(path)->read_range(1050, 1100, 1 << 20);
    ASSERT_TRUE(chunk);
    EXPECT_EQ(as_text(*chunk), expected(5, 10));
    EXPECT_FALSE(open_capture_file(path)->read_range(5000, 6000, 1 << 20));

    // Small chunks of every size reassemble the same bytes: the resume point is exact whether
    // it falls inside the read buffer or not.
    for (size_t maximum : {size_t{1600}, size_t{3001}, size_t{10000}}) {
        auto chunked = open_capture_file(path);
        ASSERT_TRUE(chunked);
        std::string all;
        while (auto piece = chunked->read_range(1000, 1390, maximum)) {
            EXPECT_LE(piece->size(), maximum);
            all += as_text(*piece);
        }
        EXPECT_EQ(all, expected(0, 39)) << "maximum " << maximum;
    }
}

// Wireshark's own reading of a pcapng it wrote, against ours: same packets, times and bytes.
TEST_F(ReaderTest, WiresharkReadsTheReadersOutputAsItReadsTheInput) {
    PcapBuilder first;
    PcapBuilder second;
    for (uint32_t i = 0; i < 25; ++i) {
        first.record(1600000000 + i, i * 1111,
                     testing::udp_frame(60 + i * 13, "10.1.0.1", "10.1.0.2", 1000, 53));
        second.record(1600000000 + i, 500000 + i,
                      testing::udp_frame(1514 - i, "10.2.0.1", "10.2.0.2", 2000, 80));
    }
    const std::string merged = dir_.file("merged.pcapng");
    ASSERT_EQ(
        std::system(("mergecap -F pcapng -w " + merged + " " + write("a.pcap", first.bytes()) +
                     " " + write("b.pcap", second.bytes()) + " 2>/dev/null")
                        .c_str()),
        0);
    auto reader = open_capture_file(merged);
    ASSERT_TRUE(reader);
    std::string extract = testing::extract_header();
    while (auto chunk = reader->read_range(0, ~uint64_t{0}, 102400)) extract += as_text(*chunk);
    const std::string fields =
        " -T fields -e frame.time_epoch -e frame.len -e frame.cap_len -e ip.src -e udp.dstport"
        " 2>/dev/null";
    const std::string theirs = testing::run_command("tshark -r " + merged + fields);
    EXPECT_EQ(std::count(theirs.begin(), theirs.end(), '\n'), 50);
    EXPECT_EQ(testing::run_command("tshark -r " + write("ours.pcapng", extract) + fields), theirs);
}

}  // namespace
}  // namespace vistrel::capture
