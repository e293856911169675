#pragma once

namespace vistrel::database {

// sqlite3_set_authorizer callback: allows only the kinds of statement the server itself issues
// (reads, inserts, deletes, its own schema and two pragmas). ATTACH, DROP, triggers, views and
// any other pragma or function are refused while the statement is prepared.
int authorize_statement(void* context, int action, const char* first, const char* second,
                        const char* database, const char* trigger);

}  // namespace vistrel::database
