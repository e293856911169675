#include "database/statements.h"

namespace vistrel::database {

namespace {

std::string where_clause(const std::string& where) {
    return where.empty() ? std::string() : " WHERE " + where;
}

}  // namespace

std::string create_table_statement(const std::string& table, const std::string& columns) {
    return "CREATE TABLE IF NOT EXISTS '" + table + "' (" + columns + ")";
}

std::string insert_statement(const std::string& table, const std::string& columns,
                             const std::string& values) {
    return "INSERT INTO '" + table + "' (" + columns + ") VALUES (" + values + ");";
}

std::string insert_or_replace_statement(const std::string& table, const std::string& columns,
                                        const std::string& values) {
    return "INSERT OR REPLACE INTO '" + table + "' (" + columns + ") VALUES (" + values + ");";
}

std::string select_statement(const std::string& table, const std::string& columns,
                             const std::string& where) {
    return "SELECT " + columns + " FROM '" + table + "'" + where_clause(where) + ";";
}

std::string delete_statement(const std::string& table, const std::string& where) {
    return "DELETE FROM '" + table + "'" + where_clause(where) + ";";
}

}  // namespace vistrel::database
