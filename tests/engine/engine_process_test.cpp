#include <gtest/gtest.h>
#include <stdlib.h>

#include "engine/engineresult.h"
#include "engine/standin_engine.h"
#include "engine/watchkeepprocess.h"
#include "startup/logger.h"
#include "support/eventually.h"
#include "support/temp_dir.h"

namespace vistrel::engine {
namespace {

using std::chrono::milliseconds;
using vistrel::testing::StandinEngine;

class EngineProcessTest : public ::testing::Test {
  protected:
    void SetUp() override {
        setenv("QUELLWICK_ROOT", scratch.path().c_str(), 1);
        logger().open(scratch.file("engine.log"));
        logger().set_level(9);
        ASSERT_FALSE(WatchkeepProcess::is_running()) << "another watchkeep runs on this machine";
    }
    void TearDown() override {
        WatchkeepProcess(fast).stop();
        logger().close();
        unsetenv("QUELLWICK_ROOT");
    }

    size_t count(const std::string& part) const {
        const std::string text = testing::read_file(scratch.file("engine.log"));
        size_t found = 0;
        for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
            ++found;
        return found;
    }
    std::string command(const std::string& arguments = "") const {
        return "\"" + engine.folder().string() + "/watchkeep\" /c" + arguments;
    }

    testing::TempDir scratch;
    StandinEngine engine{scratch.path()};
    EngineTiming fast{milliseconds(500), 5, milliseconds(100), 7};
};

TEST_F(EngineProcessTest, WithoutAProgramNothingRuns) {
    WatchkeepProcess process(EngineTiming{milliseconds(10), 2, milliseconds(10), 1});
    EXPECT_EQ(process.launch(""), kEngineInvalidCommand);
    EXPECT_EQ(count("Executing Watchkeep Command"), 0u);
    EXPECT_EQ(process.launch("\"" + scratch.file("nothing") + "\" /c"), kEngineError);
    EXPECT_EQ(count("Could not start Quillmarsh process: 2"), 2u);
    // Stopping when no engine runs must not write to a pipe that is not there.
    EXPECT_EQ(process.stop(), kEngineDone);
    EXPECT_EQ(count("Writing to std::in"), 0u);
    EXPECT_EQ(count("Killed watchkeep gracefully (WINDOWS)"), 1u);
}

// The one test with the real waits: a launch, a refused second launch, a graceful stop.
TEST_F(EngineProcessTest, LaunchRefuseSecondAndStopGracefully) {
    WatchkeepProcess process;
    ASSERT_EQ(process.launch(command(" --interface \"eth 0\" --dns-mode 3")), kEngineDone);
    EXPECT_TRUE(WatchkeepProcess::is_running());
    EXPECT_EQ(engine.arguments().at(3), "eth 0");

    engine.clear();
    EXPECT_EQ(process.launch(command()), kEngineAlreadyRunning);
    EXPECT_FALSE(engine.started());

    EXPECT_EQ(process.stop(), kEngineDone);
    EXPECT_FALSE(WatchkeepProcess::is_running());
    EXPECT_EQ(engine.stop_input(), "STOP\r\n");
    EXPECT_EQ(count("Killing watchkeep - Writing to std::in"), 1u);
    EXPECT_EQ(count("Killed watchkeep gracefully (WINDOWS)"), 1u);
    EXPECT_EQ(count("Going to try hand kill"), 0u);
}

TEST_F(EngineProcessTest, LongCommandIsCutAndDeafEngineIsKilledByName) {
    engine.set_mode("ignore");
    WatchkeepProcess process(fast);
    const std::string prefix = command(" ");
    ASSERT_EQ(process.launch(prefix + std::string(2100, 'x')), kEngineDone);
    auto arguments = engine.arguments();
    ASSERT_EQ(arguments.size(), 3u);
    EXPECT_EQ(arguments[2].size(), WatchkeepProcess::kMaxCommandLine - prefix.size());

    EXPECT_EQ(process.stop(), kEngineDone);
    // The engine is collected asynchronously after the kill; give it a moment to vanish.
    EXPECT_TRUE(testing::eventually([] { return !WatchkeepProcess::is_running(); }, 5));
    EXPECT_EQ(count("Killing watchkeep - Waiting..."), 7u);
    EXPECT_EQ(count("Killing watchkeep - Going to try hand kill"), 1u);
    EXPECT_EQ(count("Killed Watchkeep by name"), 1u);
}

TEST_F(EngineProcessTest, EngineThatNeverShowsUpCostsFiveAttempts) {
    engine.set_mode("exit");
    WatchkeepProcess process(fast);
    EXPECT_EQ(process.launch(command()), kEngineError);
    EXPECT_EQ(count("Waiting 5s for watchkeep to start"), 5u);
    EXPECT_EQ(count("Watchkeep failed to start, retrying..."), 5u);
    EXPECT_EQ(count("Watchkeep ended with exit code 1"), 5u);
}

TEST_F(EngineProcessTest, EngineDoneBeforeTheLookIsStartedOnceWithItsEnvironment) {
    engine.set_mode("done");
    WatchkeepProcess process(fast);
    EXPECT_EQ(process.launch(command(), {{"VISTREL_SERVER_URL", "http://127.0.0.1:1234"}}),
              kEngineDone);
    EXPECT_EQ(count("Waiting 5s for watchkeep to start"), 1u);
    EXPECT_EQ(count("Watchkeep failed to start"), 0u);
    EXPECT_EQ(engine.environment("VISTREL_SERVER_URL"), "http://127.0.0.1:1234");
}

}  // namespace
}  // namespace vistrel::engine
