#include "database/startup.h"

#include "database/vistreldatabase.h"

namespace vistrel::database {

unsigned initialise_database() {
    VistrelDatabase database;
    return database.create_schema();
}

unsigned cleanup_database() {
    VistrelDatabase database;
    return database.flush_all();
}

}  // namespace vistrel::database
