#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <numeric>
#include <set>

#include "index/indexer.h"
#include "support/elasticsearch_standin.h"
#include "support/temp_dir.h"

namespace vistrel::watchkeep {
namespace {

using nlohmann::json;
using testing::ElasticsearchStandIn;

// Records numbered 0..n-1 sent through a BulkSender into the stand-in.
class BulkTest : public ::testing::Test {
  protected:
    BulkTest() {
        settings_.bulk_url = search_.address() + "/_bulk";
        settings_.spool_folder = dir_.file("spool");
        settings_.batch_documents = 4;
        settings_.retry_base_ms = 10;
        settings_.request_timeout_ms = 2000;
        settings_.probe_interval_ms = 50;
    }

    static void send(BulkSender& sender, int from, int to) {
        for (int n = from; n < to; ++n) {
            sender.enqueue("records-2024.01.01", json{{"n", n}, {"text", "record"}}.dump());
        }
    }

    // The record numbers that arrived, in arrival order.
    std::vector<int> arrived() const {
        std::vector<int> numbers;
        for (const auto& [index, documents] : search_.bulk_documents()) {
            EXPECT_EQ(index, "records-2024.01.01");
            for (const auto& document : documents) numbers.push_back(json::parse(document)["n"]);
        }
        return numbers;
    }

    static std::vector<int> range(int from, int to) {
        std::vector<int> numbers(to - from);
        std::iota(numbers.begin(), numbers.end(), from);
        return numbers;
    }

    size_t spooled_files() const {
        size_t files = 0;
        std::error_code error;
        for (const auto& entry :
             std::filesystem::directory_iterator(settings_.spool_folder, error)) {
            files += entry.path().extension() == ".ndjson" ? 1 : 0;
        }
        return files;
    }

    ElasticsearchStandIn search_;
    testing::TempDir dir_;
    IndexSettings settings_;
};

// Bounded NDJSON batches with an id per record, whatever the endpoint answers.
TEST_F(BulkTest, BatchesAreBoundedAndRefusalsSplitRetriedOrCounted) {
    settings_.batch_bytes = 150;  // about two records
    struct Case {
        const char* name;
        std::function<void(ElasticsearchStandIn&)> refuse;
        uint64_t failed;
        uint64_t retries_at_least;
    };
    const std::vector<Case> cases = {
        {"accepted", [](ElasticsearchStandIn&) {}, 0, 0},
        {"413 splits", [](ElasticsearchStandIn& s) { s.bulk_max_documents(1); }, 0, 2},
        {"429 retried", [](ElasticsearchStandIn& s) { s.bulk_status(429, 3); }, 0, 3},
        {"503 retried", [](ElasticsearchStandIn& s) { s.bulk_status(503, 2); }, 0, 2},
        {"items refused", [](ElasticsearchStandIn& s) { s.bulk_item_error("\"n\":3,"); }, 1, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        search_.clear();
        c.refuse(search_);
        BulkSender sender(settings_);
        send(sender, 0, 8);
        ASSERT_TRUE(sender.finish(std::chrono::seconds(10)));
        std::vector<int> expected = range(0, 8);
        if (c.failed > 0) expected.erase(expected.begin() + 3);
        EXPECT_EQ(arrived(), expected);
        // Retries and halves carry the ids they had: a record sent twice replaces itself.
        std::set<std::string> ids;
        for (const auto& request : search_.requests()) {
            EXPECT_EQ(request.header("Content-Type"), "application/x-ndjson");
            size_t lines = 0;
            std::istringstream body(request.body);
            for (std::string line; std::getline(body, line); ++lines) {
                if (lines % 2 == 0)
                    ids.insert(json::parse(line)["index"]["_id"].get<std::string>());
            }
            EXPECT_LE(lines, 2 * 4u);
            EXPECT_LE(request.body.size(), 150u + 100u);
        }
        EXPECT_EQ(ids.size(), 8u);
        BulkStatistics statistics = sender.statistics();
        EXPECT_EQ(statistics.documents_failed, c.failed);
        EXPECT_EQ(statistics.documents_sent, 8 - c.failed);
        EXPECT_GE(statistics.retries, c.retries_at_least);
        EXPECT_EQ(spooled_files(), 0u);
        search_.bulk_max_documents(0);
        search_.bulk_status(200, 0);
        search_.bulk_item_error("");
    }
}

TEST_F(BulkTest, WhatCannotBeSentWaitsOnDiskAndGoesFirstOrIsCountedLost) {
    search_.stop();
    {
        // A spool that cannot be written: the records are counted as lost.
        IndexSettings unwritable = settings_;
        testing::write_file(dir_.file("file"), "x");
        unwritable.spool_folder = dir_.file("file/spool");
        BulkSender sender(unwritable);
        send(sender, 0, 5);
        EXPECT_FALSE(sender.finish(std::chrono::seconds(2)));
        EXPECT_EQ(sender.statistics().documents_lost, 5u);
    }
    {
        BulkSender sender(settings_);
        send(sender, 0, 10);
        ASSERT_TRUE(sender.finish(std::chrono::seconds(5)));
        EXPECT_EQ(sender.statistics().documents_spooled, 10u);
    }
    EXPECT_EQ(spooled_files(), 3u);
    // Still down: the next run adds its own behind them.
    {
        BulkSender sender(settings_);
        send(sender, 10, 12);
        ASSERT_TRUE(sender.finish(std::chrono::seconds(5)));
    }
    search_.start();
    BulkSender sender(settings_);
    send(sender, 12, 20);
    // Going away in the middle of a run loses nothing either.
    search_.stop();
    send(sender, 20, 30);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // for the sender to notice
    search_.start();
    send(sender, 30, 40);
    ASSERT_TRUE(sender.finish(std::chrono::seconds(10)));
    EXPECT_EQ(arrived(), range(0, 40));
    EXPECT_EQ(spooled_files(), 0u);
}

TEST_F(BulkTest, AStopDuringAnUnansweredRequestKeepsItForLater) {
    settings_.request_timeout_ms = 5000;
    search_.bulk_silent(true);
    {
        BulkSender sender(settings_);
        send(sender, 0, 6);
        for (int wait = 0; wait < 500 && search_.bulk_held_count() == 0; ++wait) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        ASSERT_EQ(search_.bulk_held_count(), 1u);
        // The budget ends while the request hangs: it is aborted and spooled, not lost.
        ASSERT_TRUE(sender.finish(std::chrono::milliseconds(300)));
    }
    search_.bulk_silent(false);
    EXPECT_EQ(spooled_files(), 2u);
    BulkSender sender(settings_);
    ASSERT_TRUE(sender.finish(std::chrono::seconds(10)));
    // The stand-in took the abandoned request when its silence ended; sent again with the
    // same ids, its records replaced themselves instead of arriving twice.
    EXPECT_EQ(arrived(), range(0, 6));
    EXPECT_EQ(search_.bulk_replaced_count(), 4u);
}

}  // namespace
}  // namespace vistrel::watchkeep
