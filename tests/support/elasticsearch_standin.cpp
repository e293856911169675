#include "support/elasticsearch_standin.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <strings.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <ranges>
#include <stdexcept>
#include <string_view>
#include <tuple>

namespace vistrel::testing {

namespace {

MHD_Result collect_header(void* context, MHD_ValueKind /*kind*/, const char* key,
                          const char* value) {
    auto& request = *static_cast<RecordedRequest*>(context);
    request.headers[key] = value != nullptr ? value : "";
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

bool is_bulk(const RecordedRequest& request) {
    return request.method == "POST" && request.path.ends_with("/_bulk");
}

// The non-empty lines of an NDJSON body.
std::vector<std::string_view> lines_of(std::string_view body) {
    std::vector<std::string_view> lines;
    for (const auto line : std::views::split(body, '\n'))
        if (!line.empty()) lines.emplace_back(line.begin(), line.end());
    return lines;
}

std::string error_body(int status) {
    const nlohmann::json error = {{"type", "stand_in_error"}, {"reason", "told to fail"}};
    return nlohmann::json{{"error", error}, {"status", status}}.dump();
}

}  // namespace

std::optional<std::string> RecordedRequest::header(const std::string& name) const {
    for (const auto& [key, value] : headers)
        if (strcasecmp(key.c_str(), name.c_str()) == 0) return value;
    return std::nullopt;
}

std::string RecordedRequest::target() const {
    return query.empty() ? path : path + "?" + query;
}

void ElasticsearchStandIn::listen(uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    daemon_ = MHD_start_daemon(MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_THREAD_PER_CONNECTION, 0,
                               nullptr, nullptr, &ElasticsearchStandIn::on_request, this,
                               MHD_OPTION_SOCK_ADDR, &address, MHD_OPTION_LISTENING_ADDRESS_REUSE,
                               1U, MHD_OPTION_NOTIFY_COMPLETED, &ElasticsearchStandIn::on_completed,
                               this, MHD_OPTION_END);
    if (daemon_ == nullptr) throw std::runtime_error("Elasticsearch stand-in failed to start");
    port_ = MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_BIND_PORT)->port;
}

void ElasticsearchStandIn::stop() {
    if (daemon_ == nullptr) return;
    set(stopping_, true);
    silence_ended_.notify_all();
    MHD_stop_daemon(daemon_);
    daemon_ = nullptr;
}

void ElasticsearchStandIn::start() {
    if (daemon_ != nullptr) return;
    set(stopping_, false);
    listen(port_);
}

void ElasticsearchStandIn::answer(int status, std::string body) {
    std::lock_guard lock(mutex_);
    status_ = status;
    body_ = std::move(body);
}

void ElasticsearchStandIn::clear() {
    std::lock_guard lock(mutex_);
    requests_.clear();
    bulk_documents_.clear();
    bulk_positions_.clear();
    bulk_document_count_ = 0;
    bulk_request_count_ = 0;
    bulk_replaced_count_ = 0;
}

void ElasticsearchStandIn::bulk_status(int status, size_t count) {
    std::lock_guard lock(mutex_);
    bulk_status_ = status;
    bulk_status_count_ = count;
}

void ElasticsearchStandIn::bulk_silent(bool silent) {
    set(bulk_silent_, silent);
    silence_ended_.notify_all();
}

std::pair<int, std::string> ElasticsearchStandIn::answer_bulk(const RecordedRequest& request) {
    ++bulk_request_count_;
    if (bulk_status_count_ > 0) {
        --bulk_status_count_;
        return {bulk_status_, error_body(bulk_status_)};
    }
    std::vector<std::string_view> lines = lines_of(request.body);
    if (bulk_discard_) {
        bulk_document_count_ += lines.size() / 2;
        return {200, R"({"took":0,"errors":false,"items":[]})"};
    }
    if (bulk_max_documents_ > 0 && lines.size() / 2 > bulk_max_documents_) {
        return {413, error_body(413)};
    }
    nlohmann::json items = nlohmann::json::array();
    bool errors = false;
    for (size_t i = 0; i + 1 < lines.size(); i += 2) {
        nlohmann::json action = nlohmann::json::parse(lines[i], nullptr, false);
        std::string operation = "index";
        std::string index;
        std::string id;
        if (action.is_object() && !action.empty() && action.begin()->is_object()) {
            operation = action.begin().key();
            index = action.begin()->value("_index", "");
            id = action.begin()->value("_id", "");
        }
        nlohmann::json item = {{"_index", index}};
        auto refuse = [&](const char* type, const std::string& reason) {
            errors = true;
            item["status"] = 400;
            item["error"] = {{"type", type}, {"reason", reason}};
        };
        std::string_view document = lines[i + 1];
        if (index.empty() || !nlohmann::json::accept(document)) {
            refuse("illegal_argument_exception", "no index or no JSON document");
        } else if (!bulk_item_error_.empty() &&
                   document.find(bulk_item_error_) != std::string_view::npos) {
            refuse("mapper_parsing_exception", "failed to parse field [" + bulk_item_error_ + "]");
        } else {
            std::vector<std::string>& stored = bulk_documents_[index];
            auto known = id.empty() ? bulk_positions_.end() : bulk_positions_.find({index, id});
            if (known != bulk_positions_.end()) {
                stored[known->second] = std::string(document);
                ++bulk_replaced_count_;
                item["status"] = 200;
                item["result"] = "updated";
            } else {
                if (!id.empty()) bulk_positions_[{index, id}] = stored.size();
                stored.emplace_back(document);
                ++bulk_document_count_;
                item["status"] = 201;
                item["result"] = "created";
            }
        }
        items.push_back({{operation, item}});
    }
    nlohmann::json body = {{"took", 1}, {"errors", errors}, {"items", items}};
    return {200, body.dump()};
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
        std::unique_lock lock(mutex_);
        if (is_bulk(request)) {
            ++bulk_held_count_;
            silence_ended_.wait(lock, [this] { return !bulk_silent_ || stopping_; });
            --bulk_held_count_;
            if (stopping_) return MHD_NO;
            if (!bulk_discard_) requests_.push_back(request);
            std::tie(status, body) = answer_bulk(request);
        } else {
            requests_.push_back(request);
            status = status_;
            body = body_;
        }
    }
    MHD_Response* response =
        MHD_create_response_from_buffer(body.size(), body.data(), MHD_RESPMEM_MUST_COPY);
    MHD_add_response_header(response, "Content-Type", "application/json");
    MHD_Result result = MHD_queue_response(connection, static_cast<unsigned>(status), response);
    MHD_destroy_response(response);
    return result;
}

}  // namespace vistrel::testing
