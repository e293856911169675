// libFuzzer target for the HTTP request readers: the query arguments and JSON bodies of the
// endpoints, through their handlers, against a database held in memory. The first byte picks
// the endpoint; the rest is a query string ("key=value&...", taken as decoded) or a body.
// Every input must end in a reply, never in a crash, a hang or a file outside the test's folder.
#include <sqlite3.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <exception>
#include <map>
#include <optional>
#include <string>

#include "database/vistreldatabase.h"
#include "http/captureindexendpoints.h"
#include "session/devicerequests.h"
#include "session/startrequest.h"
#include "startup/configuration.h"
#include "startup/logger.h"

namespace {

using vistrel::configuration;
using vistrel::http::QueryArguments;

// Kept open for the whole run: the shared in-memory database lives as long as one connection.
sqlite3* g_keeper = nullptr;

void set_up() {
    sqlite3_config(SQLITE_CONFIG_URI, 1);
    vistrel::logger().set_level(0);
    char folder[] = "/tmp/vistrel-fuzz-XXXXXX";
    if (mkdtemp(folder) == nullptr) std::abort();
    configuration().database = "file:vistrel-fuzz?mode=memory&cache=shared";
    configuration().capture_path = folder;
    configuration().analyze_capture_path = folder;
    sqlite3_open(configuration().database.c_str(), &g_keeper);
    vistrel::database::VistrelDatabase().create_schema();
}

std::map<std::string, std::string> query_arguments(const std::string& text) {
    std::map<std::string, std::string> arguments;
    size_t at = 0;
    while (at <= text.size()) {
        size_t end = text.find('&', at);
        if (end == std::string::npos) end = text.size();
        std::string pair = text.substr(at, end - at);
        size_t equals = pair.find('=');
        if (equals != std::string::npos)
            arguments[pair.substr(0, equals)] = pair.substr(equals + 1);
        at = end + 1;
    }
    return arguments;
}

QueryArguments lookup(std::map<std::string, std::string> arguments) {
    return
        [arguments = std::move(arguments)](const std::string& key) -> std::optional<std::string> {
            auto found = arguments.find(key);
            if (found == arguments.end()) return std::nullopt;
            return found->second;
        };
}

// Runs one endpoint's reader or handler on the text.
void dispatch(uint8_t selector, const std::string& text) {
    namespace http = vistrel::http;
    namespace session = vistrel::session;
    switch (selector % 11) {
        case 0:
            http::handle_add_file(lookup(query_arguments(text)));
            break;
        case 1:
            http::handle_cleanup(lookup(query_arguments(text)));
            break;
        case 2: {
            // Never a real search server: a closed loopback port stands for it.
            auto arguments = query_arguments(text);
            arguments["es_addr"] = "http://127.0.0.1:9";
            http::handle_cleanup_elasticsearch(lookup(arguments));
            break;
        }
        case 3:
            http::handle_search(text);
            break;
        case 4: {
            session::StartRequest request;
            session::read_start_request(text, (selector & 0x80) != 0, request);
            break;
        }
        case 5:
            session::read_restart_request(text);
            break;
        case 6:
            session::read_restore_request(text);
            break;
        case 7:
            session::read_firmware_status_request(text);
            break;
        case 8:
            session::read_save_request(text);
            break;
        case 9:
            session::read_time_request(text);
            break;
        default:
            session::read_firmware_request(text);
            break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool ready = (set_up(), true);
    (void)ready;
    if (size == 0) return 0;
    const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
    // The readers throw on an unusable document: their endpoints catch that and answer 400.
    try {
        dispatch(data[0], text);
    } catch (const std::exception&) {
    }
    return 0;
}
