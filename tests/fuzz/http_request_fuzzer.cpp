// libFuzzer target for the HTTP request readers: the query arguments and JSON bodies of the
// endpoints, through their handlers, against a database held in memory. The first byte picks
// the endpoint; the rest is a query string ("key=value&...", taken as decoded) or a body.
// Every input must end in a reply, never in a crash, a hang or a file outside the test's folder.
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iterator>
#include <map>
#include <optional>
#include <string>

#include "database/vistreldatabase.h"
#include "fuzzharness.h"
#include "http/captureindexendpoints.h"
#include "session/devicerequests.h"
#include "session/startrequest.h"
#include "startup/configuration.h"

namespace {

using vistrel::configuration;
using vistrel::http::QueryArguments;

// Kept open for the whole run: the shared in-memory database lives as long as one connection.
sqlite3* g_keeper = nullptr;
// The run's folder for files the handlers may write; removed when the run ends.
std::string g_folder;

void set_up() {
    sqlite3_config(SQLITE_CONFIG_URI, 1);
    vistrel::fuzz::quiet();
    char folder[] = "/tmp/vistrel-fuzz-XXXXXX";
    FUZZ_CHECK(mkdtemp(folder) != nullptr);
    g_folder = folder;
    std::atexit([] { std::filesystem::remove_all(g_folder); });
    configuration().database = "file:vistrel-fuzz?mode=memory&cache=shared";
    configuration().capture_path = g_folder;
    configuration().analyze_capture_path = g_folder;
    sqlite3_open(configuration().database.c_str(), &g_keeper);
    vistrel::database::VistrelDatabase().create_schema();
}

// A query string ("key=value&...") as the handlers see it; `es_addr`, when given, replaces the
// sent address.
QueryArguments query_arguments(const std::string& text, const char* es_addr = nullptr) {
    std::map<std::string, std::string> arguments;
    for (size_t at = 0; at <= text.size();) {
        const size_t end = std::min(text.find('&', at), text.size());
        const std::string pair = text.substr(at, end - at);
        const size_t equals = pair.find('=');
        if (equals != std::string::npos)
            arguments[pair.substr(0, equals)] = pair.substr(equals + 1);
        at = end + 1;
    }
    if (es_addr) arguments["es_addr"] = es_addr;
    return [arguments](const std::string& key) -> std::optional<std::string> {
        auto found = arguments.find(key);
        if (found == arguments.end()) return std::nullopt;
        return found->second;
    };
}

namespace http = vistrel::http;
namespace session = vistrel::session;

// The endpoints' readers, chosen by the first byte; its top bit is the start reader's
// require_devices.
using Text = const std::string&;
void (*const kReaders[])(Text, uint8_t) = {
    [](Text text, uint8_t) { http::handle_add_file(query_arguments(text)); },
    [](Text text, uint8_t) { http::handle_cleanup(query_arguments(text)); },
    // Never a real search server: a closed loopback port stands for it.
    [](Text text, uint8_t) {
        http::handle_cleanup_elasticsearch(query_arguments(text, "http://127.0.0.1:9"));
    },
    [](Text text, uint8_t) { http::handle_search(text); },
    [](Text text, uint8_t selector) {
        session::StartRequest request;
        session::read_start_request(text, (selector & 0x80) != 0, request);
    },
    [](Text text, uint8_t) { session::read_restart_request(text); },
    [](Text text, uint8_t) { session::read_restore_request(text); },
    [](Text text, uint8_t) { session::read_firmware_status_request(text); },
    [](Text text, uint8_t) { session::read_save_request(text); },
    [](Text text, uint8_t) { session::read_time_request(text); },
    [](Text text, uint8_t) { session::read_firmware_request(text); },
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool ready = (set_up(), true);
    (void)ready;
    if (size == 0) return 0;
    const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
    // The readers throw on an unusable document: their endpoints catch that and answer 400.
    try {
        kReaders[data[0] % std::size(kReaders)](text, data[0]);
    } catch (const std::exception&) {
    }
    return 0;
}
