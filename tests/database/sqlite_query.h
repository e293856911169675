#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <string>

namespace vistrel::testing {

// Runs `sql` on a connection of the test's own; the first column of the last row ("" if none).
inline std::string sqlite_value(const std::string& database_path, const std::string& sql) {
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
    EXPECT_EQ(result, SQLITE_OK) << sql << ": " << (error != nullptr ? error : "");
    sqlite3_free(error);
    sqlite3_close(handle);
    return value;
}

}  // namespace vistrel::testing
