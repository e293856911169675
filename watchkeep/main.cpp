// watchkeep: the capture engine. Captures network interfaces, takes the files of capture
// devices or analyses a file, registers every finished file with the server and indexes the
// traffic into Elasticsearch, until a STOP line or the end of its standard input.
#include <curl/curl.h>
#include <signal.h>

#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "arguments.h"
#include "engine.h"
#include "environment.h"
#include "host/paths.h"
#include "startup/logger.h"
#include "stopwaiter.h"

namespace {

using vistrel::watchkeep::ArgumentError;
using vistrel::watchkeep::Engine;
using vistrel::watchkeep::EngineArguments;
using vistrel::watchkeep::EngineEnvironment;
using vistrel::watchkeep::StopWaiter;

// The server kills an engine that is still there 7 s after the stop line.
constexpr std::chrono::milliseconds kStopBudget{4500};
constexpr int kCannotStart = 2;

struct CurlGlobal {
    CurlGlobal() { curl_global_init(CURL_GLOBAL_DEFAULT); }
    ~CurlGlobal() { curl_global_cleanup(); }
};

std::string joined(int argc, char** argv) {
    std::string text;
    for (int i = 0; i < argc; ++i) text += (i ? " " : "") + std::string(argv[i]);
    return text;
}

}  // namespace

int main(int argc, char** argv) {
    EngineArguments arguments;
    EngineEnvironment environment;
    try {
        arguments =
            vistrel::watchkeep::read_arguments(std::vector<std::string>(argv + 1, argv + argc));
        if (arguments.help) {
            std::fputs(vistrel::watchkeep::usage_text().c_str(), stdout);
            return 0;
        }
        environment = vistrel::watchkeep::read_environment();
    } catch (const ArgumentError& error) {
        std::fprintf(stderr, "watchkeep: %s\n", error.what());
        return kCannotStart;
    }

    signal(SIGPIPE, SIG_IGN);
    StopWaiter waiter;  // before any thread: blocks SIGINT and SIGTERM for all of them
    CurlGlobal curl;
    vistrel::logger().open(vistrel::host::temp_folder() + "/watchkeep.log");
    LOG_NORMAL("Started: %s", joined(argc, argv).c_str());
    LOG_NORMAL("Server %s, captures in %s", environment.server_url.c_str(),
               environment.capture_path.c_str());

    const bool analysis = arguments.is_analysis();
    const bool end_when_done = arguments.shutdown_when_done;
    Engine engine(std::move(arguments), std::move(environment));
    try {
        engine.start();
    } catch (const std::exception& error) {
        // A source that cannot be opened, or the system refusing a descriptor or a thread.
        LOG_ERROR("Cannot start: %s", error.what());
        std::fprintf(stderr, "watchkeep: %s\n", error.what());
        return kCannotStart;
    }
    const std::string reason =
        waiter.wait(analysis && end_when_done ? engine.analysis_done_fd() : -1);
    LOG_NORMAL("Stopping: %s", reason.c_str());
    const bool complete = engine.stop(kStopBudget);
    LOG_NORMAL("Stopped");
    return complete ? 0 : 1;
}
