// Capture files on the engine's side: the rotating files of a live interface, the device folders
// it watches, and the registration of finished files with the server.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>

#include "filereporter.h"
#include "filesummary.h"
#include "folderwatcher.h"
#include "rotatingcapturefile.h"
#include "support/elasticsearch_standin.h"
#include "support/eventually.h"
#include "support/temp_dir.h"

namespace vistrel::watchkeep {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using testing::ElasticsearchStandIn;
using vistrel::testing::eventually;

constexpr uint64_t kSecond = 1'000'000'000ULL;
// 2026-11-23 10:00:00 UTC
constexpr uint64_t kTen = 1795428000ULL * kSecond;

std::vector<uint8_t> frame(uint8_t mark) {
    std::vector<uint8_t> bytes(60, 0);
    bytes[12] = 0x08;  // IPv4
    bytes[59] = mark;
    return bytes;
}

TEST(RotatingCaptureFile, NamesRotatesAndDescribesEveryFileWithoutOverwriting) {
    testing::TempDir folder;
    testing::write_file(folder.file("eth0_20261123_100000_00001.pcapng"), "an earlier run");
    std::vector<FileSummary> closed;
    {
        RotatingCaptureFile files(folder.path(), "eth0", 1, 60 * kSecond,
                                  [&](const FileSummary& summary) { closed.push_back(summary); });
        // Nothing captured yet: no file at all.
        files.tick(kTen + 120 * kSecond);
        EXPECT_EQ(std::distance(fs::directory_iterator(folder.path()), fs::directory_iterator()),
                  1);

        auto a = frame(1);
        ASSERT_TRUE(files.write(kTen + 5, a.data(), 60, kTen));
        ASSERT_TRUE(files.write(kTen + 3, a.data(), 60, kTen + 1));  // out of order
        ASSERT_TRUE(files.write(kTen + 59 * kSecond, a.data(), 60, kTen + 59 * kSecond));
        files.tick(kTen + 59 * kSecond);
        EXPECT_TRUE(closed.empty());
        files.tick(kTen + 60 * kSecond);
        ASSERT_EQ(closed.size(), 1u);
        // Idle for a while: the next packet opens the next number at its own time.
        ASSERT_TRUE(files.write(kTen + 200 * kSecond, a.data(), 60, kTen + 200 * kSecond));
    }
    EXPECT_EQ(testing::read_file(folder.file("eth0_20261123_100000_00001.pcapng")),
              "an earlier run");
    ASSERT_EQ(closed.size(), 2u);
    EXPECT_EQ(closed[0].path, folder.path() + "/eth0_20261123_100000_00002.pcapng");
    EXPECT_EQ(closed[0].first_ns, kTen + 3);
    EXPECT_EQ(closed[0].last_ns, kTen + 59 * kSecond);
    EXPECT_EQ(closed[0].packets, 3u);
    EXPECT_EQ(closed[1].path, folder.path() + "/eth0_20261123_100320_00003.pcapng");

    // What was reported is what the capture readers find in the file.
    for (const auto& summary : closed) {
        std::optional<FileSummary> read = read_capture_file(summary.path, nullptr);
        ASSERT_TRUE(read.has_value());
        EXPECT_EQ(read->first_ns, summary.first_ns);
        EXPECT_EQ(read->last_ns, summary.last_ns);
        EXPECT_EQ(read->packets, summary.packets);
    }
}

TEST(RotatingCaptureFile, AFolderThatCannotBeWrittenDropsPacketsWithoutFiles) {
    std::vector<FileSummary> closed;
    RotatingCaptureFile files("/proc/no-such-folder", "lo", 1, 60 * kSecond,
                              [&](const FileSummary& summary) { closed.push_back(summary); });
    auto a = frame(3);
    EXPECT_FALSE(files.write(kTen, a.data(), 60, kTen));
    files.close();
    EXPECT_TRUE(closed.empty());
}

TEST(FolderWatcher, HandsOverClosedMovedAndStillOpenCaptureFiles) {
    testing::TempDir root;
    std::mutex mutex;
    std::vector<std::pair<size_t, std::string>> handed;
    auto seen = [&] {
        std::lock_guard lock(mutex);
        return handed;
    };
    const std::string left = root.file("left");
    const std::string right = root.file("right");  // created by the watcher
    fs::create_directories(left);
    FolderWatcher watcher({left, right}, [&](size_t folder, const std::string& path) {
        std::lock_guard lock(mutex);
        handed.emplace_back(folder, path);
    });
    watcher.start();
    ASSERT_TRUE(fs::is_directory(right));

    testing::write_file(left + "/a.pcapng", "x");
    testing::write_file(left + "/notes.txt", "not a capture");
    testing::write_file(root.file("moved.pcap"), "y");
    fs::rename(root.file("moved.pcap"), right + "/moved.pcap");
    ASSERT_TRUE(eventually([&] { return seen().size() == 2; }));
    EXPECT_EQ(seen()[0], std::make_pair(size_t{0}, left + "/a.pcapng"));
    EXPECT_EQ(seen()[1], std::make_pair(size_t{1}, right + "/moved.pcap"));

    // A device still writing when the capture stops: its file is taken at stop.
    std::ofstream open_file(right + "/b.pcapng");
    open_file << "partial";
    open_file.flush();
    std::this_thread::sleep_for(milliseconds(100));
    EXPECT_EQ(seen().size(), 2u);
    watcher.stop();
    ASSERT_EQ(seen().size(), 3u);
    EXPECT_EQ(seen()[2], std::make_pair(size_t{1}, right + "/b.pcapng"));
}

// Reports the server does not take wait on disk and go first in the next run; a report the
// server refuses is dropped.
TEST(FileReporter, RegistersInOrderAndKeepsWhatTheServerDidNotTake) {
    testing::TempDir folder;
    ElasticsearchStandIn server;  // records every request, whatever its path
    const std::string spool = folder.file(".watchkeep-spool");
    auto summary = [&](const std::string& name, uint64_t packets = 4) {
        return FileSummary{folder.file(name), kTen + 1, kTen + 2 * kSecond, packets};
    };
    auto add_file_queries = [&] {
        std::vector<std::string> queries;
        for (const auto& request : server.requests()) {
            if (request.path == "/addFile") queries.push_back(request.query);
        }
        return queries;
    };
    server.answer(503, "busy");
    {
        FileReporter reporter(server.address(), "vistrel", spool);
        reporter.report(summary("1.pcapng"), "lo");
        reporter.report(summary("2.pcapng"), "lo");
        EXPECT_FALSE(reporter.finish(milliseconds(300)));
    }
    EXPECT_FALSE(add_file_queries().empty());
    ASSERT_TRUE(fs::exists(spool + "/reports"));
    server.clear();

    server.answer(200, "Received file");
    {
        FileReporter reporter(server.address(), "vistrel", spool);
        reporter.report(summary("a b.pcapng"), "lo");
        reporter.report(summary("empty.pcapng", 0), "lo");
        reporter.report(summary("c.pcapng"), "left&right");
        EXPECT_TRUE(reporter.finish(milliseconds(3000)));
    }
    auto queries = add_file_queries();
    ASSERT_EQ(queries.size(), 4u);
    EXPECT_NE(queries[0].find("1.pcapng"), std::string::npos);
    EXPECT_NE(queries[1].find("2.pcapng"), std::string::npos);
    EXPECT_EQ(queries[2], "file_path=" + folder.file("a b.pcapng") +
                              "&start_ts=1795428000000000001&end_ts=1795428002000000000"
                              "&n_packets=4&source=lo&es_index=vistrel");
    EXPECT_NE(queries[3].find("source=left&right&es_index"), std::string::npos) << queries[3];
    EXPECT_FALSE(fs::exists(spool + "/reports"));

    server.clear();
    server.answer(400, "Error : Bad timestamps given");
    {
        FileReporter reporter(server.address(), "vistrel", spool);
        reporter.report(summary("bad.pcapng"), "lo");
        EXPECT_TRUE(reporter.finish(milliseconds(3000)));
    }
    EXPECT_EQ(add_file_queries().size(), 1u);
    EXPECT_FALSE(fs::exists(spool + "/reports"));
}

}  // namespace
}  // namespace vistrel::watchkeep
