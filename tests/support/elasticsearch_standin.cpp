#include "support/elasticsearch_standin.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace vistrel::testing {

namespace {

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

MHD_Result collect_header(void* context, MHD_ValueKind /*kind*/, const char* key,
                          const char* value) {
    auto& request = *static_cast<RecordedRequest*>(context);
    request.headers[lower(key)] = value != nullptr ? value : "";
    return MHD_YES;
}

MHD_Result collect_argument(void* context, MHD_ValueKind /*kind*/, const char* key,
                            const char* value) {
    auto& request = *static_cast<RecordedRequest*>(context);
    if (!request.query.empty()) request.query += "&";
    request.query += key;
    if (value != nullptr) request.query += std::string("=") + value;
    return MHD_YES;
}

}  // namespace

std::optional<std::string> RecordedRequest::header(const std::string& name) const {
    auto found = headers.find(lower(name));
    if (found == headers.end()) return std::nullopt;
    return found->second;
}

std::string RecordedRequest::target() const {
    return query.empty() ? path : path + "?" + query;
}

ElasticsearchStandIn::ElasticsearchStandIn() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = 0;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    daemon_ = MHD_start_daemon(MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_THREAD_PER_CONNECTION, 0,
                               nullptr, nullptr, &ElasticsearchStandIn::on_request, this,
                               MHD_OPTION_SOCK_ADDR, &address, MHD_OPTION_NOTIFY_COMPLETED,
                               &ElasticsearchStandIn::on_completed, this, MHD_OPTION_END);
    if (daemon_ == nullptr) throw std::runtime_error("Elasticsearch stand-in failed to start");
    const MHD_DaemonInfo* info = MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_BIND_PORT);
    port_ = info != nullptr ? info->port : 0;
    if (port_ == 0) {
        MHD_stop_daemon(daemon_);
        throw std::runtime_error("Elasticsearch stand-in has no port");
    }
}

ElasticsearchStandIn::~ElasticsearchStandIn() {
    MHD_stop_daemon(daemon_);
}

std::string ElasticsearchStandIn::address() const {
    return "http://127.0.0.1:" + std::to_string(port_);
}

void ElasticsearchStandIn::answer(int status, std::string body) {
    std::lock_guard lock(mutex_);
    status_ = status;
    body_ = std::move(body);
}

std::vector<RecordedRequest> ElasticsearchStandIn::requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
}

void ElasticsearchStandIn::clear() {
    std::lock_guard lock(mutex_);
    requests_.clear();
}

uint16_t ElasticsearchStandIn::closed_port() {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) throw std::runtime_error("no socket for a closed port");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    uint16_t port = 0;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
        port = ntohs(address.sin_port);
    }
    // Bound but never listening, then released: connections are refused.
    ::close(fd);
    if (port == 0) throw std::runtime_error("no closed port found");
    return port;
}

MHD_Result ElasticsearchStandIn::on_request(void* self, MHD_Connection* connection, const char* url,
                                            const char* method, const char* /*version*/,
                                            const char* upload, size_t* upload_size,
                                            void** context) {
    return static_cast<ElasticsearchStandIn*>(self)->handle(connection, url, method, upload,
                                                            upload_size, context);
}

void ElasticsearchStandIn::on_completed(void* /*self*/, MHD_Connection* /*connection*/,
                                        void** context, MHD_RequestTerminationCode /*code*/) {
    // A request whose connection broke before the answer is dropped with its record.
    delete static_cast<RecordedRequest*>(*context);
    *context = nullptr;
}

MHD_Result ElasticsearchStandIn::handle(MHD_Connection* connection, const char* url,
                                        const char* method, const char* upload, size_t* upload_size,
                                        void** context) {
    if (*context == nullptr) {
        // First call: headers only. The record lives until on_completed (MHD owns the slot).
        auto request = std::make_unique<RecordedRequest>();
        request->method = method;
        request->path = url;
        MHD_get_connection_values(connection, MHD_HEADER_KIND, collect_header, request.get());
        MHD_get_connection_values(connection, MHD_GET_ARGUMENT_KIND, collect_argument,
                                  request.get());
        *context = request.release();
        return MHD_YES;
    }
    auto& request = *static_cast<RecordedRequest*>(*context);
    if (*upload_size > 0) {
        request.body.append(upload, *upload_size);
        *upload_size = 0;
        return MHD_YES;
    }

    int status = 0;
    std::string body;
    {
        std::lock_guard lock(mutex_);
        requests_.push_back(request);
        status = status_;
        body = body_;
    }
    MHD_Response* response =
        MHD_create_response_from_buffer(body.size(), body.data(), MHD_RESPMEM_MUST_COPY);
    MHD_add_response_header(response, "Content-Type", "application/json");
    MHD_Result result = MHD_queue_response(connection, static_cast<unsigned>(status), response);
    MHD_destroy_response(response);
    return result;
}

}  // namespace vistrel::testing
