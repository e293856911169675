#pragma once

// What the entry point does with the database.
namespace vistrel::database {

// Start-up: opens or creates the configured database file with its tables and logs the
// capture row count, on a short-lived connection. 0 on success, 1 on failure.
unsigned initialise_database();

// The "cleanup" run mode: empties every table but AnalyzedTrace. 0 on success, 6 on failure;
// the process exits with this value.
unsigned cleanup_database();

}  // namespace vistrel::database
