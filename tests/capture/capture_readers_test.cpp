#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "capture/capturefile.h"
#include "capture/outputheader.h"
#include "capture/pcapformatparser.h"
#include "capture/pcapngformatparser.h"
#include "capture/timestampresolution.h"
#include "capturefilewriter.h"
#include "startup/logger.h"
#include "support/temp_dir.h"

namespace vistrel::capture {
namespace {

using testing::expected_epb;
using testing::PcapBuilder;
using testing::PcapngBuilder;
using testing::read_file;
using testing::TempDir;
using testing::udp_frame;
using testing::write_file;

std::string frame(size_t length, uint16_t port = 53) {
    return udp_frame(length, "10.0.0.1", "10.0.0.2", 40000, port);
}

std::string as_text(const std::vector<uint8_t>& bytes) {
    return {bytes.begin(), bytes.end()};
}

class ReaderTest : public ::testing::Test {
  protected:
    std::string write(const std::string& name, const std::string& bytes) {
        const std::string path = dir_.file(name);
        write_file(path, bytes);
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

TEST(OutputHeader, IsTheDocumentedSectionAndTwoNanosecondInterfaces) {
    PcapngBuilder expected;
    expected.section().interface(9).interface(9);
    const auto& header = output_header_bytes();
    EXPECT_EQ(std::string(header.begin(), header.end()), expected.bytes());
    PcapFormatParser reader("/nonexistent");
    EXPECT_EQ(as_text(reader.output_file_header()), expected.bytes());
}

TEST(CaptureFileName, SuffixesAreCaseSensitive) {
    EXPECT_TRUE(is_capture_file_name("a.pcap"));
    EXPECT_TRUE(is_capture_file_name("dir/a.pcapng"));
    EXPECT_TRUE(is_capture_file_name(".cap"));
    EXPECT_FALSE(is_capture_file_name("a.PCAP"));
    EXPECT_FALSE(is_capture_file_name("a.pcap.gz"));
    EXPECT_FALSE(is_capture_file_name("pcap"));
}

TEST_F(ReaderTest, FormatIsRecognisedByContentNotName) {
    PcapngBuilder pcapng;
    pcapng.section().interface().packet(0, 1, frame(60));
    auto reader = open_capture_file(write("looks.pcap", pcapng.bytes()));
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
    EXPECT_FALSE(open_capture_file(dir_.file("missing.pcap")));
}

TEST_F(ReaderTest, UnopenableFileIsLogged) {
    logger().open(dir_.file("log.txt"));
    EXPECT_FALSE(open_capture_file(dir_.file("missing.pcapng")));
    logger().close();
    EXPECT_NE(read_file(dir_.file("log.txt"))
                  .find("Unable to open file [" + dir_.file("missing.pcapng") +
                        "] with erc: No such file or directory"),
              std::string::npos);
}

TEST_F(ReaderTest, PcapRecordsBecomeNanosecondEpbsOnInterfaceZero) {
    const std::string odd = frame(61);
    const std::string even = frame(64);
    PcapBuilder micro;
    micro.record(1500000000, 123456, odd, 1500).record(1500000001, 999999, even);
    auto packets = packets_of(micro.bytes());
    ASSERT_EQ(packets.size(), 2u);
    EXPECT_EQ(packets[0].timestamp, 1500000000123456000ull);
    EXPECT_EQ(as_text(packets[0].block), expected_epb(0, 1500000000123456000ull, odd, 1500));
    EXPECT_EQ(packets[0].block.size(), 28u + 64u + 4u);
    EXPECT_EQ(as_text(packets[1].block), expected_epb(0, 1500000001999999000ull, even));

    PcapBuilder nano(0xA1B23C4D);
    nano.record(1500000000, 123, odd);
    packets = packets_of(nano.bytes());
    ASSERT_EQ(packets.size(), 1u);
    EXPECT_EQ(packets[0].timestamp, 1500000000000000123ull);
    EXPECT_EQ(as_text(packets[0].block), expected_epb(0, 1500000000000000123ull, odd));

    PcapBuilder empty_record;
    empty_record.record(7, 0, "");
    packets = packets_of(empty_record.bytes());
    ASSERT_EQ(packets.size(), 1u);
    EXPECT_EQ(packets[0].block.size(), 32u);
}

TEST_F(ReaderTest, MalformedPcapEndsTheStreamAfterTheGoodRecords) {
    PcapBuilder good;
    good.record(1, 0, frame(60)).record(2, 0, frame(60));
    // Truncated inside the last record's data, and inside its header.
    EXPECT_EQ(packets_of(good.bytes().substr(0, good.bytes().size() - 1)).size(), 1u);
    EXPECT_EQ(packets_of(good.bytes().substr(0, 24 + 76 + 10)).size(), 1u);

    // A captured length of 1,048,561 makes a record of 1,048,577 bytes: implausible.
    std::string big = good.bytes();
    testing::append_u32(big, 3);
    testing::append_u32(big, 0);
    testing::append_u32(big, 1048561);
    testing::append_u32(big, 1048561);
    big += std::string(1048561, 'z');
    PcapBuilder after;
    after.record(4, 0, frame(60));
    big += after.bytes().substr(24);
    EXPECT_EQ(packets_of(big).size(), 2u);

    // 1,048,560 bytes of data are still read.
    PcapBuilder largest;
    largest.record(1, 0, std::string(1048560, 'y'));
    EXPECT_EQ(packets_of(largest.bytes()).size(), 1u);

    // Lengths near the 32-bit limit must not wrap into plausible sizes.
    std::string huge = PcapBuilder().bytes();
    testing::append_u32(huge, 3);
    testing::append_u32(huge, 0);
    testing::append_u32(huge, 0xFFFFFFF4);
    testing::append_u32(huge, 0);
    huge += std::string(64, 'h');
    EXPECT_TRUE(packets_of(huge).empty());
}

TEST(TimestampResolution, EveryKindOfUnitBecomesNanoseconds) {
    EXPECT_EQ(to_nanoseconds(1500, 3), 1500000000ull);  // milliseconds
    EXPECT_EQ(to_nanoseconds(7, 6), 7000ull);
    EXPECT_EQ(to_nanoseconds(7, 0), 7000000000ull);
    EXPECT_EQ(to_nanoseconds(12345, 9), 12345ull);
    // Finer than nanoseconds: divided, rounded to the nearest, halves upwards.
    EXPECT_EQ(to_nanoseconds(12345, 10), 1235ull);
    EXPECT_EQ(to_nanoseconds(12344, 10), 1234ull);
    EXPECT_EQ(to_nanoseconds(1500, 12), 2ull);
    EXPECT_EQ(to_nanoseconds(1499, 12), 1ull);
    // 10^20 and beyond do not fit: they count as 1.
    EXPECT_EQ(to_nanoseconds(15000000000000000000ull, 28), 2ull);  // 10^19 still fits
    EXPECT_EQ(to_nanoseconds(987654321, 29), 987654321ull);
    EXPECT_EQ(to_nanoseconds(987654321, 127), 987654321ull);
    // Binary fractions: 2^-n seconds, the fraction scaled by 999,999,999 / 2^n.
    // 512 * 999999999 / 1024 = 499999999.5: halves round upwards.
    EXPECT_EQ(to_nanoseconds((uint64_t{5} << 10) | 512, 128 + 10), 5000000000ull + 500000000ull);
    EXPECT_EQ(to_nanoseconds((uint64_t{5} << 10) | 1023, 128 + 10),
              5000000000ull + 999023437ull);  // 1023 * 999999999 / 1024 = 999023436.6
    EXPECT_EQ(to_nanoseconds(uint64_t{3} << 32, 128 + 32), 3000000000ull);
    EXPECT_EQ(to_nanoseconds((uint64_t{3} << 32) | 0xFFFFFFFF, 128 + 32), 3999999999ull);
    EXPECT_EQ(to_nanoseconds(42, 128), 42000000000ull);
    // Shifts past the word do not fault.
    EXPECT_EQ(to_nanoseconds(0, 128 + 100), 0ull);
    EXPECT_LE(to_nanoseconds(~uint64_t{0}, 128 + 100), 1000000000ull);
    EXPECT_EQ(to_nanoseconds(~uint64_t{0}, 29), ~uint64_t{0});
}

TEST_F(ReaderTest, PcapngTimestampsFollowTheirInterfaceResolution) {
    const std::string data = frame(60);
    PcapngBuilder file;
    file.section()
        .interface(3)         // 0: milliseconds
        .interface()          // 1: no option, microseconds
        .interface(9)         // 2: nanoseconds
        .interface(128 + 10)  // 3: 2^-10 seconds
        .packet(0, 1500, data)
        .packet(1, 1500, data)
        .packet(2, 1500000000123456789ull, data)
        .packet(3, (uint64_t{7} << 10) | 512, data)
        .packet(4, 1500, data);  // one past the last: the default resolution
    auto packets = packets_of(file.bytes());
    ASSERT_EQ(packets.size(), 5u);
    EXPECT_EQ(packets[0].timestamp, 1500000000ull);
    EXPECT_EQ(packets[1].timestamp, 1500000ull);
    EXPECT_EQ(packets[2].timestamp, 1500000000123456789ull);
    EXPECT_EQ(packets[3].timestamp, 7500000000ull);
    EXPECT_EQ(packets[4].timestamp, 1500000ull);
    // Ids are folded onto the two interfaces of the extract; timestamp words rewritten.
    const uint32_t folded[] = {0, 1, 0, 1, 0};
    for (size_t i = 0; i < packets.size(); ++i) {
        EXPECT_EQ(as_text(packets[i].block), expected_epb(folded[i], packets[i].timestamp, data))
            << "packet " << i;
    }
}

TEST_F(ReaderTest, PcapngResolutionOptionsAreWalkedToTheirEnd) {
    // if_name first, then if_tsresol: the walk steps over the padded name.
    std::string body;
    testing::append_u16(body, 1);
    testing::append_u16(body, 0);
    testing::append_u32(body, 65535);
    testing::append_u16(body, 2);  // if_name, 5 bytes, padded to 8
    testing::append_u16(body, 5);
    body += std::string("eth0\0\0\0\0", 8);
    testing::append_u16(body, 9);
    testing::append_u16(body, 1);
    body += std::string("\x03\0\0\0", 4);
    testing::append_u16(body, 0);
    testing::append_u16(body, 0);
    PcapngBuilder block;
    block.block(1, body);
    std::vector<uint8_t> bytes(block.bytes().begin(), block.bytes().end());
    EXPECT_EQ(PcapngFormatParser::interface_resolution(bytes), 3);

    // An option after the end-of-options mark is not looked at.
    std::string ended = body.substr(0, 8);
    testing::append_u16(ended, 0);
    testing::append_u16(ended, 0);
    testing::append_u16(ended, 9);
    testing::append_u16(ended, 1);
    ended += std::string("\x03\0\0\0", 4);
    PcapngBuilder second;
    second.block(1, ended);
    bytes.assign(second.bytes().begin(), second.bytes().end());
    EXPECT_EQ(PcapngFormatParser::interface_resolution(bytes), 6);

    // An option whose length runs past the block stops the walk without reading beyond it.
    std::string overrun = body.substr(0, 8);
    testing::append_u16(overrun, 2);
    testing::append_u16(overrun, 0xFFFF);
    PcapngBuilder third;
    third.block(1, overrun);
    bytes.assign(third.bytes().begin(), third.bytes().end());
    EXPECT_EQ(PcapngFormatParser::interface_resolution(bytes), 6);
    bytes.resize(19);
    EXPECT_EQ(PcapngFormatParser::interface_resolution(bytes), 6);
}

TEST_F(ReaderTest, PcapngBlocksAroundThePacketsAreSkipped) {
    const std::string data = frame(70);
    PcapngBuilder file;
    file.section()
        .block(4, std::string(8, 'n'))  // name resolution before the interfaces
        .interface(9)
        .packet(0, 100, data)
        .interface(3)                    // after the first packet: not an interface of ours
        .block(5, std::string(16, 's'))  // interface statistics
        .block(3, std::string(8, 'p'))   // simple packet block: not delivered
        .packet(1, 200, data);
    auto reader = open_capture_file(write("mixed.pcapng", file.bytes()));
    ASSERT_TRUE(reader);
    auto first = reader->next_packet();
    ASSERT_TRUE(first);
    EXPECT_EQ(first->timestamp, 100u);
    auto* pcapng = dynamic_cast<PcapngFormatParser*>(reader.get());
    ASSERT_NE(pcapng, nullptr);
    ASSERT_EQ(pcapng->interfaces().size(), 1u);
    EXPECT_EQ(pcapng->interfaces()[0].resolution, 9);
    // Interface 1 is one past the known one: default resolution, not the late block's 3.
    auto second = reader->next_packet();
    ASSERT_TRUE(second);
    EXPECT_EQ(second->timestamp, 200000u);
    EXPECT_FALSE(reader->next_packet());
}

TEST_F(ReaderTest, MalformedPcapngEndsTheStreamCleanly) {
    const std::string data = frame(60);
    PcapngBuilder head;
    head.section().interface(9);
    PcapngBuilder one = head;
    one.packet(0, 10, data);

    // No interface before the first packet: nothing at all.
    PcapngBuilder no_interface;
    no_interface.section().packet(0, 10, data).interface(9).packet(0, 20, data);
    EXPECT_TRUE(packets_of(no_interface.bytes()).empty());

    // An id beyond "one past the last" ends the file.
    PcapngBuilder bad_id = one;
    bad_id.packet(2, 20, data).packet(0, 30, data);
    EXPECT_EQ(packets_of(bad_id.bytes()).size(), 1u);

    // Truncated packet, truncated block head, lengths below 12 and from 1,048,577 on.
    EXPECT_EQ(packets_of(one.bytes() + one.bytes().substr(head.bytes().size(), 50)).size(), 1u);
    EXPECT_EQ(packets_of(one.bytes() + std::string("\x06\0\0\0", 4)).size(), 1u);
    for (uint32_t length : {0u, 8u, 11u, 1048577u, 0xFFFFFFFFu}) {
        std::string broken = one.bytes();
        testing::append_u32(broken, 6);
        testing::append_u32(broken, length);
        broken += std::string(64, '\0');
        EXPECT_EQ(packets_of(broken).size(), 1u) << "length " << length;
    }
    // An EPB too short for its fields, or whose data overruns it.
    PcapngBuilder tiny = one;
    tiny.block(6, std::string(8, '\0'));
    EXPECT_EQ(packets_of(tiny.bytes()).size(), 1u);
    std::string overrun_body;
    testing::append_u32(overrun_body, 0);
    testing::append_u32(overrun_body, 0);
    testing::append_u32(overrun_body, 40);
    testing::append_u32(overrun_body, 500);  // captured length larger than the block
    testing::append_u32(overrun_body, 500);
    overrun_body += std::string(8, 'd');
    PcapngBuilder overrun = one;
    overrun.block(6, overrun_body);
    EXPECT_EQ(packets_of(overrun.bytes()).size(), 1u);

    // A file in the other byte order is not recognised.
    std::string swapped = head.bytes();
    swapped[4] = 0;
    swapped[7] = 28;  // big-endian total length
    EXPECT_TRUE(packets_of(swapped).empty());

    // Once ended, the stream stays ended.
    auto reader = open_capture_file(write("ended.pcapng", bad_id.bytes()));
    ASSERT_TRUE(reader);
    EXPECT_TRUE(reader->next_packet());
    EXPECT_FALSE(reader->next_packet());
    EXPECT_FALSE(reader->next_packet());
}

class ReadRangeTest : public ReaderTest {
  protected:
    void SetUp() override {
        for (int i = 0; i < 40; ++i) {
            const std::string data = frame(60 + static_cast<size_t>(i) * 37 % 1400);
            file_.packet(static_cast<uint32_t>(i % 2), 1000 + static_cast<uint64_t>(i) * 10, data);
            epbs_.push_back(expected_epb(static_cast<uint32_t>(i % 2),
                                         1000 + static_cast<uint64_t>(i) * 10, data));
        }
        path_ = write("range.pcapng", file_.bytes());
    }

    std::string expected(int first, int last) const {
        std::string bytes;
        for (int i = first; i <= last; ++i) bytes += epbs_[static_cast<size_t>(i)];
        return bytes;
    }

    PcapngBuilder file_ = [] {
        PcapngBuilder builder;
        builder.section().interface(9).interface(9);
        return builder;
    }();
    std::vector<std::string> epbs_;
    std::string path_;
};

TEST_F(ReadRangeTest, RangeIsClosedAtBothEnds) {
    auto reader = open_capture_file(path_);
    ASSERT_TRUE(reader);
    auto chunk = reader->read_range(1050, 1100, 1 << 20);
    ASSERT_TRUE(chunk);
    EXPECT_EQ(as_text(*chunk), expected(5, 10));
    // The packet after `end` was put back: a later range starts with it.
    chunk = reader->read_range(0, ~uint64_t{0}, 1 << 20);
    ASSERT_TRUE(chunk);
    EXPECT_EQ(as_text(*chunk), expected(11, 39));
    EXPECT_FALSE(reader->read_range(0, ~uint64_t{0}, 1 << 20));

    auto none = open_capture_file(path_);
    EXPECT_FALSE(none->read_range(5000, 6000, 1 << 20));
}

TEST_F(ReadRangeTest, SmallChunksResumeExactlyWhereTheLastStopped) {
    // Chunks of every size reassemble the same bytes: the resume point is exact whether it
    // falls inside the read buffer or not.
    for (size_t maximum : {size_t{1600}, size_t{3001}, size_t{10000}}) {
        auto reader = open_capture_file(path_);
        ASSERT_TRUE(reader);
        std::string all;
        while (auto chunk = reader->read_range(1000, 1390, maximum)) {
            EXPECT_LE(chunk->size(), maximum);
            all += as_text(*chunk);
        }
        EXPECT_EQ(all, expected(0, 39)) << "maximum " << maximum;
    }
}

TEST_F(ReadRangeTest, PacketLargerThanTheMaximumIsLeftInPlace) {
    auto reader = open_capture_file(path_);
    ASSERT_TRUE(reader);
    const size_t first = epbs_[0].size();
    EXPECT_FALSE(reader->read_range(0, ~uint64_t{0}, first - 1));
    EXPECT_FALSE(reader->read_range(0, ~uint64_t{0}, first - 1));
    auto chunk = reader->read_range(0, ~uint64_t{0}, first);
    ASSERT_TRUE(chunk);
    EXPECT_EQ(as_text(*chunk), epbs_[0]);
}

TEST_F(ReadRangeTest, PcapRangesWorkTheSameWay) {
    PcapBuilder pcap;
    std::string expected_bytes;
    for (uint32_t i = 0; i < 30; ++i) {
        const std::string data = frame(100 + i);
        pcap.record(10 + i, 500000, data);
        if (i >= 5 && i <= 20)
            expected_bytes += expected_epb(0, (10 + i) * 1000000000ull + 500000000ull, data);
    }
    auto reader = open_capture_file(write("range.pcap", pcap.bytes()));
    ASSERT_TRUE(reader);
    std::string all;
    while (auto chunk = reader->read_range(15500000000ull, 30500000000ull, 700)) {
        all += as_text(*chunk);
    }
    EXPECT_EQ(all, expected_bytes);
}

// Wireshark's own reading of a file against ours: same packets, same times, same bytes.
std::string run(const std::string& command) {
    std::string output;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return output;
    char buffer[4096];
    size_t got;
    while ((got = fread(buffer, 1, sizeof buffer, pipe)) > 0) output.append(buffer, got);
    pclose(pipe);
    return output;
}

TEST_F(ReaderTest, WiresharkReadsTheReadersOutputAsItReadsTheInput) {
    // A microsecond pcap and a merge of two pcaps into pcapng by Wireshark's tools.
    PcapBuilder first;
    PcapBuilder second;
    for (uint32_t i = 0; i < 25; ++i) {
        first.record(1600000000 + i, i * 1111,
                     udp_frame(60 + i * 13, "10.1.0.1", "10.1.0.2", 1000, 53));
        second.record(1600000000 + i, 500000 + i,
                      udp_frame(1514 - i, "10.2.0.1", "10.2.0.2", 2000, 80));
    }
    const std::string a = write("a.pcap", first.bytes());
    const std::string b = write("b.pcap", second.bytes());
    const std::string merged = dir_.file("merged.pcapng");
    ASSERT_EQ(std::system(
                  ("mergecap -F pcapng -w " + merged + " " + a + " " + b + " 2>/dev/null").c_str()),
              0);

    for (const std::string& input : {a, merged}) {
        auto reader = open_capture_file(input);
        ASSERT_TRUE(reader) << input;
        std::string extract(output_header_bytes().begin(), output_header_bytes().end());
        while (auto chunk = reader->read_range(0, ~uint64_t{0}, 102400)) extract += as_text(*chunk);
        const std::string ours = write("ours.pcapng", extract);
        const std::string fields =
            " -T fields -e frame.time_epoch -e frame.len -e frame.cap_len -e ip.src -e udp.dstport"
            " 2>/dev/null";
        const std::string theirs = run("tshark -r " + input + fields);
        EXPECT_EQ(std::count(theirs.begin(), theirs.end(), '\n'), input == a ? 25 : 50);
        EXPECT_EQ(run("tshark -r " + ours + fields), theirs) << input;
        EXPECT_NE(run("capinfos -c -M " + ours).find(input == a ? "25" : "50"), std::string::npos);
    }
}

}  // namespace
}  // namespace vistrel::capture
