#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <string>

#include "startup/configuration.h"
#include "startup/logger.h"
#include "support/temp_dir.h"

namespace vistrel::testing {

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

    // Runs one statement on a connection of the test's own; the first column of the last row.
    std::string query(const std::string& sql) const {
        sqlite3* handle = nullptr;
        sqlite3_open(database_path.c_str(), &handle);
        std::string value;
        char* error = nullptr;
        int result = sqlite3_exec(
            handle, sql.c_str(),
            [](void* context, int, char** values, char**) {
                *static_cast<std::string*>(context) = values[0] != nullptr ? values[0] : "NULL";
                return 0;
            },
            &value, &error);
        std::string message = error != nullptr ? error : "";
        sqlite3_free(error);
        sqlite3_close(handle);
        EXPECT_EQ(result, SQLITE_OK) << sql << ": " << message;
        return value;
    }

    long rows(const std::string& table) const {
        return std::stol(query("SELECT count(*) FROM '" + table + "';"));
    }

    TempDir dir;
    std::string database_path;
};

}  // namespace vistrel::testing
