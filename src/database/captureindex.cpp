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

BoundStatement capture_where(const CaptureQuery& query) {
    std::vector<std::string> conditions;
    std::vector<SqlValue> values;
    const SqlValue start = sql_integer(query.start);
    const SqlValue end = sql_integer(query.end);
    if (query.start != 0 && query.end != 0) {
        conditions.emplace_back("( start_ts BETWEEN ? AND ? OR end_ts BETWEEN ? AND ? )");
        values.insert(values.end(), {start, end, start, end});
    } else if (query.start != 0) {
        conditions.emplace_back("end_ts >= ?");
        values.push_back(start);
    } else if (query.end != 0) {
        conditions.emplace_back("start_ts < ?");
        values.push_back(end);
    }
    if (!query.es_index.empty()) {
        conditions.emplace_back("es_index = ?");
        values.emplace_back(query.es_index);
    }
    if (!query.sources.empty()) {
        // An empty source stays an empty slot, which SQLite refuses: nothing is selected.
        std::string list = "source IN (";
        for (size_t i = 0; i < query.sources.size(); ++i) {
            if (i > 0) list += ",";
            if (query.sources[i].empty()) continue;
            list += "?";
            values.emplace_back(query.sources[i]);
        }
        conditions.push_back(list + ")");
    }

    std::string where;
    for (const std::string& condition : conditions) {
        if (!where.empty()) where += " AND ";
        where += condition;
    }
    if (!where.empty()) where += " ORDER BY start_ts ASC";
    return {std::move(where), std::move(values)};
}

std::vector<SqlValue> capture_values(const CaptureFileRecord& record) {
    return {record.file_path,
            record.source,
            record.es_index,
            sql_integer(record.start_ts),
            sql_integer(record.end_ts),
            sql_integer(record.n_packets)};
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
    database.select(kCaptureTable, kCaptureColumns, capture_where(query), collect_capture_row,
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
