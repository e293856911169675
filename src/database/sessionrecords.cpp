#include "database/sessionrecords.h"

#include <cstdlib>
#include <cstring>

#include "database/vistreldatabase.h"

namespace vistrel::database {

namespace {

struct SessionQuery {
    int is_active;
    std::list<SessionRecord>* sessions;
};

const char* text_or_empty(const char* value) {
    return value != nullptr ? value : "";
}

int collect_user_row(void* context, int columns, char** values, char** names) {
    UserRecord& user = static_cast<std::list<UserRecord>*>(context)->emplace_back();
    for (int column = 0; column < columns; ++column) {
        const char* value = text_or_empty(values[column]);
        if (std::strcmp(names[column], "name") == 0) {
            user.name = value;
        } else if (std::strcmp(names[column], "permissions") == 0) {
            user.permissions = value;
        } else if (std::strcmp(names[column], "last_seen") == 0) {
            user.last_seen = std::strtoull(value, nullptr, 10);
        }
    }
    return 0;
}

int collect_session_row(void* context, int columns, char** values, char** names) {
    auto& query = *static_cast<SessionQuery*>(context);
    SessionRecord session;
    for (int column = 0; column < columns; ++column) {
        const char* value = text_or_empty(values[column]);
        if (std::strcmp(names[column], "is_active") == 0) {
            session.is_active = std::atoi(value);
        } else if (std::strcmp(names[column], "user") == 0) {
            session.user = std::atoi(value);
        } else if (std::strcmp(names[column], "start_ts") == 0) {
            session.start_ts = std::strtoull(value, nullptr, 10);
        } else if (std::strcmp(names[column], "end_ts") == 0) {
            session.end_ts = std::strtoull(value, nullptr, 10);
        } else if (std::strcmp(names[column], "timezone") == 0) {
            session.timezone = value;
        }
    }
    if (session.is_active != query.is_active) return 0;
    // A second connection, opened while the outer select still runs on this thread.
    session.users = read_user(session.user);
    query.sessions->push_back(std::move(session));
    return 0;
}

}  // namespace

// The flag and the user id are stored as decimal texts, as they always have been.
std::vector<SqlValue> session_values(const std::string& uuid, int is_active, int user,
                                     uint64_t start_ts, uint64_t end_ts,
                                     const std::string& timezone) {
    return {uuid,
            std::to_string(is_active),
            std::to_string(user),
            sql_integer(start_ts),
            sql_integer(end_ts),
            timezone};
}

BoundStatement user_where(int user_id) {
    return {"id = ?", {std::to_string(user_id)}};
}

unsigned save_session(const std::string& uuid, int is_active, int user, uint64_t start_ts,
                      uint64_t end_ts, const std::string& timezone) {
    std::vector<SqlValue> values;
    if (!uuid.empty() && user >= 0) {
        values = session_values(uuid, is_active, user, start_ts, end_ts, timezone);
    }
    // Without a value list the statement is still sent; SQLite refuses it and the refusal is
    // logged like any other.
    VistrelDatabase database;
    return database.insert_or_replace(kSessionTable,
                                      "uuid, is_active, user, start_ts, end_ts, timezone", values);
}

std::list<SessionRecord> read_sessions(int is_active) {
    std::list<SessionRecord> sessions;
    SessionQuery query{is_active, &sessions};
    VistrelDatabase database;
    database.select(kUserTable, "is_active, user, start_ts, end_ts, timezone", "",
                    collect_session_row, &query);
    return sessions;
}

std::list<UserRecord> read_user(int user_id) {
    std::list<UserRecord> users;
    VistrelDatabase database;
    database.select(kUserTable, "name, permissions, last_seen", user_where(user_id),
                    collect_user_row, &users);
    return users;
}

}  // namespace vistrel::database
