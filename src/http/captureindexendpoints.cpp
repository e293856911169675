#include "http/captureindexendpoints.h"

#include <cctype>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <exception>
#include <list>
#include <nlohmann/json.hpp>
#include <regex>
#include <stdexcept>
#include <string>

#include "database/capturecleanup.h"
#include "database/captureindex.h"
#include "database/resultcodes.h"
#include "metrics/servermetrics.h"
#include "searchindex/searchindexclient.h"
#include "startup/configuration.h"
#include "startup/logger.h"

namespace vistrel::http {

namespace {

using Argument = std::optional<std::string>;

// The index pattern that stands for every index of the product.
constexpr const char* kAllIndices = "vistrel*";

// A decimal integer; anything else (empty, trailing characters, out of range) reads as 0, which
// every caller refuses as a time.
int64_t to_integer(const std::string& text) {
    int64_t value = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return 0;
    return value;
}

// atoi's reading: leading blanks, a sign, the digits that follow; 0 without digits. Clamped
// instead of overflowing.
int atoi_like(const std::string& text) {
    long value = std::strtol(text.c_str(), nullptr, 10);
    if (value > INT_MAX) return INT_MAX;
    if (value < INT_MIN) return INT_MIN;
    return static_cast<int>(value);
}

const char* shown(const Argument& argument) {
    return argument ? argument->c_str() : "(null)";
}

// An index name or pattern of the search server. Anything else ("/", "?", "#", "..", a leading
// "_" naming one of its APIs) would make the request reach another part of that server.
bool plain_index_name(const std::string& name) {
    if (name.empty() || name[0] == '_' || name[0] == '-' || name == "." || name == "..") {
        return false;
    }
    for (char c : name) {
        if (std::isalnum(static_cast<unsigned char>(c)) == 0 && c != '-' && c != '_' && c != '.' &&
            c != '*' && c != '+') {
            return false;
        }
    }
    return true;
}

// The argument as the inside of a JSON string, so that a quote in it cannot end the string of
// the search server's query.
Argument json_inner(const Argument& argument) {
    if (!argument) return argument;
    std::string quoted =
        nlohmann::json(*argument).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    return quoted.substr(1, quoted.size() - 2);
}

std::string cleanup_reply_text(size_t found, size_t removed, size_t errors, bool filesystem,
                               int& status) {
    if (found == 0) return "There are not files to cleanup for the given request. ";
    if (!filesystem) return "Unhandled situation for the given cleanup request. ";
    if (errors == found) {
        status = 500;
        return "Unable to delete any of the files found for your request. They might have been "
               "deleted manually";
    }
    std::string text = "Successfully deleted " + std::to_string(removed) + " files.";
    if (errors > 0) {
        text += " Found " + std::to_string(errors) +
                " errors on file deletion. Are some files opened or not available?";
    }
    return text;
}

}  // namespace

Reply handle_add_file(const QueryArguments& arguments) {
    Argument file_path = arguments("file_path");
    Argument start_ts = arguments("start_ts");
    Argument end_ts = arguments("end_ts");
    Argument n_packets = arguments("n_packets");
    Argument source = arguments("source");
    Argument es_index = arguments("es_index");
    if (!file_path || !start_ts || !end_ts || !source || !es_index) {
        LOG_WARNING(
            "Unable to index new capture: missing basic fields within the get request "
            "(file_path: [%s], start_ts: [%s], end_ts: [%s], source: [%s], es_index: [%s], "
            "n_packets: [%s])",
            shown(file_path), shown(start_ts), shown(end_ts), shown(source), shown(es_index),
            shown(n_packets));
        return {
            "Error : missing basic fields within the get request (file_path, t0, source, "
            "es_index)",
            400};
    }
    static const std::regex kBackslash(R"(\\)");
    std::string path = std::regex_replace(*file_path, kBackslash, "/");

    int64_t start = to_integer(*start_ts);
    int64_t end = to_integer(*end_ts);
    // Without "n_packets" the file counts as holding no packets.
    int packets = n_packets ? atoi_like(*n_packets) : 0;
    if (start < 1 || end < 1) return {"Error : Bad timestamps given", 400};
    if (packets < 0) return {"Error : Bad number of packets, cannot be a negative number", 400};

    Reply reply{"Received file " + path + " start_ts = " + std::to_string(start) +
                    " end_ts = " + std::to_string(end) + " sources = " + *source +
                    " n_packets = " + std::to_string(packets),
                200};
    capture::CaptureFileRecord record;
    record.file_path = path;
    record.source = *source;
    record.es_index = *es_index;
    record.start_ts = static_cast<uint64_t>(start);
    record.end_ts = static_cast<uint64_t>(end);
    record.n_packets = static_cast<uint64_t>(packets);
    // A refused insert is logged by the database; the engine's report was received all the same.
    const unsigned added = database::add_capture_file(record);
    if (added == database::kInvalidRecord) {
        LOG_WARNING("Capture file '%s' not indexed: empty file_path, source or es_index",
                    path.c_str());
    } else if (added == database::kSuccess) {
        metrics::files_registered().add();
    }
    return reply;
}

Reply handle_cleanup(const QueryArguments& arguments) {
    Argument filesystem = arguments("filesystem");
    Argument source = arguments("source");
    Argument start_ts = arguments("start_ts");
    Argument end_ts = arguments("end_ts");
    Argument es_index = arguments("es_index");

    capture::CaptureQuery query;
    if (start_ts && end_ts) {
        int64_t start = to_integer(*start_ts);
        int64_t end = to_integer(*end_ts);
        if (start > end) {
            LOG_WARNING("Skipping timestamps for cleanup, start_ts is bigger than end_ts");
        } else if (start <= 0 || end <= 0) {
            LOG_WARNING(
                "Skipping timestamps for cleanup, not a valid value (start_ts or end_ts is 0)");
        } else {
            query.start = static_cast<uint64_t>(start);
            query.end = static_cast<uint64_t>(end);
            LOG_NORMAL("Applying clean up with timestamps filters: start_ts = %s , end_ts = %s",
                       start_ts->c_str(), end_ts->c_str());
        }
    }
    if (es_index && source) {
        query.es_index = *es_index;
        query.sources.push_back(*source);
        LOG_NORMAL("Applying cleanup for es_index = %s , source = %s", es_index->c_str(),
                   source->c_str());
    } else if (es_index) {
        query.es_index = *es_index;
        LOG_NORMAL("Applying cleanup for es_index = %s ", es_index->c_str());
    } else {
        LOG_NORMAL("Applying clean up to whole Datasource");
    }

    std::list<capture::CaptureFileRecord> files = database::select_capture_files(query);
    LOG_NORMAL("Found %d files", static_cast<int>(files.size()));

    const bool delete_files = filesystem && *filesystem == "true";
    database::CleanupCounts counts;
    if (delete_files) {
        counts = database::delete_capture_files(files, configuration().owned_capture_folders());
    }
    metrics::cleanups("files").add();
    if (counts.errors > 0) metrics::cleanup_errors("files").add(counts.errors);
    Reply reply{"", 200};
    reply.text =
        cleanup_reply_text(files.size(), counts.removed, counts.errors, delete_files, reply.status);
    LOG_NORMAL("%s", reply.text.c_str());
    return reply;
}

Reply handle_cleanup_elasticsearch(const QueryArguments& arguments) {
    Argument es_addr = arguments("es_addr");
    Argument es_index = arguments("es_index");
    Argument source = json_inner(arguments("source"));
    Argument start_ts = json_inner(arguments("start_ts"));
    Argument end_ts = json_inner(arguments("end_ts"));
    if (!es_addr) {
        LOG_NORMAL("Bad request, missing Elastic address");
        return {"Unable to perform Elasticsearch cleanup without an address", 400};
    }
    if (es_index && !plain_index_name(*es_index)) {
        LOG_WARNING("Bad request, '%s' is not an index name", es_index->c_str());
        return {"Error : Bad index name", 400};
    }
    metrics::cleanups("elasticsearch").add();
    const searchindex::Credentials none;
    bool done = false;
    if ((start_ts && end_ts) || source) {
        std::string index = es_index.value_or(kAllIndices);
        LOG_NORMAL("Flushing %s inidex for %s with some more filters...", index.c_str(),
                   es_addr->c_str());
        done = searchindex::delete_by_query(none, *es_addr, {index, start_ts, end_ts, source});
    } else if (es_index) {
        if (start_ts || end_ts) {
            LOG_WARNING("Internal error, unhandled situation for cleanup datasource ");
            metrics::cleanup_errors("elasticsearch").add();
            return {"Internal Server Error while cleaning up Datasource", 500};
        }
        LOG_NORMAL("Flushing %s index for elasticsearch at: '%s'", es_index->c_str(),
                   es_addr->c_str());
        done = searchindex::delete_index(none, *es_addr, *es_index);
    } else {
        LOG_NORMAL("Flushing ALL indexes for elasticsearch at: '%s'", es_addr->c_str());
        done = searchindex::delete_index(none, *es_addr, kAllIndices);
    }
    if (!done) {
        LOG_WARNING("Unable to flush %s", es_addr->c_str());
        metrics::cleanup_errors("elasticsearch").add();
        return {
            "Unable to perform Datasource cleanup. Something failed. Please check your "
            "Datasource address and your connection",
            503};
    }
    return {"Correctly performed Datasource cleanup", 200};
}

Reply handle_search(const std::string& body) {
    LOG_DEBUG("Got Grafana's Simple Json %s request to get my address", "/search");
    std::string target;
    try {
        const nlohmann::json document = nlohmann::json::parse(body);
        const auto member = document.find("target");
        if (member == document.end())
            throw std::runtime_error("JSON Parsing error: Non optional field [target] not found");
        target = member->get<std::string>();
    } catch (const std::exception& error) {
        LOG_ERROR("Exception parsing SimpleJsonSearch: %s", error.what());
    }
    if (target == "cs_address") return {"[\"" + own_server_address() + "\"]", 200};
    return {"Unhandled search request", 400};
}

}  // namespace vistrel::http
