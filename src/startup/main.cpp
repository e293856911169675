// Entry point: configuration, run mode, the device library, SQLite, the database and the HTTP
// server come up in a fixed order; the process then waits for its stop condition and takes
// everything down in reverse.
#include <sqlite3.h>

#include <iostream>

#include "database/startup.h"
#include "devices/deviceregistry.h"
#include "host/paths.h"
#include "http/httpserver.h"
#include "startup/commandline.h"
#include "startup/configuration.h"
#include "startup/logger.h"
#include "startup/servicenotify.h"
#include "startup/stopwait.h"

namespace {

using vistrel::configuration;
using vistrel::Configuration;

int shut_down() {
    vistrel::notify_stopping();
    LOG_WARNING("Closing Server...");
    vistrel::http::HttpServer::instance().stop_daemon();
    sqlite3_shutdown();
    vistrel::http::HttpServer::destroy();
    return 0;
}

// Creates the database file and its tables; non-zero on failure.
int initialise_database() {
    return static_cast<int>(vistrel::database::initialise_database());
}

// Empties the database; the result is the process's exit code.
int run_database_cleanup() {
    return static_cast<int>(vistrel::database::cleanup_database());
}

}  // namespace

int main(int argc, char** argv) {
    // Stop signals are read from a descriptor while waiting; no thread may take them first.
    vistrel::block_stop_signals();
    vistrel::initialise_configuration_and_log();
    Configuration& config = configuration();

    if (argc < 2) {
        vistrel::print_usage();
        return -1;
    }

    vistrel::CommandLineResult loaded = vistrel::load_command_line(config, argc, argv);
    if (loaded.exit_code) return *loaded.exit_code;
    if (!loaded.proceed) {
        std::cout << "[Set Up] Error loading configuration" << std::endl;
        LOG_ERROR("[Set Up] Can't load configuration");
        return 1;
    }
    if (config.mode.empty()) {
        vistrel::print_usage();
        return -1;
    }
    if (config.loaded_from_file) LOG_NORMAL("Config loaded from '%s'", config.config_file.c_str());

    std::cout << "[Will run as] host=" << config.host << std::endl
              << "[Will run as] port=" << config.port << std::endl
              << "[Will run as] database=" << config.database << std::endl
              << "[Will run as] captures_path=" << config.capture_path << std::endl
              << "[Will run as] analyzed_captures_path=" << config.analyze_capture_path
              << std::endl;

    const std::string backup = vistrel::host::server_folder() + "/latest_config.yml";
    if (config.write_yaml(backup) != 0) {
        std::cout << "[Error] Unable to make config file backup. Check permissions at " << backup
                  << std::endl;
    }

    // The server object exists from here on; it binds only when started below.
    vistrel::http::HttpServer::instance();

    if (config.mode == "debug") {
        LOG_NORMAL("Starting in DEBUG mode");
    } else if (config.mode == "daemon") {
        LOG_NORMAL("Starting in DAEMON mode");
    } else if (config.mode == "start") {
        LOG_NORMAL("Received START command");
        config.mode = "debug";
    } else if (config.mode == "stop") {
        LOG_NORMAL("Received STOP command");
    } else if (config.mode == "cleanup") {
        int result = run_database_cleanup();
        vistrel::http::HttpServer::discard();
        return result;
    } else {
        vistrel::http::HttpServer::discard();
        return 1;
    }

    // Like the clean-up and an unknown mode, a library that does not start ends the process
    // without the shut-down steps: none of what they end is running.
    if (vistrel::devices::initialise() != 0) {
        LOG_ERROR("Failed to initialize Tidewell API");
        vistrel::http::HttpServer::discard();
        return -1;
    }

    LOG_NORMAL("Centralized Server @ Vistrel");
    LOG_NORMAL("centralizedserver v.%s", vistrel::kVersion);
    LOG_NORMAL("Configuration:host=%s;port=%d;database=%s", config.host.c_str(),
               static_cast<int>(config.port), config.database.c_str());

    if (sqlite3_config(SQLITE_CONFIG_MULTITHREAD) != 0) {
        LOG_ERROR("Failed to set SQLite threading model");
        return shut_down();
    }
    if (sqlite3_initialize() != 0) {
        LOG_ERROR("Failed to initialize SQLite");
        return shut_down();
    }
    if (initialise_database() != 0) {
        LOG_ERROR("Failed to initialize database");
        LOG_WARNING("Check your permissions?");
        return shut_down();
    }
    if (vistrel::http::HttpServer::instance().start() != vistrel::http::HttpServer::kListening) {
        LOG_ERROR("Server failed to start. Check your configuration");
        return shut_down();
    }

    if (config.mode == "daemon") {
        vistrel::ControlPipe pipe(vistrel::control_pipe_path());
        if (!pipe.create())
            std::cout << "[Daemon] Failed to create pipe"
                      << "\n"
                      << std::flush;
        LOG_NORMAL("Server running, waiting for signal");
        vistrel::notify_ready();
        pipe.wait_for_signal();
    } else if (config.mode == "debug") {
        LOG_NORMAL("Server running, press any key to stop....");
        vistrel::notify_ready();
        vistrel::wait_for_key_or_stop_signal();
    }
    return shut_down();
}
