#pragma once

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

namespace vistrel::database {

// A value bound to one "?" of a statement: an integer or a text.
using SqlValue = std::variant<int64_t, std::string>;

// Unsigned times and counts are stored as SQLite's signed 64-bit integers; anything larger
// than the signed range is clamped rather than wrapped to a negative number.
SqlValue sql_integer(uint64_t value);

// SQL text with "?" placeholders and the values bound to them, in order. Values never become
// part of the text, so nothing in them can change what the statement does.
struct BoundStatement {
    BoundStatement() = default;
    BoundStatement(std::string sql) : text(std::move(sql)) {}  // NOLINT: plain text, no values
    BoundStatement(const char* sql) : text(sql) {}             // NOLINT
    BoundStatement(std::string sql, std::vector<SqlValue> bound)
        : text(std::move(sql)), values(std::move(bound)) {}

    bool empty() const { return text.empty(); }

    std::string text;
    std::vector<SqlValue> values;
};

}  // namespace vistrel::database
