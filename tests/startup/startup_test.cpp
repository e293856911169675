// The command line, the configuration file and the log, without starting the program.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <string>
#include <vector>

#include "host/disk.h"
#include "host/paths.h"
#include "startup/commandline.h"
#include "startup/configuration.h"
#include "startup/logger.h"
#include "support/temp_dir.h"

namespace vistrel {
namespace {

using testing::read_file;
using testing::TempDir;
using testing::write_file;

// Each test gets its own profile and program folders and a fresh configuration record.
class CommandLineTest : public ::testing::Test {
  protected:
    void SetUp() override {
        setenv("HOME", dir_.file("home").c_str(), 1);
        setenv("QUELLWICK_ROOT", dir_.file("quellwick").c_str(), 1);
        std::filesystem::create_directories(dir_.file("home"));
        config_.reset();
    }

    CommandLineResult parse(std::vector<std::string> words) {
        words.insert(words.begin(), "centralizedserver");
        std::vector<char*> argv;
        for (auto& word : words) argv.push_back(word.data());
        argv.push_back(nullptr);
        ::testing::internal::CaptureStdout();
        CommandLineResult result =
            load_command_line(config_, static_cast<int>(words.size()), argv.data());
        printed_ = ::testing::internal::GetCapturedStdout();
        return result;
    }

    bool printed(const std::string& text) const { return printed_.find(text) != std::string::npos; }

    std::string home() const { return dir_.file("home"); }

