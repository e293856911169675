#include "index/bulkresponse.h"

#include <nlohmann/json.hpp>

#include "startup/logger.h"

namespace vistrel::watchkeep {

namespace {
constexpr size_t kLoggedErrors = 5;
}  // namespace

BulkItems read_bulk_items(const std::string& answer, size_t documents) {
    BulkItems items;
    // Elasticsearch writes "errors" near the start; most answers need no further reading.
    const size_t head = answer.size() < 256 ? answer.size() : 256;
    std::string_view start(answer.data(), head);
    if (start.find("\"errors\":false") != std::string_view::npos ||
        start.find("\"errors\": false") != std::string_view::npos) {
        items.accepted = documents;
        return items;
    }
    nlohmann::json reply = nlohmann::json::parse(answer, nullptr, false);
    if (!reply.is_object() || !reply.contains("items") || !reply["items"].is_array()) {
        items.accepted = documents;
        return items;
    }
    size_t position = 0;
    for (const auto& entry : reply["items"]) {
        if (!entry.is_object() || entry.empty()) {
            ++position;
            continue;
        }
        const auto& item = entry.begin().value();
        int status = item.is_object() ? item.value("status", 200) : 200;
        if (status == 429) {
            items.throttled.push_back(position);
        } else if (status >= 300) {
            ++items.refused;
            if (items.refused <= kLoggedErrors) {
                const auto& error = item.contains("error") ? item["error"] : nlohmann::json{};
                std::string type = error.is_object() ? error.value("type", "") : "";
                std::string reason = error.is_object()   ? error.value("reason", "")
                                     : error.is_string() ? error.get<std::string>()
                                                         : "";
                std::string index = item.value("_index", "");
                LOG_ERROR("Elasticsearch refused a record for %s (status %d): %s: %s",
                          index.c_str(), status, type.c_str(), reason.c_str());
            }
        } else {
            ++items.accepted;
        }
        ++position;
    }
    if (items.refused > kLoggedErrors) {
        LOG_ERROR("Elasticsearch refused %zu records of one bulk request", items.refused);
    }
    // Items the answer does not mention were taken.
    if (position < documents) items.accepted += documents - position;
    return items;
}

std::vector<std::string> split_documents(const std::string& body) {
    std::vector<std::string> documents;
    size_t start = 0;
    while (start < body.size()) {
        size_t action_end = body.find('\n', start);
        if (action_end == std::string::npos) break;
        size_t source_end = body.find('\n', action_end + 1);
        if (source_end == std::string::npos) source_end = body.size() - 1;
        documents.emplace_back(body, start, source_end + 1 - start);
        start = source_end + 1;
    }
    return documents;
}

}  // namespace vistrel::watchkeep
