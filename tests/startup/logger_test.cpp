#include "startup/logger.h"

#include <gtest/gtest.h>

#include <string>

#include "support/temp_dir.h"

namespace vistrel {
namespace {

using testing::read_file;
using testing::TempDir;

class LoggerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        log_.open(dir_.file("test.log"));
        ::testing::internal::CaptureStdout();
    }
    std::string finish() {
        console_ = ::testing::internal::GetCapturedStdout();
        log_.close();
        return read_file(dir_.file("test.log"));
    }
    TempDir dir_;
    Logger log_;
    std::string console_;
};

TEST_F(LoggerTest, FileAndConsoleCarryTheSameLinesWithPrefixes) {
    log_.set_level(kLogWarning);
    log_.log(kLogError, "main.cpp", 12, "failed %d", 7);
    log_.log(kLogWarning, "main.cpp", 13, "careful");
    log_.log(kLogNormal, "main.cpp", 14, "not written");
    std::string file = finish();
    EXPECT_EQ(file, console_);
    EXPECT_NE(file.find(" [main.cpp:12] ERROR: failed 7\n"), std::string::npos);
    EXPECT_NE(file.find(" [main.cpp:13] WARNING: careful\n"), std::string::npos);
    EXPECT_EQ(file.find("not written"), std::string::npos);
    // Each line starts with the local time, e.g. 14/Nov/2026 09:05:07.
    EXPECT_EQ(file[2], '/');
    EXPECT_EQ(file[6], '/');
    EXPECT_EQ(file.substr(11, 1), " ");
}

TEST_F(LoggerTest, ThresholdsPassTheirLevelAndBelowAndZeroSilencesEvenErrors) {
    log_.set_level(kLogInfo);
    log_.log(kLogInfo, "a.cpp", 1, "info");
    log_.log(5, "a.cpp", 3, "five");
    log_.set_level(kLogError);
    log_.log(kLogError, "a.cpp", 1, "error");
    std::string file = finish();
    EXPECT_NE(file.find("info"), std::string::npos);
    EXPECT_EQ(file.find("five"), std::string::npos);
    EXPECT_EQ(file.find("error"), std::string::npos);
}

// Trailing line feeds go, carriage returns stay; the source name is what follows the last
// backslash only.
TEST_F(LoggerTest, LineEndsAndSourceNames) {
    log_.log(kLogNormal, "a.cpp", 1, "one\n\n\n");
    log_.log(kLogNormal, "a.cpp", 2, "two\r\n");
    log_.log(kLogNormal, "a.cpp", 3, "100%%");
    log_.log(kLogNormal, "C:\\src\\startup\\main.cpp", 5, "x");
    log_.log(kLogNormal, "/src/startup/main.cpp", 6, "y");
    std::string file = finish();
    EXPECT_NE(file.find("] one\n"), std::string::npos);
    EXPECT_NE(file.find("] two\r\n"), std::string::npos);
    EXPECT_NE(file.find("] 100%\n"), std::string::npos);
    EXPECT_NE(file.find("[main.cpp:5] x"), std::string::npos);
    EXPECT_NE(file.find("[/src/startup/main.cpp:6] y"), std::string::npos);
}

TEST_F(LoggerTest, LongMessagesAreCutToTheBufferSizes) {
    std::string huge(10000, 'a');
    log_.log(kLogNormal, "a.cpp", 1, "%s", huge.c_str());
    // 8191 characters and the final line feed.
    EXPECT_EQ(finish().size(), 8192u);
}

// The names themselves are read through the configuration's tests.
TEST(LoggerLevels, UnknownNamesAndNumbers) {
    // Names match exactly; anything else reads as normal.
    EXPECT_EQ(level_from_name("Debug"), 2u);
    EXPECT_EQ(level_from_name("verbose"), 2u);
    EXPECT_EQ(name_from_level(4), "invalid");
    Logger log;
    log.set_level(12);
    EXPECT_EQ(log.level(), 9u);
}

TEST(LoggerOpen, UnwritableLogFallsBackToConsoleWithAnErrorLine) {
    Logger log;
    ::testing::internal::CaptureStdout();
    log.open("/nonexistent-folder/vistrelserveres.log");
    log.log(kLogNormal, "a.cpp", 1, "still here");
    std::string console = ::testing::internal::GetCapturedStdout();
    EXPECT_NE(console.find("ERROR: Unable to create log /nonexistent-folder/vistrelserveres.log"),
              std::string::npos);
    EXPECT_NE(console.find("still here"), std::string::npos);
}

}  // namespace
}  // namespace vistrel
