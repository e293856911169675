#include "database/captureindex.h"

#include <cstdlib>
#include <cstring>

#include "database/captureindexquery.h"
#include "database/resultcodes.h"
#include "database/vistreldatabase.h"

namespace vistrel::database {

namespace {

uint64_t to_u64(const char* text) {
    return text == nullptr ? 0 : std::strtoull(text, nullptr, 10);
}

int collect_capture_row(void* context, int columns, char** values, char** names) {
    auto& records = *static_cast<std::list<CaptureFileRecord>*>(context);
    CaptureFileRecord& record = records.emplace_back();
    for (int column = 0; column < columns; ++column) {
        const char* name = names[column];
        const char* value = values[column];
        if (std::strcmp(name, "file_path") == 0) {
            record.file_path = value != nullptr ? value : "";
        } else if (std::strcmp(name, "es_index") == 0) {
            record.es_index = value != nullptr ? value : "";
        } else if (std::strcmp(name, "source") == 0) {
            record.source = value != nullptr ? value : "";
        } else if (std::strcmp(name, "start_ts") == 0) {
            record.start_ts = to_u64(value);
        } else if (std::strcmp(name, "end_ts") == 0) {
            record.end_ts = to_u64(value);
        } else if (std::strcmp(name, "n_packets") == 0) {
            record.n_packets = to_u64(value);
        }
    }
    return 0;
}

}  // namespace

std::string source_list(const std::vector<std::string>& sources) {
    std::string list = "(";
    for (size_t i = 0; i < sources.size(); ++i) {
        if (i > 0) list += ",";
        if (!sources[i].empty()) list += "'" + sources[i] + "'";
    }
    return list + ")";
}

std::string capture_where_text(const CaptureQuery& query) {
    std::vector<std::string> conditions;
    const std::string start = std::to_string(query.start);
    const std::string end = std::to_string(query.end);
    if (query.start != 0 && query.end != 0) {
        conditions.push_back("( start_ts BETWEEN " + start + " AND " + end + " OR end_ts BETWEEN " +
                             start + " AND " + end + " )");
    } else if (query.start != 0) {
        conditions.push_back("end_ts >= " + start);
    } else if (query.end != 0) {
        conditions.push_back("start_ts < " + end);
    }
    if (!query.es_index.empty()) conditions.push_back("es_index = '" + query.es_index + "'");
    if (!query.sources.empty()) conditions.push_back("source IN " + source_list(query.sources));

    std::string where;
    for (const std::string& condition : conditions) {
        if (!where.empty()) where += " AND ";
        where += condition;
    }
    if (!where.empty()) where += " ORDER BY start_ts ASC";
    return where;
}

std::string capture_values(const CaptureFileRecord& record) {
    return "'" + record.file_path + "', '" + record.source + "', '" + record.es_index + "', " +
           std::to_string(record.start_ts) + ", " + std::to_string(record.end_ts) + ", " +
           std::to_string(record.n_packets);
}

unsigned add_capture_file(const CaptureFileRecord& record) {
    if (!record.valid()) return kInvalidRecord;
    VistrelDatabase database;
    return database.insert(kCaptureTable, kCaptureColumns, capture_values(record));
}

std::list<CaptureFileRecord> select_capture_files(const CaptureQuery& query) {
    std::list<CaptureFileRecord> records;
    VistrelDatabase database;
    // A failed select is logged by the database; whatever rows arrived are returned.
    database.select(kCaptureTable, kCaptureColumns, capture_where_text(query), collect_capture_row,
                    &records);
    return records;
}

unsigned remove_capture_file(const std::string& file_path) {
    VistrelDatabase database;
    return database.flush_by_file_path(file_path);
}

uint32_t count_capture_files(bool log) {
    VistrelDatabase database;
    return database.count_capture_rows(log);
}

}  // namespace vistrel::database
