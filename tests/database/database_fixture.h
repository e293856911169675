#pragma once

#include <gtest/gtest.h>

#include <string>

#include "database/captureindex.h"
#include "database/sqlite_query.h"
#include "startup/configuration.h"
#include "startup/logger.h"
#include "support/temp_dir.h"

namespace vistrel::testing {

inline capture::CaptureFileRecord capture_record(const std::string& path, uint64_t start,
                                                 uint64_t end, const std::string& source = "dev1",
                                                 const std::string& es_index = "idx") {
    capture::CaptureFileRecord record;
    record.file_path = path;
    record.source = source;
    record.es_index = es_index;
    record.start_ts = start;
    record.end_ts = end;
    record.n_packets = 7;
    return record;
}

// A fresh database file named in the configuration and a log file read back by the tests.
class DatabaseFixture : public ::testing::Test {
  protected:
    void SetUp() override {
        database_path = dir.file("vistrel-cs.db");
        configuration().database = database_path;
        logger().open(dir.file("server.log"));
        logger().set_level(kLogTrace);
    }
    void TearDown() override { logger().close(); }

    std::string log_text() const { return read_file(dir.file("server.log")); }

    static size_t occurrences(const std::string& text, const std::string& needle) {
        size_t count = 0;
        for (size_t at = text.find(needle); at != std::string::npos;
             at = text.find(needle, at + needle.size())) {
            ++count;
        }
        return count;
    }

    std::string query(const std::string& sql) const { return sqlite_value(database_path, sql); }
    long rows(const std::string& table) const {
        return std::stol(query("SELECT count(*) FROM '" + table + "';"));
    }

    TempDir dir;
    std::string database_path;
};

}  // namespace vistrel::testing
