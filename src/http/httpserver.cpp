#include "http/httpserver.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/resource.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <iterator>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "devices/deviceregistry.h"
#include "devices/firmwarestash.h"
#include "host/paths.h"
#include "http/authentication.h"
#include "http/binding.h"
#include "http/connectionrecord.h"
#include "http/pages.h"
#include "http/routes.h"
#include "http/uploadendpoint.h"
#include "metrics/servermetrics.h"
#include "startup/configuration.h"
#include "startup/logger.h"

namespace vistrel::http {

namespace {

// Every connection holds a descriptor: the soft limit (often 1,024) is raised to the hard one.
void raise_descriptor_limit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
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
const GetRoute* find_get_route(const HttpServer& server, const std::string& url) {
    for (const GetRoute& route : server.get_routes()) {
        bool matches =
            route.match_anywhere ? url.find(route.path) != std::string::npos : url == route.path;
        if (matches && route.handler) return &route;
    }
    return nullptr;
}

std::string endpoint_label(const HttpServer& server, const std::string& method,
                           const std::string& url) {
    if (method == "POST") {
        for (const PostRoute& route : server.post_routes()) {
            if (url == route.path) return route.path;
        }
    } else if (method == "GET") {
        if (const GetRoute* route = find_get_route(server, url)) return route->path;
    }
    return "other";
}

MHD_Result dispatch_get(const HttpServer& server, MHD_Connection* connection,
                        const std::string& url) {
    const GetRoute* route = find_get_route(server, url);
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

// True when the client connects from a loopback address (127.0.0.0/8 or ::1).
bool is_loopback_client(MHD_Connection* connection) {
    const MHD_ConnectionInfo* info =
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
    if (info == nullptr || info->client_addr == nullptr) return false;
    if (info->client_addr->sa_family == AF_INET) {
        const auto* address = reinterpret_cast<const sockaddr_in*>(info->client_addr);
        return (ntohl(address->sin_addr.s_addr) >> 24) == 127;
    }
    if (info->client_addr->sa_family == AF_INET6) {
        const auto* address = reinterpret_cast<const sockaddr_in6*>(info->client_addr);
        return IN6_IS_ADDR_LOOPBACK(&address->sin6_addr);
    }
    return false;
}

MHD_Result dispatch_post(const HttpServer& server, MHD_Connection* connection,
                         const std::string& url, ConnectionRecord& record) {
    for (const PostRoute& route : server.post_routes()) {
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

// The Content-Length of the request; 0 when absent or unreadable (a chunked body).
uint64_t announced_length(MHD_Connection* connection) {
    const char* text =
        MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_CONTENT_LENGTH);
    if (text == nullptr) return 0;
    char* end = nullptr;
    errno = 0;
    unsigned long long value = std::strtoull(text, &end, 10);
    if (errno == ERANGE) return UINT64_MAX;
    return end != text ? value : 0;
}

// 413 with a plain text; libmicrohttpd closes the connection without reading the rest.
MHD_Result refuse_large_body(MHD_Connection* connection, const std::string& url) {
    LOG_WARNING("Request for url '%s' refused: body larger than %zu bytes", url.c_str(),
                configuration().security.max_json_body);
    return send_text(connection, "Error : Request body too large", 413);
}

MHD_Result handle_request(const HttpServer& server, MHD_Connection* connection,
                          const char* url_text, const char* method_text, const char* upload_data,
                          size_t* upload_data_size, void** slot) {
    const std::string url = url_text != nullptr ? url_text : "";
    const std::string method = method_text != nullptr ? method_text : "";
    // Every call is logged; the polled URLs and upload chunks only at debug level.
    if (is_polled_url(url)) {
        LOG_DEBUG("Request for url: '%s'", url.c_str());
    } else {
        LOG_NORMAL("Request for url: '%s'", url.c_str());
    }
    const SecuritySettings& security = configuration().security;
    if (*slot == nullptr) {
        const char* authorization =
            MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_AUTHORIZATION);
        if (!(security.trust_loopback && is_loopback_client(connection)) &&
            !authorization_accepted(security, authorization != nullptr ? authorization : "")) {
            LOG_WARNING("Request for url '%s' refused: not authenticated", url.c_str());
            return send_unauthorized(connection, security);
        }
        // A JSON body that announces more than the limit is refused before it is read.
        if (method == "POST" && url != "/analyzeCapture" &&
            announced_length(connection) > security.max_json_body) {
            return refuse_large_body(connection, url);
        }
        // libmicrohttpd owns the record through the slot until the completion callback.
        auto* record = new (std::nothrow) ConnectionRecord();
        if (record == nullptr) return MHD_NO;
        record->type =
            method == "POST" ? ConnectionRecord::Type::kPost : ConnectionRecord::Type::kGet;
        record->method_label = method_label(method);
        record->endpoint_label = endpoint_label(server, method, url);
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
    if (method == "GET") return dispatch_get(server, connection, url);
    if (method == "OPTIONS") return send_text(connection, "Method OPTIONS is not supported", 400);
    if (method != "POST") return send_text(connection, "Error : Unknown request", 400);

    if (*upload_data_size != 0) {
        if (record->post_processor != nullptr) {
            // A refusal of the iterator is kept in the upload state and answered at the end.
            MHD_post_process(record->post_processor, upload_data, *upload_data_size);
        } else if (record->body_too_large ||
                   record->body.size() + *upload_data_size > security.max_json_body) {
            // A chunked body that grows past the limit: libmicrohttpd takes no answer in the
            // middle of a body, so the rest is read and dropped, then answered 413.
            record->body_too_large = true;
            std::string().swap(record->body);
        } else {
            record->body.append(upload_data, *upload_data_size);
        }
        *upload_data_size = 0;
        return MHD_YES;
    }
    if (record->body_too_large) return refuse_large_body(connection, url);
    if (url == "/analyzeCapture" && record->upload.close_file()) LOG_NORMAL("Closed upload file");
    return dispatch_post(server, connection, url, *record);
}

// No exception may cross into libmicrohttpd: whatever escapes the dispatch (a body too large
// for memory, a handler throwing something that is not a standard exception) closes the
// connection instead of ending the process.
MHD_Result access_handler(void* server, MHD_Connection* connection, const char* url_text,
                          const char* method_text, const char*, const char* upload_data,
                          size_t* upload_data_size, void** slot) {
    try {
        return handle_request(*static_cast<const HttpServer*>(server), connection, url_text,
                              method_text, upload_data, upload_data_size, slot);
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
    end_upload(*record);
    // Still open here means the last chunk never came: the stored file is incomplete.
    if (record->upload.discard_file()) LOG_NORMAL("Request completed: Closed upload file");
    delete record;
    *slot = nullptr;
}

}  // namespace

HttpServer::HttpServer()
    : firmware_updater_(std::make_unique<devices::TidewellFirmwareUpdater>()),
      engine_(std::make_unique<engine::WatchkeepProcess>()),
      session_(std::make_unique<session::VistrelSession>(*engine_)),
      get_routes_(make_get_routes()),
      post_routes_(make_post_routes()) {
    // Read once here so that a missing or broken catalogue shows in the start-up log; the
    // firmware requests read it afresh.
    std::vector<devices::FirmwareImage> catalogue;
    devices::read_firmware_catalogue(host::firmware_catalogue_path(), catalogue);
}

HttpServer::~HttpServer() {
    firmware_updater_.reset();
    stop_daemon();
    session_.reset();
    engine_.reset();
}

void HttpServer::finish() {
    LOG_NORMAL("Finishing server...");
    firmware_updater_.reset();
    if (devices::uninitialise() != 0) LOG_ERROR("Failed to cleanup Tidewell API");
}

int HttpServer::start() {
    if (daemon_ != nullptr) return kAlreadyRunning;
    Configuration& config = configuration();
    const SecuritySettings& security = config.security;
    std::optional<sockaddr_storage> address = choose_listen_address(config);
    raise_descriptor_limit();
    // epoll: no descriptor ceiling; a pool of threads instead of one per connection, so idle
    // or slow clients cost a descriptor each, not a thread.
    unsigned flags = MHD_USE_ERROR_LOG | MHD_USE_EPOLL_INTERNAL_THREAD;
    std::vector<MHD_OptionItem> options = {
        {MHD_OPTION_NOTIFY_COMPLETED, reinterpret_cast<intptr_t>(&request_completed), nullptr},
        {MHD_OPTION_CONNECTION_TIMEOUT, static_cast<intptr_t>(security.connection_timeout),
         nullptr},
        {MHD_OPTION_CONNECTION_LIMIT, static_cast<intptr_t>(security.max_connections), nullptr},
        {MHD_OPTION_PER_IP_CONNECTION_LIMIT,
         static_cast<intptr_t>(security.max_connections_per_client), nullptr},
        {MHD_OPTION_THREAD_POOL_SIZE, static_cast<intptr_t>(security.worker_threads), nullptr},
    };
    if (address) {
        options.push_back({MHD_OPTION_SOCK_ADDR, 0, reinterpret_cast<sockaddr*>(&*address)});
    }
    if (security.tls()) {
        if (!read_tls_files(security)) return kDaemonFailed;
        flags |= MHD_USE_TLS;
        options.push_back({MHD_OPTION_HTTPS_MEM_KEY, 0, tls_key_.data()});
        options.push_back({MHD_OPTION_HTTPS_MEM_CERT, 0, tls_certificate_.data()});
    }
    options.push_back({MHD_OPTION_END, 0, nullptr});
    const uint16_t port = static_cast<uint16_t>(config.port & 0xFFFF);
    daemon_ = MHD_start_daemon(flags, port, nullptr, nullptr, &access_handler, this,
                               MHD_OPTION_ARRAY, options.data(), MHD_OPTION_END);
    if (daemon_ == nullptr) return kDaemonFailed;
    LOG_NORMAL("Using Port number: %d", static_cast<int>(config.port));
    return kListening;
}

bool HttpServer::read_tls_files(const SecuritySettings& security) {
    auto read = [](const std::string& path, std::string& content) {
        std::ifstream file(path, std::ios::binary);
        content.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
        if (!file.bad() && !content.empty()) return true;
        LOG_ERROR("Unable to read the TLS file '%s'", path.c_str());
        return false;
    };
    if (MHD_is_feature_supported(MHD_FEATURE_TLS) != MHD_YES) {
        LOG_ERROR("This libmicrohttpd has no TLS support");
        return false;
    }
    return read(security.tls_certificate, tls_certificate_) && read(security.tls_key, tls_key_);
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
    if (g_server) g_server->finish();
    g_server.reset();
}

void HttpServer::discard() {
    std::lock_guard<std::mutex> lock(g_server_creation);
    g_server.reset();
}

}  // namespace vistrel::http
