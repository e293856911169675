// The real binary, started in a sandbox: run modes, exit codes, printed texts, stop signals.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "support/server_process.h"

namespace vistrel {
namespace {

using testing::ProgramRun;
using testing::ServerProcess;
using testing::write_file;

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// The daemon's stop signal: one byte through its FIFO.
void write_one_byte(const std::string& fifo) {
    int writer = open(fifo.c_str(), O_WRONLY);
    ASSERT_GE(writer, 0);
    EXPECT_EQ(write(writer, "x", 1), 1);
    close(writer);
}

// The parser's own texts and codes are checked on the parser; here what the shell sees.
TEST(Lifecycle, EarlyExitsRunNoShutDownStep) {
    ServerProcess server;
    const std::string port = std::to_string(server.port());
    struct Case {
        std::vector<std::string> arguments;
        bool library_fails;
        int exit_code;
        std::string printed;
    };
    // No "--mode" leaves the mode "invalid": an unknown mode.
    const std::vector<Case> cases = {
        {{}, false, 255, "Usage:\n centralized-server <options> --mode <mode>"},
        {{"--mode", "debug", "--host", "::1"}, false, 1, "[Set Up] Error loading configuration\n"},
        {{"--mode", "cleanup"}, false, 0, ""},
        {{"--port", port}, false, 1, ""},
        {{"--mode", "stop", "--port", port}, true, 255, ""}};
    server.run({"--mode", "stop", "--port", port});  // a database for the clean-up to empty
    for (const auto& [arguments, library_fails, exit_code, printed] : cases) {
        const std::string name = arguments.empty() ? "none" : arguments.back();
        if (library_fails) server.set_env("TIDEWELL_SIM_FAIL_INITIALIZE", "1");
        ProgramRun run = server.run(arguments);
        EXPECT_EQ(run.exit_code, exit_code) << name;
        EXPECT_TRUE(contains(run.output, printed)) << name << ": " << run.output;
        const std::string log = server.log();
        // The log is opened before the command line is read.
        EXPECT_TRUE(contains(log, "Logging into " + server.log_path())) << name;
        EXPECT_FALSE(contains(log, "Finishing server...")) << log;
        EXPECT_FALSE(contains(log, "Closing Server...")) << log;
        EXPECT_EQ(contains(log, "ERROR: Failed to initialize Tidewell API"), library_fails);
    }
}

TEST(Lifecycle, StopModeStartsEverythingClosesAtOnceAndTruncatesTheLog) {
    ServerProcess server;
    const std::string port = std::to_string(server.port());
    server.run({"--mode", "stop", "--port", port, "--loglevel", "error"});
    // The log opens at the normal level; the configured threshold silences everything after.
    std::string silent = server.log();
    EXPECT_TRUE(contains(silent, "Logging into"));
    EXPECT_EQ(silent.find('\n'), silent.size() - 1) << silent;

    // A missing firmware catalogue is reported once, before serving.
    const std::string catalogue = server.quellwick_root() + "/tidewell/firmware/firmware.xml";
    std::filesystem::remove(catalogue);
    ProgramRun run = server.run({"--mode", "stop", "--host", "127.0.0.1", "--port", port});
    EXPECT_EQ(run.exit_code, 0);
    EXPECT_TRUE(contains(run.output, "[Will run as] host=127.0.0.1\n"));
    EXPECT_TRUE(contains(run.output, "[Will run as] port=" + port));
    std::string log = server.log();
    EXPECT_EQ(log.find("Logging into"), log.rfind("Logging into"));
    EXPECT_TRUE(contains(log, "Configuration:host=127.0.0.1;port=" + port));
    EXPECT_LT(log.find("Received STOP command"), log.find("WARNING: Closing Server..."));
    const std::string missing = "ERROR: Could not open Firwmare.xml at: " + catalogue + "\n";
    EXPECT_TRUE(contains(log, missing));
    EXPECT_EQ(log.find(missing), log.rfind(missing));
    EXPECT_LT(log.find("Firwmare.xml"), log.find("Received STOP command"));
    // The effective configuration was written beside the default database.
    std::string copy = server.quellwick_root() + "/vistrel/centralizedserver/latest_config.yml";
    EXPECT_TRUE(contains(testing::read_file(copy), "mode: stop"));
}

TEST(Lifecycle, UnwritableBackupFolderDoesNotStopTheStart) {
    ServerProcess server;
    std::filesystem::remove_all(server.quellwick_root() + "/vistrel/centralizedserver");
    write_file(server.quellwick_root() + "/vistrel/centralizedserver", "a file, not a folder");
    ProgramRun run = server.run({"--mode", "stop", "--port", std::to_string(server.port()),
                                 "--database", server.sandbox().file("db/v.db")});
    EXPECT_EQ(run.exit_code, 0);
    EXPECT_TRUE(contains(run.output,
                         "[Error] Unable to make config file backup. Check "
                         "permissions at " +
                             server.quellwick_root() +
                             "/vistrel/centralizedserver/latest_config.yml\n"));
    EXPECT_TRUE(contains(server.log(), "Closing Server..."));
}

TEST(Lifecycle, DatabaseThatCannotBeCreatedShutsDownWithExitZero) {
    ServerProcess server;
    // A folder where the file should be, both at the path and in the working folder, which
    // is where the database falls back to.
    std::filesystem::create_directories(server.sandbox().file("db/x.db"));
    std::filesystem::create_directories(server.sandbox().file("x.db"));
    ProgramRun run =
        server.run({"--mode", "debug", "--host", "127.0.0.1", "--port",
                    std::to_string(server.port()), "--database", server.sandbox().file("db/x.db")});
    EXPECT_EQ(run.exit_code, 0);
    std::string log = server.log();
    size_t failed = log.find("ERROR: Failed to initialize database");
    size_t permissions = log.find("WARNING: Check your permissions?");
    size_t closing = log.find("WARNING: Closing Server...");
    ASSERT_NE(failed, std::string::npos) << log;
    EXPECT_LT(failed, permissions);
    EXPECT_LT(permissions, closing);
    EXPECT_FALSE(contains(log, "Server running"));
}

TEST(Lifecycle, DebugModeStopsOnAKeyOrASignalButNotOnEndOfInput) {
    ServerProcess server;
    ASSERT_TRUE(server.start());
    EXPECT_TRUE(server.wait_for_log("Server running, press any key to stop...."));
    server.close_stdin();  // end of file is not a key
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_TRUE(server.running());
    EXPECT_EQ(server.client().get("/").status, 200);
    kill(server.pid(), SIGINT);
    EXPECT_EQ(server.wait_for_exit(), 0);
    EXPECT_TRUE(contains(server.log(), "Closing Server..."));

    ServerProcess keyed;
    ASSERT_TRUE(keyed.start());
    keyed.write_stdin("q");
    EXPECT_EQ(keyed.wait_for_exit(), 0);
    EXPECT_TRUE(contains(keyed.log(), "Closing Server..."));
}

TEST(Lifecycle, DaemonStopsOnOneByteThroughItsFifo) {
    ServerProcess server;
    ASSERT_TRUE(server.start(
        {"--mode", "daemon", "--host", "127.0.0.1", "--port", std::to_string(server.port())}));
    ASSERT_TRUE(server.wait_for_log("Server running, waiting for signal"));
    std::string fifo = server.tmpdir() + "/HTTPServerES";
    struct stat info {};
    ASSERT_EQ(stat(fifo.c_str(), &info), 0);
    EXPECT_TRUE(S_ISFIFO(info.st_mode));

    // A second daemon cannot take the FIFO of a live one; it still stops on SIGTERM.
    ServerProcess second;
    ASSERT_TRUE(std::filesystem::remove_all(second.tmpdir()));
    std::filesystem::create_symlink(server.tmpdir(), second.tmpdir());
    ASSERT_TRUE(second.start(
        {"--mode", "daemon", "--host", "127.0.0.1", "--port", std::to_string(second.port())}));
    EXPECT_TRUE(contains(second.output(), "[Daemon] Failed to create pipe\n"));
    EXPECT_EQ(second.stop(), 0);

    // A writer that closes without writing is no signal.
    int silent = open(fifo.c_str(), O_WRONLY);
    ASSERT_GE(silent, 0);
    close(silent);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_TRUE(server.running());
    EXPECT_EQ(server.client().get("/getStatus").body, "Centralized Server Alive");

    write_one_byte(fifo);
    EXPECT_EQ(server.wait_for_exit(), 0);
    EXPECT_FALSE(std::filesystem::exists(fifo));
}

TEST(Lifecycle, DaemonReclaimsAStaleFifoOrAnyOtherFileOfItsName) {
    for (bool stale_fifo : {true, false}) {
        ServerProcess server;
        std::string fifo = server.tmpdir() + "/HTTPServerES";
        if (stale_fifo) {
            ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
        } else {
            ASSERT_TRUE(std::filesystem::create_directory(fifo));
        }
        ASSERT_TRUE(server.start(
            {"--mode", "daemon", "--host", "127.0.0.1", "--port", std::to_string(server.port())}));
        ASSERT_TRUE(server.wait_for_log("Server running, waiting for signal"));
        EXPECT_FALSE(contains(server.output(), "Failed to create pipe")) << stale_fifo;
        write_one_byte(fifo);
        EXPECT_EQ(server.wait_for_exit(), 0);
    }
}

}  // namespace
}  // namespace vistrel
