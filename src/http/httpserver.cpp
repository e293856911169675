#include "http/httpserver.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <atomic>
#include <cstring>
#include <exception>
#include <mutex>
#include <optional>
#include <string>

#include "devices/deviceregistry.h"
#include "engine/engineresult.h"
#include "host/disk.h"
#include "host/paths.h"
#include "http/binding.h"
#include "http/connectionrecord.h"
#include "http/pages.h"
#include "http/routes.h"
#include "metrics/servermetrics.h"
#include "session/replies.h"
#include "startup/configuration.h"
#include "startup/logger.h"

namespace vistrel::http {

namespace {

// Multipart uploads in progress. Checked and counted in two steps, so the limit is approximate
// under simultaneous first calls; atomic only so that the count itself stays exact.
std::atomic<uint32_t> g_uploads{0};
constexpr uint32_t kMaxUploads = 2;
constexpr int64_t kUploadSpace = 2147483648LL;

// The first call of an upload: admission, then the post processor. MHD_NO closes the
// connection; a queued refusal leaves the slot empty.
MHD_Result admit_upload(MHD_Connection* connection, ConnectionRecord* record, bool& refused) {
    refused = false;
    // The session's reply under the upload's command text: code 3 (busy) or 6 (disk).
    auto refuse = [&](const char* message, uint32_t code, int status) {
        refused = true;
        metrics::count_request("POST", "/analyzeCapture", status, 0);
        delete record;
        return send_text(connection, session::message_document(message, "AnalyzeCapture", code),
                         status);
    };
    if (engine::WatchkeepProcess::is_running()) {
        LOG_WARNING("Watchkeep is already running");
        return refuse("Vistrel is busy with another analysis, please retry later",
                      engine::kEngineAlreadyRunning, 503);
    }
    if (g_uploads > kMaxUploads - 1) {
        LOG_WARNING("Max number of uploaders reached");
        return refuse("Vistrel is busy with another analysis, please retry later",
                      engine::kEngineAlreadyRunning, 503);
    }
    // Measured under the profile's own Vistrel folder, whatever upload folder is configured.
    if (host::free_space(host::profile_folder() + "/Documents/Vistrel/analyzed_captures") <
        kUploadSpace) {
        LOG_WARNING("Low disk space");
        return refuse("Low disk space, (min 2GB)", engine::kEngineNotExecuted, 507);
    }
    LOG_NORMAL("Request for url: '%s'", "/analyzeCapture");
    record->post_processor =
        MHD_create_post_processor(connection, 512, upload_iterator, &record->upload);
    if (record->post_processor == nullptr) {
        delete record;
        return MHD_NO;
    }
    LOG_NORMAL("Iteratepost postprocessor made");
    ++g_uploads;
    metrics::uploads_in_flight().add(1);
    LOG_NORMAL("Number of uploading clients increased to: %u", g_uploads.load());
    return MHD_YES;
}

std::unique_ptr<HttpServer> g_server;
std::mutex g_server_creation;

bool is_polled_url(const std::string& url) {
    // A monitoring system scrapes /metrics every few seconds.
    return url == "/getCMStatus" || url == "/getTidewells" || url == "/info" ||
           url == "/analyzeCapture" || url == "/metrics";
}

QueryArguments arguments_of(MHD_Connection* connection) {
    return [connection](const std::string& key) -> std::optional<std::string> {
        const char* value =
            MHD_lookup_connection_value(connection, MHD_GET_ARGUMENT_KIND, key.c_str());
        if (value == nullptr) return std::nullopt;
        return std::string(value);
    };
}

// Metric labels: the route that answers the URL, never the URL itself, so that clients cannot
// grow the label sets.
std::string method_label(const std::string& method) {
    for (const char* known : {"GET", "POST", "OPTIONS", "HEAD", "PUT", "DELETE"}) {
        if (method == known) return method;
    }
    return "other";
}

// The first GET route that serves `url`; null when none does.
const GetRoute* find_get_route(const std::string& url) {
    for (const GetRoute& route : get_routes()) {
        bool matches =
            route.match_anywhere ? url.find(route.path) != std::string::npos : url == route.path;
        if (matches && route.handler) return &route;
    }
    return nullptr;
}

std::string endpoint_label(const std::string& method, const std::string& url) {
    if (method == "POST") {
        for (const PostRoute& route : post_routes()) {
            if (url == route.path) return route.path;
        }
    } else if (method == "GET") {
        if (const GetRoute* route = find_get_route(url)) return route->path;
    }
    return "other";
}

MHD_Result dispatch_get(MHD_Connection* connection, const std::string& url) {
    const GetRoute* route = find_get_route(url);
    if (route == nullptr) {
        return send_html_page(connection, "Error : Unknown request " + url, false, 404);
    }
    QueryArguments arguments = arguments_of(connection);
    try {
        return route->handler(GetRequest{connection, url, arguments});
    } catch (const std::exception& error) {
        return send_html_page(connection, error.what(), false, 500);
    }
}

// True when the client is this machine: its address is loopback or the configured host.
bool is_local_client(MHD_Connection* connection) {
    const MHD_ConnectionInfo* info =
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
    if (info == nullptr || info->client_addr == nullptr) return false;
    std::string text;
    if (info->client_addr->sa_family == AF_INET) {
        char buffer[22] = {0};
        const auto* address = reinterpret_cast<const sockaddr_in*>(info->client_addr);
        inet_ntop(AF_INET, &address->sin_addr, buffer, sizeof buffer);
        text = buffer;
    } else if (info->client_addr->sa_family == AF_INET6) {
        char buffer[65] = {0};
        const auto* address = reinterpret_cast<const sockaddr_in6*>(info->client_addr);
        inet_ntop(AF_INET6, &address->sin6_addr, buffer, sizeof buffer);
        text = buffer;
    }
    return text == "localhost" || text == "127.0.0.1" || text == configuration().host;
}

MHD_Result dispatch_post(MHD_Connection* connection, const std::string& url,
                         ConnectionRecord& record) {
    for (const PostRoute& route : post_routes()) {
        if (url != route.path || !route.handler) continue;
        Reply reply;
        try {
            reply = route.handler(
                PostRequest{connection, url, record.body, record, is_local_client(connection)});
        } catch (const std::exception& error) {
            return send_text(connection, error.what(), 500);
        }
        return send_text(connection, reply.text, reply.status);
    }
    return send_text(connection, "Error : Unknown request " + url, 400);
}

MHD_Result handle_request(MHD_Connection* connection, const char* url_text, const char* method_text,
                          const char* upload_data, size_t* upload_data_size, void** slot) {
    const std::string url = url_text != nullptr ? url_text : "";
    const std::string method = method_text != nullptr ? method_text : "";
    // Every call is logged; the polled URLs and upload chunks only at debug level.
    if (is_polled_url(url)) {
        LOG_DEBUG("Request for url: '%s'", url.c_str());
    } else {
        LOG_NORMAL("Request for url: '%s'", url.c_str());
    }
    if (*slot == nullptr) {
        // libmicrohttpd owns the record through the slot until the completion callback.
        auto* record = new (std::nothrow) ConnectionRecord();
        if (record == nullptr) return MHD_NO;
        record->type =
            method == "POST" ? ConnectionRecord::Type::kPost : ConnectionRecord::Type::kGet;
        record->method_label = method_label(method);
        record->endpoint_label = endpoint_label(method, url);
        record->started = std::chrono::steady_clock::now();
        if (method == "POST" && url == "/analyzeCapture") {
            bool refused = false;
            MHD_Result result = admit_upload(connection, record, refused);
            if (refused || result == MHD_NO) return result;
        }
        *slot = record;
        return MHD_YES;
    }
    auto* record = static_cast<ConnectionRecord*>(*slot);
    if (method != "POST" && *upload_data_size != 0) {
        // Only POST bodies mean something; others are read and dropped before the answer.
        *upload_data_size = 0;
        return MHD_YES;
    }
    if (method == "GET") return dispatch_get(connection, url);
    if (method == "OPTIONS") return send_text(connection, "Method OPTIONS is not supported", 400);
    if (method != "POST") return send_text(connection, "Error : Unknown request", 400);

    if (*upload_data_size != 0) {
        if (record->post_processor != nullptr) {
            // A refusal of the iterator is kept in the upload state and answered at the end.
            MHD_post_process(record->post_processor, upload_data, *upload_data_size);
        } else {
            record->body.append(upload_data, *upload_data_size);
        }
        *upload_data_size = 0;
        return MHD_YES;
    }
    if (url == "/analyzeCapture" && record->upload.close_file()) LOG_NORMAL("Closed upload file");
    return dispatch_post(connection, url, *record);
}

// No exception may cross into libmicrohttpd: whatever escapes the dispatch (a body too large
// for memory, a handler throwing something that is not a standard exception) closes the
// connection instead of ending the process.
MHD_Result access_handler(void*, MHD_Connection* connection, const char* url_text,
                          const char* method_text, const char*, const char* upload_data,
                          size_t* upload_data_size, void** slot) {
    try {
        return handle_request(connection, url_text, method_text, upload_data, upload_data_size,
                              slot);
    } catch (const std::exception& error) {
        LOG_ERROR("Request for url '%s' failed: %s", url_text != nullptr ? url_text : "",
                  error.what());
    } catch (...) {
        LOG_ERROR("Request for url '%s' failed", url_text != nullptr ? url_text : "");
    }
    return MHD_NO;
}

void count_completed(MHD_Connection* connection, const ConnectionRecord& record) {
    const MHD_ConnectionInfo* info =
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_HTTP_STATUS);
    const int status = info != nullptr ? static_cast<int>(info->http_status) : 0;
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - record.started;
    metrics::count_request(record.method_label, record.endpoint_label, status, elapsed.count());
}

void request_completed(void*, MHD_Connection* connection, void** slot, MHD_RequestTerminationCode) {
    auto* record = static_cast<ConnectionRecord*>(*slot);
    if (record == nullptr) return;
    count_completed(connection, *record);
    if (record->post_processor != nullptr) {
        MHD_destroy_post_processor(record->post_processor);
        record->post_processor = nullptr;
        LOG_NORMAL("Destroyed postprocessor");
        --g_uploads;
        metrics::uploads_in_flight().add(-1);
        LOG_NORMAL("Number of uploading clients decreased to: %u", g_uploads.load());
    }
    // Still open here means the last chunk never came: the stored file is incomplete.
    if (record->upload.discard_file()) LOG_NORMAL("Request completed: Closed upload file");
    delete record;
    *slot = nullptr;
}

}  // namespace

