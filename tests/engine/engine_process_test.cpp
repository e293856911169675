#include <gtest/gtest.h>
#include <stdlib.h>

#include <fstream>
#include <iterator>
#include <thread>

#include "engine/engineresult.h"
#include "engine/standin_engine.h"
#include "engine/watchkeepprocess.h"
#include "startup/logger.h"

namespace vistrel::engine {
namespace {

using std::chrono::milliseconds;
using vistrel::testing::ScratchFolder;
using vistrel::testing::StandinEngine;

class EngineProcessTest : public ::testing::Test {
  protected:
    void SetUp() override {
        setenv("QUELLWICK_ROOT", scratch.path().c_str(), 1);
        log_path = (scratch.path() / "engine.log").string();
        logger().open(log_path);
        logger().set_level(9);
        ASSERT_FALSE(WatchkeepProcess::is_running()) << "another watchkeep runs on this machine";
    }
    void TearDown() override {
        WatchkeepProcess cleaner(fast);
        cleaner.stop();
        logger().close();
        unsetenv("QUELLWICK_ROOT");
    }

    std::string log_text() const {
        std::ifstream file(log_path);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }
    static size_t count(const std::string& text, const std::string& part) {
        size_t found = 0;
        for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
            ++found;
        return found;
    }
    // The engine is collected asynchronously after a kill; give it a moment to vanish.
    static bool gone_soon() {
        for (int i = 0; i < 100 && WatchkeepProcess::is_running(); ++i)
            std::this_thread::sleep_for(milliseconds(50));
        return !WatchkeepProcess::is_running();
    }
    std::string command(const std::string& arguments = "") const {
        return "\"" + engine.folder().string() + "/watchkeep\" /c" + arguments;
    }

    ScratchFolder scratch;
    StandinEngine engine{scratch.path()};
    std::string log_path;
    EngineTiming fast{milliseconds(500), 5, milliseconds(100), 7};
};

TEST_F(EngineProcessTest, EmptyCommandIsInvalid) {
    WatchkeepProcess process(fast);
    EXPECT_EQ(process.launch(""), kEngineInvalidCommand);
    EXPECT_EQ(log_text().find("Executing Watchkeep Command"), std::string::npos);
}

// The one test with the real waits: a launch, a refused second launch, a graceful stop.
TEST_F(EngineProcessTest, LaunchRefuseSecondAndStopGracefully) {
    WatchkeepProcess process;
    ASSERT_EQ(process.launch(command(" --interface \"eth 0\" --dns-mode 3")), kEngineDone);
    EXPECT_TRUE(WatchkeepProcess::is_running());
    EXPECT_EQ(engine.arguments(),
              (std::vector<std::string>{engine.folder().string() + "/watchkeep", "/c",
                                        "--interface", "eth 0", "--dns-mode", "3"}));

    engine.clear();
    EXPECT_EQ(process.launch(command()), kEngineAlreadyRunning);
    EXPECT_FALSE(engine.started());

    EXPECT_EQ(process.stop(), kEngineDone);
    EXPECT_FALSE(WatchkeepProcess::is_running());
    EXPECT_EQ(engine.stop_input(), "STOP\r\n");
    std::string log = log_text();
    EXPECT_NE(log.find("Killing watchkeep - Writing to std::in"), std::string::npos);
    EXPECT_NE(log.find("Killed watchkeep gracefully (WINDOWS)"), std::string::npos);
    EXPECT_EQ(log.find("Going to try hand kill"), std::string::npos);
}

TEST_F(EngineProcessTest, EngineIgnoringTheStopLineIsKilledByName) {
    engine.set_mode("ignore");
    WatchkeepProcess process(fast);
    ASSERT_EQ(process.launch(command()), kEngineDone);
    EXPECT_EQ(process.stop(), kEngineDone);
    EXPECT_TRUE(gone_soon());
    std::string log = log_text();
    EXPECT_EQ(count(log, "Killing watchkeep - Waiting..."), 7u);
    EXPECT_NE(log.find("Killing watchkeep - Going to try hand kill"), std::string::npos);
    EXPECT_NE(log.find("Killed Watchkeep by name"), std::string::npos);
}

TEST_F(EngineProcessTest, EngineThatNeverShowsUpCostsFiveAttempts) {
    engine.set_mode("exit");
    WatchkeepProcess process(fast);
    EXPECT_EQ(process.launch(command()), kEngineError);
    std::string log = log_text();
    EXPECT_EQ(count(log, "Waiting 5s for watchkeep to start"), 5u);
    EXPECT_EQ(count(log, "Watchkeep failed to start, retrying..."), 5u);
}

TEST_F(EngineProcessTest, MissingProgramIsLoggedNotThrown) {
    WatchkeepProcess process(EngineTiming{milliseconds(10), 2, milliseconds(10), 1});
    EXPECT_EQ(process.launch("\"" + scratch.path().string() + "/nothing\" /c"), kEngineError);
    EXPECT_EQ(count(log_text(), "Could not start Quillmarsh process: 2"), 2u);
}

TEST_F(EngineProcessTest, StopWithoutEngineSkipsThePipe) {
    WatchkeepProcess process(fast);
    EXPECT_EQ(process.stop(), kEngineDone);
    std::string log = log_text();
    EXPECT_EQ(log.find("Writing to std::in"), std::string::npos);
    EXPECT_NE(log.find("Killed watchkeep gracefully (WINDOWS)"), std::string::npos);
}

TEST_F(EngineProcessTest, LongCommandLineIsCut) {
    WatchkeepProcess process(fast);
    std::string prefix = command(" ");
    std::string long_argument(2100, 'x');
    ASSERT_EQ(process.launch(prefix + long_argument), kEngineDone);
    auto arguments = engine.arguments();
    ASSERT_EQ(arguments.size(), 3u);
    EXPECT_EQ(arguments[2].size(), WatchkeepProcess::kMaxCommandLine - prefix.size());
    EXPECT_EQ(process.stop(), kEngineDone);
}

TEST(EngineResultTest, TextsAsClientsKnowThem) {
    EXPECT_EQ(result_text(0), "Sucessfully executed command");
    EXPECT_EQ(result_text(4), "It  is already stopped");
    EXPECT_EQ(result_text(6), "Unable to execute command");
    EXPECT_EQ(result_text(7), "Unhandled error type");
}

}  // namespace
}  // namespace vistrel::engine
