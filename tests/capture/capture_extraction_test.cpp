#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "capture/extractionjob.h"
#include "capture/timefilter.h"
#include "capture/tsharkpipe.h"
#include "capturefilewriter.h"
#include "startup/logger.h"
#include "support/eventually.h"
#include "support/temp_dir.h"

namespace vistrel::capture {
namespace {

using capture::CaptureFileRecord;
using capture::CaptureQuery;
using testing::PcapBuilder;
using testing::PcapngBuilder;
using testing::TempDir;
using testing::udp_frame;
using testing::write_file;

constexpr uint64_t kSecond = 1000000000ull;
constexpr uint64_t kBase = 1700000000ull * kSecond;

TEST(TimeFilter, OpenBoundsAreLeftOut) {
    CaptureQuery query;
    query.display_filter = "tcp";
    EXPECT_EQ(time_filter_text(query), "(tcp)");
    query.end = 2 * kSecond;
    EXPECT_EQ(time_filter_text(query), "( frame.time_epoch < 2.000000000 ) && (tcp)");
}

// Reads a job to its end the way the HTTP library does, with buffers of `maximum` bytes.
std::string drain(ExtractionJob& job, size_t maximum, int64_t& end) {
    std::string bytes;
    std::vector<uint8_t> buffer(maximum);
    for (;;) {
        const int64_t got = job.filtered() ? job.read_filtered(buffer.data(), maximum)
                                           : job.read_direct(buffer.data(), maximum);
        if (got < 0) {
            end = got;
            return bytes;
        }
        EXPECT_LE(static_cast<size_t>(got), maximum);
        bytes.append(reinterpret_cast<const char*>(buffer.data()), static_cast<size_t>(got));
    }
}

// Standard output of the code under test (the pipe prints there), released even when an
// assertion leaves the test early.
struct ConsoleCapture {
    ConsoleCapture() { ::testing::internal::CaptureStdout(); }
    ~ConsoleCapture() {
        if (!taken) ::testing::internal::GetCapturedStdout();
    }
    std::string text() {
        taken = true;
        return ::testing::internal::GetCapturedStdout();
    }
    bool taken = false;
};

class ExtractionTest : public ::testing::Test {
  protected:
    void SetUp() override {
        logger().open(dir_.file("server.log"));
        logger().set_level(9);
    }
    void TearDown() override { logger().close(); }

    std::string log() const { return testing::read_file(dir_.file("server.log")); }

    CaptureFileRecord record(const std::string& name, const std::string& bytes) {
        CaptureFileRecord file;
        file.file_path = dir_.file(name);
        write_file(file.file_path, bytes);
        return file;
    }

    // Three files of packets one second apart: pcapng (two ports), pcap in microseconds and
    // pcap in nanoseconds, plus junk; ports 53 and 80 alternate. `expected_` gets every EPB.
    std::list<CaptureFileRecord> three_files() {
        PcapngBuilder pcapng;
        pcapng.section().interface(9).interface(6);
        PcapBuilder micro;
        PcapBuilder nano(0xA1B23C4D);
        for (uint32_t i = 0; i < 30; ++i) {
            const std::string data = udp_frame(60 + (i * 97) % 1300, "10.0.0.1", "10.9.9.9", 30000,
                                               i % 2 == 0 ? 53 : 80);
            const uint64_t stamp = kBase + i * kSecond + (i >= 20 ? 7 : i >= 10 ? 250000 : 0);
            if (i < 10)
                pcapng.packet(i % 2, i % 2 == 0 ? stamp : stamp / 1000, data);
            else if (i < 20)
                micro.record(1700000000 + i, 250, data);
            else
                nano.record(1700000000 + i, 7, data);
            expected_.push_back({stamp, testing::expected_epb(i < 10 ? i % 2 : 0, stamp, data)});
        }
        return {record("a.pcapng", pcapng.bytes()), record("b.pcap", micro.bytes()),
                record("junk.pcap", std::string(100, 'j')), record("c.pcap", nano.bytes())};
    }

    std::string expected_extract(uint64_t start, uint64_t end) const {
        std::string bytes = testing::extract_header();
        for (const auto& [stamp, epb] : expected_) {
            if (stamp >= start && stamp <= end) bytes += epb;
        }
        return bytes;
    }