HttpServer::HttpServer()
    : firmware_updater_(std::make_unique<devices::TidewellFirmwareUpdater>()),
      engine_(std::make_unique<engine::WatchkeepProcess>()),
      session_(std::make_unique<session::VistrelSession>(*engine_)) {}

HttpServer::~HttpServer() {
    LOG_NORMAL("Finishing server...");
    firmware_updater_.reset();
    if (devices::uninitialise() != 0) LOG_ERROR("Failed to cleanup Tidewell API");
    stop_daemon();
    session_.reset();
    engine_.reset();
}

int HttpServer::start() {
    if (daemon_ != nullptr) return kAlreadyRunning;
    Configuration& config = configuration();
    std::optional<sockaddr_storage> address = choose_listen_address(config);
    const unsigned flags =
        MHD_USE_ERROR_LOG | MHD_USE_THREAD_PER_CONNECTION | MHD_USE_INTERNAL_POLLING_THREAD;
    const uint16_t port = static_cast<uint16_t>(config.port & 0xFFFF);
    if (address) {
        daemon_ = MHD_start_daemon(flags, port, nullptr, nullptr, &access_handler, nullptr,
                                   MHD_OPTION_NOTIFY_COMPLETED, &request_completed, nullptr,
                                   MHD_OPTION_SOCK_ADDR, reinterpret_cast<sockaddr*>(&*address),
                                   MHD_OPTION_END);
    } else {
        daemon_ = MHD_start_daemon(flags, port, nullptr, nullptr, &access_handler, nullptr,
                                   MHD_OPTION_NOTIFY_COMPLETED, &request_completed, nullptr,
                                   MHD_OPTION_END);
    }
    if (daemon_ == nullptr) return kDaemonFailed;
    LOG_NORMAL("Using Port number: %d", static_cast<int>(config.port));
    return kListening;
}

void HttpServer::stop_daemon() {
    if (daemon_ != nullptr) {
        MHD_stop_daemon(daemon_);
        daemon_ = nullptr;
    }
}

HttpServer& HttpServer::instance() {
    std::lock_guard<std::mutex> lock(g_server_creation);
    if (!g_server) g_server = std::make_unique<HttpServer>();
    return *g_server;
}

void HttpServer::destroy() {
    std::lock_guard<std::mutex> lock(g_server_creation);
    g_server.reset();
}

}  // namespace vistrel::http
