#include "host/disk.h"

#include <gtest/gtest.h>
#include <sys/statvfs.h>

#include <ctime>
#include <nlohmann/json.hpp>

#include "support/temp_dir.h"

namespace vistrel::host {
namespace {

using testing::TempDir;

TEST(Folders, CreatedWithParentsAndExistingCountsAsSuccess) {
    TempDir dir;
    std::string deep = dir.file("a/b/c");
    EXPECT_TRUE(create_folder(deep));
    EXPECT_TRUE(folder_exists(deep));
    EXPECT_TRUE(create_folder(deep));
    testing::write_file(dir.file("file"), "x");
    EXPECT_FALSE(create_folder(dir.file("file/below")));
    EXPECT_FALSE(folder_exists(dir.file("file")));
    EXPECT_TRUE(file_exists(dir.file("file")));
    EXPECT_FALSE(create_folder(""));
}

TEST(DiskSpace, DocumentInEachUnitMatchesTheVolumeOrIsZero) {
    TempDir dir;
    struct statvfs volume {};
    ASSERT_EQ(statvfs(dir.path().c_str(), &volume), 0);
    uint64_t total = static_cast<uint64_t>(volume.f_blocks) * volume.f_frsize;
    for (auto [unit, shift] : {std::pair{"KB", 10}, {"MB", 20}, {"GB", 30}}) {
        std::string text = disk_space_document(dir.path(), unit);
        nlohmann::json document = nlohmann::json::parse(text);
        EXPECT_EQ(document["total_space"], std::to_string(total >> shift)) << unit;
        EXPECT_EQ(document["unit"], unit);
        // Keys in their fixed order, no blanks.
        EXPECT_EQ(text.rfind("{\"total_space\":\"", 0), 0u);
        EXPECT_NE(text.find("\",\"available_space\":\""), std::string::npos);
    }
    EXPECT_EQ(disk_space_document(dir.path(), "kb"), "");
    EXPECT_GT(free_space(dir.path()), 0);

    // An unreachable folder gives the zero document.
    testing::write_file(dir.file("file"), "x");
    EXPECT_EQ(disk_space_document(dir.file("file/missing"), "GB"),
              "{\"total_space\":\"0\",\"available_space\":\"0\",\"unit\":\"GB\"}");
    EXPECT_EQ(free_space(dir.file("file/missing")), -1);
}

TEST(DatedFolderName, CarriesTodaysUtcDate) {
    time_t now = std::time(nullptr);
    struct tm utc {};
    gmtime_r(&now, &utc);
    char expected[64];
    std::strftime(expected, sizeof expected, "/base/captures_%Y-%m-%d", &utc);
    EXPECT_EQ(dated_folder_name("/base", "captures"), expected);
}

}  // namespace
}  // namespace vistrel::host