    TempDir dir_;
    std::vector<std::pair<uint64_t, std::string>> expected_;
};

TEST_F(ExtractionTest, SizeLimitCountsFilesAsSigned32BitSizes) {
    auto sparse = [&](const std::string& name, off_t size) {
        CaptureFileRecord file = record(name, "");
        EXPECT_EQ(::truncate(file.file_path.c_str(), size), 0);
        return file;
    };
    EXPECT_EQ(counted_file_size(sparse("three.bin", off_t{3} << 30).file_path), 0);
    EXPECT_EQ(counted_file_size(sparse("five.bin", off_t{5} << 30).file_path), int64_t{1} << 30);
    EXPECT_EQ(counted_file_size(dir_.file("missing")), 0);

    std::list<CaptureFileRecord> files;
    for (int i = 0; i < 5; ++i) files.push_back(sparse("max" + std::to_string(i), 2147483647));
    files.push_back(sparse("rest", 5));  // 10,737,418,240 bytes in all
    // Nothing in them is a capture: the 204 that follows is the download tests'.
    EXPECT_TRUE(prepare_extraction({}, files).job);

    files.back() = sparse("rest", 6);
    Extraction refused = prepare_extraction({}, files);
    EXPECT_FALSE(refused.job);
    EXPECT_EQ(refused.error_title, "Error Extracting Capture File");
    EXPECT_EQ(refused.error_message,
              "We are sorry, the total amount of data to process is too big (~10GB); Max size "
              "supported to filter and extract is 10 GB. Please try to stretch the time range "
              "in order to reduce the amount of data.");
    EXPECT_NE(log().find("Extract capture too big: Aprox. total size too big: 10GB"),
              std::string::npos);
}

TEST_F(ExtractionTest, DirectStreamIsTheHeaderThenEveryFileInIndexOrder) {
    auto files = three_files();
    // Files gone from the disk are explained once, then counted.
    for (int i = 0; i < 1000; ++i) {
        CaptureFileRecord gone;
        gone.file_path = dir_.file("gone-" + std::to_string(i) + ".pcapng");
        files.push_back(gone);
    }
    CaptureQuery range;
    range.start = kBase + 3 * kSecond;
    range.end = kBase + 25 * kSecond + 7;  // inclusive: the packet stamped at `end` is in
    // Large buffers and buffers smaller than one packet give the same bytes; open bounds take
    // everything.
    const std::pair<CaptureQuery, size_t> runs[] = {
        {range, 102400}, {range, 1000}, {range, 7}, {CaptureQuery{}, 200000}};
    for (const auto& [query, maximum] : runs) {
        const std::string before = log();
        Extraction extraction = prepare_extraction(query, files);
        ASSERT_TRUE(extraction.job);
        EXPECT_FALSE(extraction.job->filtered());
        const std::string added = log().substr(before.size());
        EXPECT_NE(added.find("Unable to open file [" + dir_.file("gone-0.pcapng") +
                             "] with erc: No such file or directory"),
                  std::string::npos);
        EXPECT_EQ(added.find("gone-1.pcapng"), std::string::npos);
        EXPECT_NE(added.find("999 more files could not be read"), std::string::npos);
        int64_t end = 0;
        const std::string bytes = drain(*extraction.job, maximum, end);
        EXPECT_EQ(end, kEndOfStream);
        EXPECT_EQ(extraction.job->status(), 200);
        EXPECT_EQ(bytes, expected_extract(query.start, query.end == 0 ? ~uint64_t{0} : query.end))
            << "buffers of " << maximum;
    }
    EXPECT_NE(log().find("Successfully extracted files - Sending to FE"), std::string::npos);
}

// The filter through tshark, whatever libpcap could do, and with `pipe` in its place.
ExtractionOptions through_tshark(std::unique_ptr<TsharkPipe> pipe) {
    return {"chosen by the test", std::move(pipe)};
}

// What tshark selects, on its own path and against this one, is the download tests'
// (CaptureDownloadServerTest), read back by tshark itself.
TEST_F(ExtractionTest, FastPathStreamHoldsTheMatchingPacketsOfTheRangeUntouched) {
    const auto files = three_files();
    CaptureQuery query;
    query.start = kBase + 3 * kSecond;
    query.end = kBase + 24 * kSecond + 7;  // exclusive for the display filter
    query.display_filter = "udp.dstport==53";
    Extraction extraction = prepare_extraction(query, files);
    ASSERT_TRUE(extraction.job);
    EXPECT_FALSE(extraction.job->filtered());
    int64_t end = 0;
    const std::string bytes = drain(*extraction.job, 1000, end);
    EXPECT_EQ(end, kEndOfStream);
    EXPECT_EQ(extraction.job->status(), 200);
    // Even packets carry port 53: 4, 6, ..., 22 (24 is stamped exactly at the end), with the
    // direct path's header and EPBs.
    std::string expected = testing::extract_header();
    for (const auto& [stamp, epb] : expected_) {
        const uint64_t i = (stamp - kBase) / kSecond;
        if (stamp >= query.start && stamp < query.end && i % 2 == 0) expected += epb;
    }
    EXPECT_TRUE(bytes == expected);
    EXPECT_NE(log().find("Filtering with BPF, without tshark: '"), std::string::npos);
}

TEST_F(ExtractionTest, FiltersThatCannotRunAnswerAnErrorPageOrEndTheStreamWithAnError) {
    const auto files = three_files();
    CaptureQuery query;
    query.display_filter = "udp";
    {
        // A range without packets: the extract error page (its text is the download test's),
        // without starting tshark.
        CaptureQuery empty = query;
        empty.start = kBase + 100 * kSecond;
        empty.end = kBase + 200 * kSecond;
        ConsoleCapture capture;
        Extraction extraction = prepare_extraction(empty, files);
        EXPECT_FALSE(extraction.job);
        EXPECT_EQ(extraction.error_title, "Extract Capture Error");
        EXPECT_EQ(capture.text().find("Starting TShark"), std::string::npos);
    }
    {
        // A filter program that cannot start.
        ConsoleCapture capture;
        Extraction extraction = prepare_extraction(
            query, files, through_tshark(std::make_unique<TsharkPipe>(dir_.file("none"))));
        EXPECT_FALSE(extraction.job);
        EXPECT_EQ(extraction.error_title, "Error Extracting Capture File");
        EXPECT_NE(capture.text().find("Failed to start TShark process"), std::string::npos);
    }
    // An empty term left by an unusable dashboard rule: libpcap has no say, tshark exits at
    // once.
    query.display_filter = "(())";
    const std::string before = log();
    ConsoleCapture capture;
    Extraction extraction = prepare_extraction(query, files);
    ASSERT_TRUE(extraction.job);
    int64_t end = 0;
    EXPECT_EQ(drain(*extraction.job, 102400, end), "");
    EXPECT_EQ(end, kEndWithError);
    EXPECT_NE(log().find("Filtering with tshark: ", before.size()), std::string::npos);
    EXPECT_NE(log().find("Filtered download cut short"), std::string::npos);
}

// Stand-ins for tshark, given the test's arguments (-r - -w - -Y filter).
class FilterProgramTest : public ExtractionTest {
  protected:
    std::string program(const std::string& name, const std::string& script) {
        const std::string path = dir_.file(name);
        write_file(path, "#!/bin/sh\n" + script + "\n");
        ::chmod(path.c_str(), 0755);
        return path;
    }

