#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "capture/extractionjob.h"
#include "capture/outputheader.h"
#include "capture/timefilter.h"
#include "capture/tsharkpipe.h"
#include "capturefilewriter.h"
#include "startup/logger.h"
#include "support/temp_dir.h"

namespace vistrel::capture {
namespace {

using database::CaptureFileRecord;
using database::CaptureQuery;
using testing::expected_epb;
using testing::ExtractedPacket;
using testing::PcapBuilder;
using testing::PcapngBuilder;
using testing::read_file;
using testing::TempDir;
using testing::udp_frame;
using testing::write_file;

constexpr uint64_t kSecond = 1000000000ull;
constexpr uint64_t kBase = 1700000000ull * kSecond;

TEST(TimeFilter, EpochTextHasNineFractionDigits) {
    EXPECT_EQ(epoch_text(1500000000000000123ull), "1500000000.000000123");
    EXPECT_EQ(epoch_text(0), "0.000000000");
    EXPECT_EQ(epoch_text(1999999999), "1.999999999");
}

TEST(TimeFilter, BoundsAndUserFilterAreJoined) {
    CaptureQuery query;
    query.display_filter = "udp";
    EXPECT_EQ(time_filter_text(query), "(udp)");
    query.start = kSecond;
    query.end = 2 * kSecond;
    EXPECT_EQ(time_filter_text(query),
              "( frame.time_epoch >= 1.000000000 ) && ( frame.time_epoch < 2.000000000 ) && "
              "(udp)");
    query.display_filter.clear();
    EXPECT_EQ(time_filter_text(query),
              "( frame.time_epoch >= 1.000000000 ) && ( frame.time_epoch < 2.000000000 )");
    query.start = 0;
    query.display_filter = "tcp";
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
class ConsoleCapture {
  public:
    ConsoleCapture() { ::testing::internal::CaptureStdout(); }
    ~ConsoleCapture() { text(); }
    std::string text() {
        if (active_) {
            active_ = false;
            text_ = ::testing::internal::GetCapturedStdout();
        }
        return text_;
    }

  private:
    bool active_ = true;
    std::string text_;
};

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

class ExtractionTest : public ::testing::Test {
  protected:
    void SetUp() override {
        logger().open(dir_.file("server.log"));
        logger().set_level(9);
    }
    void TearDown() override { logger().close(); }

    std::string log() const { return read_file(dir_.file("server.log")); }

    CaptureFileRecord record(const std::string& name, const std::string& bytes) {
        CaptureFileRecord file;
        file.file_path = dir_.file(name);
        write_file(file.file_path, bytes);
        file.source = "eth0";
        file.es_index = "vistrel";
        file.start_ts = 1;
        file.end_ts = 2;
        return file;
    }

    // Three files of packets one second apart: pcapng (two ports), pcap in microseconds and
    // pcap in nanoseconds; ports 53 and 80 alternate. `expected_` gets every EPB by time.
    std::list<CaptureFileRecord> three_files() {
        PcapngBuilder pcapng;
        pcapng.section().interface(9).interface(6);
        for (uint64_t i = 0; i < 10; ++i) {
            const std::string data = frame(i);
            const uint32_t port = static_cast<uint32_t>(i % 2);
            const uint64_t raw = port == 0 ? kBase + i * kSecond : (kBase + i * kSecond) / 1000;
            pcapng.packet(port, raw, data);
            add_expected(port, kBase + i * kSecond, data);
        }
        PcapBuilder micro;
        for (uint32_t i = 10; i < 20; ++i) {
            const std::string data = frame(i);
            micro.record(static_cast<uint32_t>(kBase / kSecond) + i, 250, data);
            add_expected(0, kBase + i * kSecond + 250000, data);
        }
        PcapBuilder nano(0xA1B23C4D);
        for (uint32_t i = 20; i < 30; ++i) {
            const std::string data = frame(i);
            nano.record(static_cast<uint32_t>(kBase / kSecond) + i, 7, data);
            add_expected(0, kBase + i * kSecond + 7, data);
        }
        return {record("a.pcapng", pcapng.bytes()), record("b.pcap", micro.bytes()),
                record("junk.pcap", std::string(100, 'j')), record("c.pcap", nano.bytes())};
    }

    static std::string frame(uint64_t i) {
        return udp_frame(60 + (i * 97) % 1300, "10.0.0." + std::to_string(i + 1), "10.9.9.9", 30000,
                         i % 2 == 0 ? 53 : 80);
    }

    void add_expected(uint32_t interface_id, uint64_t timestamp, const std::string& data) {
        expected_.push_back({interface_id, timestamp, data});
    }

    std::string header() const {
        return {output_header_bytes().begin(), output_header_bytes().end()};
    }

    struct Expected {
        uint32_t interface_id;
        uint64_t timestamp;
        std::string data;
    };

    std::string expected_extract(uint64_t start, uint64_t end) const {
        std::string bytes = header();
        for (const auto& packet : expected_) {
            if (packet.timestamp >= start && packet.timestamp <= end) {
                bytes += expected_epb(packet.interface_id, packet.timestamp, packet.data);
            }
        }
        return bytes;
    }

    TempDir dir_;
    std::vector<Expected> expected_;
};

TEST_F(ExtractionTest, NoFileAnswersTheErrorPage) {
    CaptureQuery query;
    query.start = 5;
    query.end = 9;
    Extraction extraction = prepare_extraction(query, {});
    EXPECT_FALSE(extraction.job);
    EXPECT_EQ(extraction.error_title, "Error Extracting Capture File");
    EXPECT_EQ(extraction.error_message,
              "Unable to find traffic data for the requested time range and filters in your "
              "capture machine");
    const std::string text = log();
    EXPECT_NE(text.find("Requesting pcap between: 5 and 9"), std::string::npos);
    EXPECT_NE(text.find("Found 0 files"), std::string::npos);
    EXPECT_NE(text.find("Unable to find traffic data for the requested parameters"),
              std::string::npos);
}

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
    Extraction accepted = prepare_extraction({}, files);
    ASSERT_TRUE(accepted.job);
    // Nothing in them is a capture: an empty stream that reports 204.
    EXPECT_TRUE(accepted.job->nothing_readable());
    int64_t end = 0;
    EXPECT_EQ(drain(*accepted.job, 102400, end), "");
    EXPECT_EQ(end, kEndOfStream);
    EXPECT_EQ(accepted.job->status(), 204);

    files.back() = sparse("rest", 6);
    Extraction refused = prepare_extraction({}, files);
    EXPECT_FALSE(refused.job);
    EXPECT_EQ(refused.error_title, "Error Extracting Capture File");
    EXPECT_EQ(refused.error_message,
              "We are sorry, the total amount of data to process is too big (~10GB); Max size "
              "supported to filter and extract is 10 GB. Please try to stretch the time range "
              "in order to reduce the amount of data.");
    const std::string text = log();
    EXPECT_NE(text.find("Total extraction file size: 10737418241 bytes"), std::string::npos);
    EXPECT_NE(text.find("Extract capture too big: Aprox. total size too big: 10GB"),
              std::string::npos);
}

TEST_F(ExtractionTest, DirectStreamIsTheHeaderThenEveryFileInIndexOrder) {
    const auto files = three_files();
    CaptureQuery query;
    query.start = kBase + 3 * kSecond;
    query.end = kBase + 25 * kSecond + 7;  // inclusive: the packet stamped at `end` is in
    const std::string expected = expected_extract(query.start, query.end);

    // Large buffers and buffers smaller than one packet give the same bytes.
    for (size_t maximum : {size_t{102400}, size_t{200000}, size_t{1000}, size_t{7}}) {
        Extraction extraction = prepare_extraction(query, files);
        ASSERT_TRUE(extraction.job);
        EXPECT_FALSE(extraction.job->filtered());
        int64_t end = 0;
        const std::string bytes = drain(*extraction.job, maximum, end);
        EXPECT_EQ(end, kEndOfStream);
        EXPECT_EQ(extraction.job->status(), 200);
        std::vector<ExtractedPacket> packets;
        std::string reason;
        EXPECT_TRUE(testing::parse_extract(bytes, packets, &reason)) << reason;
        EXPECT_EQ(packets.size(), 23u);
        EXPECT_EQ(bytes, expected) << "buffers of " << maximum;
    }
    const std::string text = log();
    EXPECT_NE(text.find("Found 4 files"), std::string::npos);
    EXPECT_NE(text.find("Successfully deceted format for file: [" + files.front().file_path),
              std::string::npos);
    EXPECT_NE(text.find("Bypassing tshark, no user filter found"), std::string::npos);
    EXPECT_NE(text.find("Successfully extracted files - Sending to FE"), std::string::npos);
}

TEST_F(ExtractionTest, OpenBoundsTakeEverything) {
    const auto files = three_files();
    Extraction extraction = prepare_extraction({}, files);
    ASSERT_TRUE(extraction.job);
    int64_t end = 0;
    EXPECT_EQ(drain(*extraction.job, 102400, end), expected_extract(0, ~uint64_t{0}));
}

TEST_F(ExtractionTest, RangeWithoutPacketsAnswersTheExtractErrorPage) {
    const auto files = three_files();
    CaptureQuery query;
    query.start = kBase + 100 * kSecond;
    query.end = kBase + 200 * kSecond;
    Extraction extraction = prepare_extraction(query, files);
    EXPECT_FALSE(extraction.job);
    EXPECT_EQ(extraction.error_title, "Extract Capture Error");
    EXPECT_EQ(extraction.error_message,
              "Couldn't find traffic data for the requested parameters in your capture machine");
    EXPECT_NE(log().find("Extract Capture: Couldn't find traffic data for the requested "
                         "parameters"),
              std::string::npos);

    // With a filter too, and then tshark is never started.
    query.display_filter = "udp";
    extraction = prepare_extraction(query, files);
    EXPECT_FALSE(extraction.job);
    EXPECT_EQ(extraction.error_title, "Extract Capture Error");
}

TEST_F(ExtractionTest, FilteredStreamHoldsOnlyTheMatchingPacketsOfTheRange) {
    const auto files = three_files();
    CaptureQuery query;
    query.start = kBase + 3 * kSecond;
    query.end = kBase + 24 * kSecond + 7;  // exclusive for the display filter
    query.display_filter = "udp.dstport==53";
    ConsoleCapture capture;
    Extraction extraction = prepare_extraction(query, files);
    ASSERT_TRUE(extraction.job);
    ASSERT_TRUE(extraction.job->filtered());
    int64_t end = 0;
    const std::string bytes = drain(*extraction.job, 102400, end);
    const std::string console = capture.text();
    EXPECT_EQ(end, kEndOfStream);
    EXPECT_EQ(extraction.job->status(), 200);
    EXPECT_NE(console.find("Starting TShark\n"), std::string::npos);
    EXPECT_NE(console.find("Starting TShark with : /usr/bin/tshark -r - -w - -Y\"( "
                           "frame.time_epoch >= 1700000003.000000000 ) && ( frame.time_epoch < "
                           "1700000024.000000007 ) && (udp.dstport==53)\"\n"),
              std::string::npos)
        << console;

    const std::string path = dir_.file("filtered.pcapng");
    write_file(path, bytes);
    // Even packets carry port 53: 4, 6, ..., 22 (24 is stamped exactly at the end).
    const std::string fields =
        run("tshark -r " + path + " -T fields -e udp.dstport -e frame.time_epoch 2>/dev/null");
    std::string wanted;
    for (uint64_t i = 4; i <= 22; i += 2) {
        const uint64_t stamp = kBase + i * kSecond + (i >= 20 ? 7 : i >= 10 ? 250000 : 0);
        wanted += "53\t" + epoch_text(stamp) + "\n";
    }
    EXPECT_EQ(fields, wanted);
    EXPECT_NE(log().find("Data sent in "), std::string::npos);
}

TEST_F(ExtractionTest, FilterProgramThatCannotStartAnswersAnErrorPage) {
    const auto files = three_files();
    CaptureQuery query;
    query.display_filter = "udp";
    ConsoleCapture capture;
    Extraction extraction =
        prepare_extraction(query, files, std::make_unique<TsharkPipe>(dir_.file("no-tshark")));
    const std::string console = capture.text();
    EXPECT_FALSE(extraction.job);
    EXPECT_EQ(extraction.error_title, "Error Extracting Capture File");
    EXPECT_NE(console.find("Failed to start TShark process"), std::string::npos);
}

TEST_F(ExtractionTest, AbandonedFilteredDownloadStopsItsFeeder) {
    // A filter program that never reads: the feeder fills the pipe and waits; dropping the
    // job (the client went away) must end it rather than hang.
    const std::string program = dir_.file("stuck.sh");
    write_file(program, "#!/bin/sh\nexec sleep 60\n");
    ::chmod(program.c_str(), 0755);
    std::list<CaptureFileRecord> files;
    PcapngBuilder big;
    big.section().interface(9);
    for (uint64_t i = 0; i < 2000; ++i)
        big.packet(0, kBase + i, udp_frame(1400, "10.0.0.1", "10.0.0.2", 1, 2));
    files.push_back(record("big.pcapng", big.bytes()));
    CaptureQuery query;
    query.display_filter = "udp";
    ConsoleCapture capture;
    Extraction extraction = prepare_extraction(query, files, std::make_unique<TsharkPipe>(program));
    ASSERT_TRUE(extraction.job);
    extraction.job.reset();
    capture.text();
}

class TsharkPipeTest : public ::testing::Test {
  protected:
    std::string script(const std::string& name, const std::string& body) {
        const std::string path = dir_.file(name);
        write_file(path, "#!/bin/sh\n" + body + "\n");
        ::chmod(path.c_str(), 0755);
        return path;
    }
    TempDir dir_;
};

TEST_F(TsharkPipeTest, MissingProgramFailsToStart) {
    TsharkPipe pipe(dir_.file("absent"));
    ConsoleCapture capture;
    EXPECT_EQ(pipe.start({}), -1);
    const std::string console = capture.text();
    EXPECT_NE(console.find("Starting TShark\n"), std::string::npos);
    EXPECT_NE(console.find("Failed to start TShark process"), std::string::npos);
    EXPECT_EQ(TsharkPipe().program(), "/usr/bin/tshark");
}

TEST_F(TsharkPipeTest, FullInputPipeTakesNothingWithoutBlocking) {
    TsharkPipe pipe(script("deaf.sh", "exec sleep 60"));
    ConsoleCapture capture;
    ASSERT_EQ(pipe.start({}), 0);
    std::vector<uint8_t> bytes(1 << 16, 'x');
    int64_t total = 0;
    int64_t sent = 0;
    for (int i = 0; i < 64 && (sent = pipe.send(bytes.data(), bytes.size())) > 0; ++i) {
        total += sent;
    }
    EXPECT_EQ(sent, 0);
    EXPECT_GE(total, TsharkPipe::kPipeSize);
    uint8_t buffer[16];
    EXPECT_EQ(pipe.receive(buffer, sizeof buffer), 0);  // nothing written by the child
    pipe.abort();
    pipe.stop();
    capture.text();
}

TEST_F(TsharkPipeTest, OutputWaitingAfterStopIsNotDelivered) {
    TsharkPipe pipe(script("talker.sh", "cat >/dev/null; echo output"));
    ConsoleCapture capture;
    ASSERT_EQ(pipe.start({}), 0);
    const uint8_t input[] = "input";
    EXPECT_EQ(pipe.send(input, sizeof input), static_cast<int64_t>(sizeof input));
    EXPECT_EQ(pipe.stop(), 0);
    EXPECT_TRUE(pipe.finished());
    uint8_t buffer[64];
    EXPECT_EQ(pipe.receive(buffer, sizeof buffer), -1);
    // The child has gone: a send says so.
    EXPECT_EQ(pipe.send(input, sizeof input), -1);
    const std::string console = capture.text();
    EXPECT_NE(console.find("TShark process is not running\n"), std::string::npos);
}

}  // namespace
}  // namespace vistrel::capture