    TempDir dir_;
    Configuration config_;
    std::string printed_;
};

TEST_F(CommandLineTest, DefaultsDeriveTheCapturesTreeAndBindToLoopback) {
    CommandLineResult result = parse({"--mode", "debug"});
    EXPECT_TRUE(result.proceed);
    EXPECT_FALSE(result.exit_code);
    EXPECT_EQ(config_.captures, home() + "/Documents/Vistrel");
    EXPECT_EQ(config_.capture_path, home() + "/Documents/Vistrel/captures");
    EXPECT_EQ(config_.analyze_capture_path, home() + "/Documents/Vistrel/analyzed_captures");
    EXPECT_TRUE(host::folder_exists(config_.capture_path));
    EXPECT_TRUE(host::folder_exists(config_.analyze_capture_path));
    EXPECT_TRUE(printed("[Set Up] Missing config, binding to defaults - 127.0.0.1"));
    EXPECT_EQ(config_.host, "127.0.0.1");
    EXPECT_EQ(config_.port, 8081u);
    EXPECT_EQ(config_.database,
              dir_.file("quellwick") + "/vistrel/centralizedserver/vistrel-cs.db");
    EXPECT_TRUE(host::folder_exists(dir_.file("quellwick") + "/vistrel/centralizedserver"));
}

TEST_F(CommandLineTest, RelativePathsResolveUnderTheProfileFolder) {
    EXPECT_TRUE(
        parse({"--mode", "debug", "--captures", "data/caps", "--database", "db\\x.db"}).proceed);
    EXPECT_EQ(config_.captures, home() + "/data/caps");
    EXPECT_EQ(config_.capture_path, home() + "/data/caps/captures");
    EXPECT_EQ(config_.database, home() + "/db/x.db");
    EXPECT_EQ(host::resolve_path("/abs/olute"), "/abs/olute");
    EXPECT_EQ(host::resolve_path("sub" + home() + "/x"), home() + "/sub/x");
}

TEST_F(CommandLineTest, PortOutsideTheUserRangeIsCorrectedNotRejected) {
    for (auto [given, kept] : std::vector<std::pair<std::string, uint32_t>>{
             {"49152", 8081}, {"1024", 1024}, {"49151", 49151}, {"abc", 8081}, {"1023", 8081}}) {
        config_.reset();
        EXPECT_TRUE(parse({"--mode", "debug", "--port", given}).proceed) << given;
        EXPECT_EQ(config_.port, kept) << given;
        EXPECT_EQ(printed("[Set Up] Bad configuration, incorrect port number "), kept == 8081)
            << given;
    }
    EXPECT_TRUE(
        printed("[Set Up] Bad configuration, incorrect port number 1023, using default "
                "port 8081 instead"));
}

TEST_F(CommandLineTest, HostInterfaceAndDatabaseAreValidated) {
    write_file(dir_.file("plain"), "x");  // a folder cannot be made below a file
    struct Case {
        std::vector<std::string> words;
        bool proceed;
        std::string message;
    };
    const std::vector<Case> cases = {
        {{"--host", "localhost"}, true, ""},
        {{"--host", "::1"}, false, "[Set Up] Invalid host address '::1'"},
        // The message names the last option argument the parser handled, not the host.
        {{"--host", "10.0.0.300", "--mode", "debug"},
         false,
         "[Set Up] Invalid host address 'debug'"},
        {{"--interface", "nosuch0"},
         false,
         "[Set Up] Invalid interface 'nosuch0'. Unable to start 'nosuch0'"},
        {{"--interface", "lo"}, true, ""},
        {{"--interface", "LO"}, false, "[Set Up] Invalid interface 'LO'"},
        {{"--interface", "nosuch0", "--host", "127.0.0.1"}, true, ""},
        {{"--database", "/tmp/x.DB"}, false, ""},
        {{"--database", "/tmp/x.sqlite"}, false, ""},
        {{"--database", dir_.file("plain") + "/sub/x.db"},
         false,
         "[Set Up] Server failed to start. Unable to create database file at '" +
             dir_.file("plain") + "/sub/x.db'"},
    };
    for (Case test : cases) {
        config_.reset();
        if (test.words.size() == 2) test.words.insert(test.words.begin(), {"--mode", "debug"});
        EXPECT_EQ(parse(test.words).proceed, test.proceed) << test.words[1];
        EXPECT_TRUE(printed(test.message)) << test.words[1] << ": " << printed_;
        EXPECT_TRUE(test.words[3] != "localhost" || config_.host == "127.0.0.1");
        EXPECT_TRUE(test.words[3] != "lo" || config_.host.empty());
    }
}

TEST_F(CommandLineTest, OptionQuirksAndExitCodes) {
    CommandLineResult help = parse({"-h", "foo"});
    EXPECT_EQ(help.exit_code, 0);
    EXPECT_TRUE(printed("Usage:\n centralized-server <options> --mode <mode>\n"));

    CommandLineResult bare_help = parse({"-h"});
    EXPECT_EQ(bare_help.exit_code, -1);
    EXPECT_TRUE(printed("[Set Up] Unrecognized option. Unable to continue\nCentralized Server"));

    EXPECT_EQ(parse({"--help", "--mode", "Start"}).exit_code, 0);
    EXPECT_EQ(parse({"--version"}).exit_code, 0);
    EXPECT_EQ(printed_, "centralizedserver v.2019.03.25\n");

    EXPECT_EQ(parse({"-r", "x"}).exit_code, 0);
    EXPECT_EQ(printed_, "[Set Up] Unknown option -'114': Exiting\n");

    EXPECT_EQ(parse({"--mode", "Start"}).exit_code, -1);
    EXPECT_TRUE(printed("[Set Up] Invalid run mode 'Start', unable to continue"));
    EXPECT_EQ(config_.mode, "invalid");

    EXPECT_EQ(parse({"--nosuch"}).exit_code, -1);
    EXPECT_EQ(parse({"--capture-path"}).exit_code, -1);  // missing argument

    config_.reset();
    EXPECT_TRUE(parse({"--mode", "debug", "--loglevel", "trace", "--from-manager"}).proceed);
    EXPECT_EQ(config_.loglevel, 9u);
}

TEST_F(CommandLineTest, ConfigFileResetsEarlierOptionsAndLaterOptionsWin) {
    std::string file = dir_.file("x.yml");
    write_file(file, "general:\n  mode: daemon\nserver:\n  host: 127.0.0.1\n");

    EXPECT_TRUE(parse({"--mode", "start", "--port", "9000", "--config", file}).proceed);
    EXPECT_EQ(config_.mode, "daemon");
    EXPECT_EQ(config_.port, 8081u);
    EXPECT_TRUE(config_.loaded_from_file);
    EXPECT_EQ(config_.config_file, file);

    config_.reset();
    EXPECT_TRUE(parse({"--config", file, "--mode", "start", "--port", "9000"}).proceed);
    EXPECT_EQ(config_.mode, "start");
    EXPECT_EQ(config_.port, 9000u);
}

TEST_F(CommandLineTest, YamlFileErrorsEndWithTheirMessages) {
    EXPECT_EQ(parse({"--config", dir_.file("missing.yml")}).exit_code, -1);
    EXPECT_TRUE(printed("[Config Load] File at '" + dir_.file("missing.yml") +
                        "' does not exist or can't be open"));
    EXPECT_TRUE(printed("[Set Up] Your current configuration file (" + dir_.file("missing.yml") +
                        ") does not exist or the yaml is wrong"));

    write_file(dir_.file("broken.yml"), "general: [unclosed\n");
    EXPECT_EQ(parse({"--config", dir_.file("broken.yml")}).exit_code, -1);
    EXPECT_TRUE(printed("[Config Load] Error reading config file at '" + dir_.file("broken.yml") +
                        "', is your config ok?"));

    write_file(dir_.file("badbool.yml"), "server:\n  bindall: maybe\n");
    EXPECT_EQ(parse({"--config", dir_.file("badbool.yml")}).exit_code, -1);

    write_file(dir_.file("badmode.yml"), "general:\n  mode: Debug\n");
    EXPECT_EQ(parse({"--config", dir_.file("badmode.yml")}).exit_code, -1);
}

TEST_F(CommandLineTest, YamlWithoutServerSectionBindsToAll) {
    write_file(dir_.file("x.yml"), "general:\n  captures: caps\n  loglevel: debug\n");
    EXPECT_TRUE(parse({"--config", dir_.file("x.yml")}).proceed);
    EXPECT_TRUE(printed("[Config Load] No server configuration found, binding to all as default"));
    EXPECT_TRUE(config_.bindall);
    EXPECT_EQ(config_.host, "");
    EXPECT_EQ(config_.mode, "start");
    EXPECT_EQ(config_.loglevel, 6u);
    EXPECT_EQ(config_.capture_path, home() + "/caps/captures");
}

TEST_F(CommandLineTest, SecuritySectionSetsLimitsPathsAndCredentials) {
    write_file(dir_.file("x.yml"),
               "server:\n  host: 127.0.0.1\nsecurity:\n  capture_folders: [old, /srv/caps]\n"
               "  static_root: web\n  max_connections: 10\n  worker_threads: 0\n"
               "  tls_certificate: tls/c.pem\n  tls_key: /etc/k.pem\n  bearer_token: t\n");
    EXPECT_TRUE(parse({"--config", dir_.file("x.yml")}).proceed);
    const SecuritySettings& security = config_.security;
    EXPECT_EQ(security.capture_folders, (std::vector<std::string>{home() + "/old", "/srv/caps"}));
    EXPECT_EQ(security.static_root, home() + "/web");
    EXPECT_EQ(security.max_connections, 10u);
    EXPECT_EQ(security.worker_threads, 1u);  // at least one
    EXPECT_TRUE(security.tls());
    EXPECT_EQ(security.tls_certificate, home() + "/tls/c.pem");
    EXPECT_TRUE(security.authentication());
    // The owned folders: the derived capture and analysis folders, then the configured ones.
    EXPECT_EQ(config_.owned_capture_folders(),
              (std::vector<std::string>{config_.capture_path, config_.analyze_capture_path,
                                        home() + "/old", "/srv/caps"}));

    // Every security setting goes back to its default with the rest of the record.
    config_.reset();
    EXPECT_TRUE(config_.security.capture_folders.empty());
    EXPECT_FALSE(config_.security.tls());
    EXPECT_FALSE(config_.security.authentication());
    EXPECT_EQ(config_.security.connection_timeout, 30u);

    write_file(dir_.file("bad.yml"), "security:\n  max_json_body: lots\n");
    EXPECT_EQ(parse({"--config", dir_.file("bad.yml")}).exit_code, -1);
    EXPECT_TRUE(printed("[Config Load] Error reading config file"));
}

TEST_F(CommandLineTest, WrittenCopyLoadsBackToTheSameSettings) {
    ASSERT_TRUE(parse({"--mode", "daemon", "--host", "127.0.0.1", "--port", "9100", "--loglevel",
                       "info", "--interface", "lo"})
                    .proceed);
    std::string copy = dir_.file("latest_config.yml");
    ASSERT_EQ(config_.write_yaml(copy), 0);

    Configuration reloaded;
    reloaded.reset();
    reloaded.config_file = copy;
    ASSERT_TRUE(reloaded.load_yaml());
    EXPECT_EQ(reloaded.mode, "daemon");
    EXPECT_EQ(reloaded.host, "127.0.0.1");
    EXPECT_EQ(reloaded.port, 9100u);
    EXPECT_EQ(reloaded.loglevel, 3u);
    EXPECT_EQ(reloaded.captures, config_.captures);
    EXPECT_EQ(reloaded.database, config_.database);

    EXPECT_NE(config_.write_yaml(dir_.file("no/such/folder/latest_config.yml")), 0);
}

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