    // About `count` KiB of packets in one file.
    std::list<CaptureFileRecord> packets(uint64_t count) {
        PcapngBuilder file;
        file.section().interface(9);
        for (uint64_t i = 0; i < count; ++i)
            file.packet(0, kBase + i, udp_frame(1000, "10.0.0.1", "10.0.0.2", 1, 2));
        return {record("packets.pcapng", file.bytes())};
    }

    CaptureQuery query_ = [] {
        CaptureQuery query;
        query.display_filter = "udp";
        return query;
    }();
};

TEST_F(FilterProgramTest, OutputLeftInThePipeAfterTheFilterExitedIsStillDelivered) {
    // `cat` passes everything through and exits at the end of its input, long before this
    // reader starts: what it wrote must all arrive.
    ConsoleCapture capture;
    const auto files = packets(300);
    Extraction extraction = prepare_extraction(
        query_, files, through_tshark(std::make_unique<TsharkPipe>(program("cat.sh", "exec cat"))));
    ASSERT_TRUE(extraction.job);
    EXPECT_TRUE(
        testing::eventually([&] { return log().find("Data sent in") != std::string::npos; }));
    int64_t end = 0;
    const std::string bytes = drain(*extraction.job, 102400, end);
    EXPECT_EQ(end, kEndOfStream);
    CaptureQuery everything;
    Extraction direct = prepare_extraction(everything, files);
    int64_t direct_end = 0;
    EXPECT_TRUE(bytes == drain(*direct.job, 102400, direct_end));
}

TEST_F(FilterProgramTest, FilterThatFailsHalfWayEndsTheStreamWithAnErrorThatIsLogged) {
    ConsoleCapture capture;
    Extraction extraction = prepare_extraction(
        query_, packets(100),
        through_tshark(std::make_unique<TsharkPipe>(program("fail.sh", "head -c 5000; exit 3"))));
    ASSERT_TRUE(extraction.job);
    int64_t end = 0;
    EXPECT_EQ(drain(*extraction.job, 102400, end).size(), 5000u);
    EXPECT_EQ(end, kEndWithError);
    EXPECT_NE(log().find("Filtered download cut short"), std::string::npos);
}

TEST_F(FilterProgramTest, AbandonedFilteredDownloadStopsItsFeeder) {
    // A filter program that never reads: the feeder fills the pipe and waits without
    // blocking; dropping the job (the client went away) must end it rather than hang.
    ConsoleCapture capture;
    Extraction extraction = prepare_extraction(
        query_, packets(2000),
        through_tshark(std::make_unique<TsharkPipe>(program("stuck.sh", "exec sleep 60"))));
    ASSERT_TRUE(extraction.job);
    extraction.job.reset();
}

}  // namespace
}  // namespace vistrel::capture
