// The engine reads exactly what the server writes: command lines built by the server's own
// builder, split as the server splits them.
#include <gtest/gtest.h>
#include <stdlib.h>

#include "arguments.h"
#include "engine/commandline.h"
#include "environment.h"
#include "support/temp_dir.h"

namespace vistrel::watchkeep {
namespace {

std::vector<std::string> after_program(const std::string& command_line) {
    std::vector<std::string> argv = engine::split_command_line(command_line);
    return {argv.begin() + 1, argv.end()};
}

TEST(WatchkeepArguments, LiveCommandOfTheServer) {
    engine::EngineOptions options;
    options.es_host = "127.0.0.1";
    options.es_port = "9201";
    options.dns_mode_flag = true;
    options.pkt_stats_flag = true;
    engine::EngineDevice left{"left", "/data/caps/left", 60, 10, true, 0};
    engine::EngineDevice right{"right", "/data/caps/right", 30, 0, false, 0};
    EngineArguments arguments =
        read_arguments(after_program(engine::live_command_line({left, right}, {"lo"}, &options)));

    ASSERT_EQ(arguments.devices.size(), 2u);
    EXPECT_EQ(arguments.devices[0].name, "left");
    EXPECT_EQ(arguments.devices[0].folder, "/data/caps/left");
    EXPECT_EQ(arguments.devices[0].capture_time, 60);
    EXPECT_EQ(arguments.devices[0].max_files, 10);
    EXPECT_TRUE(arguments.devices[0].index_traffic);
    EXPECT_FALSE(arguments.devices[1].index_traffic);
    EXPECT_EQ(arguments.interfaces, std::vector<std::string>{"lo"});
    EXPECT_EQ(arguments.bulk_url, "http://127.0.0.1:9201/_bulk");
    EXPECT_EQ(arguments.flows_index, "vistrel");
    // A device with its flag off drops the HTTP index for the whole capture.
    EXPECT_EQ(arguments.http_index, "");
    EXPECT_EQ(arguments.dns_mode, 1);
    EXPECT_FALSE(arguments.arp_records);
    EXPECT_TRUE(arguments.packet_statistics);
    EXPECT_FALSE(arguments.shutdown_when_done);
    EXPECT_FALSE(arguments.is_analysis());
}

TEST(WatchkeepArguments, AnalysisCommandOfTheServer) {
    testing::TempDir folder;
    const std::string file = folder.file("trace one.pcapng");
    testing::write_file(file, "");
    engine::EngineOptions options;
    options.flows_index = "flows";
    options.http_index = "web";
    EngineArguments arguments =
        read_arguments(after_program(engine::analysis_command_line(file, &options)));
    EXPECT_EQ(arguments.files, std::vector<std::string>{file});
    EXPECT_TRUE(arguments.interfaces.empty());
    EXPECT_EQ(arguments.flows_index, "flows");
    EXPECT_EQ(arguments.http_index, "web");
    EXPECT_EQ(arguments.dns_mode, 1);
    EXPECT_TRUE(arguments.arp_records);
    EXPECT_TRUE(arguments.packet_statistics);
    EXPECT_TRUE(arguments.shutdown_when_done);
    EXPECT_TRUE(arguments.is_analysis());
    EXPECT_TRUE(read_arguments({"--help"}).help);
}

TEST(WatchkeepArguments, WhatCannotBeReadIsRefusedWithItsReason) {
    testing::TempDir folder;
    testing::write_file(folder.file("a.pcap"), "");
    const std::string flows = "--dump-flows=es;t;v;http://127.0.0.1:9200/_bulk;";
    struct Case {
        std::vector<std::string> arguments;
        std::string reason;
    };
    const std::vector<Case> cases = {
        {{"/c", "--interface", "lo", flows, "--verbose"}, "unknown argument '--verbose'"},
        {{"/c", "--interface", "lo", "--dump-flows"}, "--dump-flows needs a value"},
        {{"/c", "--interface", "lo"}, "--dump-flows is required"},
        {{"/c", flows}, "nothing to capture"},
        {{"--interface", "lo", "/c", flows}, "unknown argument '/c'"},
        {{"--interface", "lo", "--dump-flows", "es;t;v;ftp://x/_bulk;"}, "--dump-flows wants"},
        {{"--interface", "lo", "--dump-flows", "es;t;http://x/_bulk;"}, "--dump-flows wants"},
        {{"--interface", "lo", flows, "--dns-mode", "7"}, "--dns-mode must be 0 to 3"},
        {{"--interface", "lo", flows, "--http-tidewell-index", "es;;x"}, "--http-tidewell-index"},
        {{"-P", "left;/caps/left;60;10", flows}, "-P wants"},
        {{"-P", "left;/caps/left;sixty;10;1", flows}, "-P capture time is not a number"},
        {{"-P", "left;/caps/left;60;10;2", flows}, "index flag must be 0 or 1"},
        {{"-P", "a/b;/caps/left;60;10;1", flows}, "bad device name"},
        {{"--interface", "/no/such/file.pcap", flows}, "No such file or directory"},
        {{"--interface", "/tmp", flows}, "not a regular file"},
        {{"--interface", "", flows}, "--interface needs"},
        {{"--interface", folder.file("a.pcap"), "--interface", "lo", flows},
         "cannot be analysed together with live sources"},
    };
    for (const auto& test : cases) {
        try {
            read_arguments(test.arguments);
            ADD_FAILURE() << "accepted: " << test.arguments.back();
        } catch (const ArgumentError& error) {
            EXPECT_NE(std::string(error.what()).find(test.reason), std::string::npos)
                << error.what();
            EXPECT_EQ(std::string(error.what()).find('\n'), std::string::npos);
        }
    }
}

TEST(WatchkeepEnvironment, DefaultsAndValues) {
    unsetenv("VISTREL_SERVER_URL");
    unsetenv("VISTREL_CAPTURE_PATH");
    unsetenv("VISTREL_FILE_SECONDS");
    setenv("HOME", "/home/someone", 1);
    EngineEnvironment defaults = read_environment();
    EXPECT_EQ(defaults.server_url, "http://localhost:8081");
    EXPECT_EQ(defaults.capture_path, "/home/someone/Documents/Vistrel/captures");
    EXPECT_EQ(defaults.file_seconds, 60);
    EXPECT_EQ(defaults.spool_folder(), "/home/someone/Documents/Vistrel/captures/.watchkeep-spool");

    setenv("VISTREL_SERVER_URL", "http://127.0.0.1:9000/", 1);
    setenv("VISTREL_CAPTURE_PATH", "/srv/caps/", 1);
    setenv("VISTREL_FILE_SECONDS", "5", 1);
    EngineEnvironment given = read_environment();
    EXPECT_EQ(given.server_url, "http://127.0.0.1:9000");
    EXPECT_EQ(given.capture_path, "/srv/caps");
    EXPECT_EQ(given.file_seconds, 5);

    for (const char* bad : {"0", "-3", "ten", "5s"}) {
        setenv("VISTREL_FILE_SECONDS", bad, 1);
        EXPECT_THROW(read_environment(), ArgumentError) << bad;
    }
    setenv("VISTREL_FILE_SECONDS", "5", 1);
    setenv("VISTREL_SERVER_URL", "localhost:8081", 1);
    EXPECT_THROW(read_environment(), ArgumentError);
    unsetenv("VISTREL_SERVER_URL");
    unsetenv("VISTREL_CAPTURE_PATH");
    unsetenv("VISTREL_FILE_SECONDS");
}

}  // namespace
}  // namespace vistrel::watchkeep
