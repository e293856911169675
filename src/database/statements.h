#pragma once

#include <string>

#include "database/boundstatement.h"

// The SQL texts of the statement builders. Table names are wrapped in single quotes and column
// lists are the callers' own constants; every value travels as a bound "?". Callers check for
// empty arguments before building.
namespace vistrel::database {

std::string create_table_statement(const std::string& table, const std::string& columns);
// One "?" per value.
BoundStatement insert_statement(const std::string& table, const std::string& columns,
                                std::vector<SqlValue> values);
BoundStatement insert_or_replace_statement(const std::string& table, const std::string& columns,
                                           std::vector<SqlValue> values);
// No " WHERE " when `where` is empty.
BoundStatement select_statement(const std::string& table, const std::string& columns,
                                const BoundStatement& where);
// No " WHERE " when `where` is empty: every row goes.
BoundStatement delete_statement(const std::string& table, const BoundStatement& where);

}  // namespace vistrel::database
