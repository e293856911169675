#pragma once

#include <string>

// The SQL texts of the statement builders. Nothing is escaped: table names are wrapped in
// single quotes, column lists, value lists and where texts are inserted as the caller built
// them. Callers check for empty arguments before building.
namespace vistrel::database {

std::string create_table_statement(const std::string& table, const std::string& columns);
std::string insert_statement(const std::string& table, const std::string& columns,
                             const std::string& values);
std::string insert_or_replace_statement(const std::string& table, const std::string& columns,
                                        const std::string& values);
// No " WHERE " when `where` is empty.
std::string select_statement(const std::string& table, const std::string& columns,
                             const std::string& where);
// No " WHERE " when `where` is empty: every row goes.
std::string delete_statement(const std::string& table, const std::string& where);

}  // namespace vistrel::database
