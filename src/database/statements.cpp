#include "database/statements.h"

namespace vistrel::database {

namespace {

std::string placeholders(size_t count) {
    std::string text;
    for (size_t i = 0; i < count; ++i) text += i == 0 ? "?" : ", ?";
    return text;
}

BoundStatement with_where(std::string head, const BoundStatement& where) {
    if (where.empty()) return {head + ";"};
    return {head + " WHERE " + where.text + ";", where.values};
}

}  // namespace

std::string create_table_statement(const std::string& table, const std::string& columns) {
    return "CREATE TABLE IF NOT EXISTS '" + table + "' (" + columns + ")";
}

BoundStatement insert_statement(const std::string& table, const std::string& columns,
                                std::vector<SqlValue> values) {
    std::string text = "INSERT INTO '" + table + "' (" + columns + ") VALUES (" +
                       placeholders(values.size()) + ");";
    return {std::move(text), std::move(values)};
}

BoundStatement insert_or_replace_statement(const std::string& table, const std::string& columns,
                                           std::vector<SqlValue> values) {
    std::string text = "INSERT OR REPLACE INTO '" + table + "' (" + columns + ") VALUES (" +
                       placeholders(values.size()) + ");";
    return {std::move(text), std::move(values)};
}

BoundStatement select_statement(const std::string& table, const std::string& columns,
                                const BoundStatement& where) {
    return with_where("SELECT " + columns + " FROM '" + table + "'", where);
}

BoundStatement delete_statement(const std::string& table, const BoundStatement& where) {
    return with_where("DELETE FROM '" + table + "'", where);
}

}  // namespace vistrel::database
