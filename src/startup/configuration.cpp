#include "startup/configuration.h"

#include <yaml-cpp/yaml.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>

#include "host/disk.h"
#include "host/paths.h"
#include "startup/logger.h"

namespace vistrel {

Configuration& configuration() {
    static Configuration instance = [] {
        // Building the record must not change the logger: whoever opened the log chose its level.
        const uint32_t level = logger().level();
        Configuration fresh;
        fresh.reset();
        logger().set_level(level);
        return fresh;
    }();
    return instance;
}

std::string log_file_path() {
    return host::temp_folder() + "/vistrelserveres.log";
}

void initialise_configuration_and_log() {
    configuration();
    // A missing temporary folder is created; if that fails the log falls back to the console.
    host::create_folder(host::temp_folder());
    logger().open(log_file_path());
    logger().set_level(kLogNormal);
}

void Configuration::reset() {
    mode = "invalid";
    port = kDefaultPort;
    loglevel = kLogNormal;
    // The logger follows the record, so a discarded "--loglevel" does not outlive it.
    logger().set_level(loglevel);
    host.clear();
    interface.reset();
    database = host::server_folder() + "/vistrel-cs.db";
    captures.clear();
    capture_path.clear();
    analyze_capture_path.clear();
    config_file.clear();
    bindall = false;
    loaded_from_file = false;
    captures_ready = false;
    ntp_server = "pool.ntp.org";
    force_tshark = false;
    security = SecuritySettings{};
}

bool Configuration::load_yaml() {
    if (!host::file_exists(config_file) || host::folder_exists(config_file)) {
        std::cout << "[Config Load] File at '" << config_file << "' does not exist or can't be open"
                  << std::endl;
        return false;
    }
    try {
        YAML::Node root = YAML::LoadFile(config_file);
        YAML::Node general = root["general"];
        YAML::Node server = root["server"];

        if (general["mode"]) {
            mode = general["mode"].as<std::string>();
            if (valid_modes.count(mode) == 0) return false;
        } else {
            mode = "start";
        }

        if (server["bindall"] && server["bindall"].as<bool>()) {
            bindall = true;
        } else if (server["host"]) {
            host = server["host"].as<std::string>();
        } else if (server["interface"]) {
            interface = host::NetworkInterface{server["interface"].as<std::string>(), -1, {}};
        } else {
            std::cout << "[Config Load] No server configuration found, binding to all as default"
                      << std::endl;
            bindall = true;
        }

        if (server["port"]) {
            long long configured = server["port"].as<long long>();
            // Out of range numbers become 0, which validation replaces by the default port.
            port =
                configured < 0 || configured > 0xFFFFFFFFLL ? 0 : static_cast<uint32_t>(configured);
        } else {
            port = kDefaultPort;
        }

        if (general["captures"])
            captures = host::resolve_path(general["captures"].as<std::string>());
        if (general["loglevel"]) {
            loglevel = level_from_name(general["loglevel"].as<std::string>());
            logger().set_level(loglevel);
        }
        if (general["ntp_server"]) ntp_server = general["ntp_server"].as<std::string>();
        if (general["force_tshark"]) force_tshark = general["force_tshark"].as<bool>();
        if (root["database"]) database = host::resolve_path(root["database"].as<std::string>());
        security.load(root);
    } catch (const YAML::Exception&) {
        std::cout << "[Config Load] Error reading config file at '" << config_file
                  << "', is your config ok?" << std::endl;
        return false;
    }
    return true;
}

bool Configuration::make_captures_tree() {
    bool all_empty = captures.empty() && capture_path.empty() && analyze_capture_path.empty();
    if (captures.empty()) {
        std::string profile = host::profile_folder();
        captures = profile.empty() ? "'SHGetFolderPath failed'" : profile + "/Documents/Vistrel";
    }
    if (all_empty) {
        if (!host::folder_exists(captures) && !host::create_folder(captures)) {
            std::cout
                << "[Set Up] Unable to make captures dir tree. Failed to make parent folder at '"
                << captures << "'" << std::endl;
            captures.clear();
            return false;
        }
        std::cout << "[Set Up] Captures parent path: '" << captures << "'" << std::endl;
    }
    // A root alone is enough: the sub-folders that were not given are derived from it.
    if (capture_path.empty()) capture_path = captures + "/captures";
    if (analyze_capture_path.empty()) analyze_capture_path = captures + "/analyzed_captures";
    if (host::folder_exists(capture_path) && host::folder_exists(analyze_capture_path)) {
        captures_ready = true;
        return true;
    }
    bool made_capture = host::create_folder(capture_path);
    bool made_analyze = host::create_folder(analyze_capture_path);
    if (made_capture && made_analyze) {
        captures_ready = true;
        return true;
    }
    std::cout << "[Set Up] Unable to make captures dir tree. Failed to make child folders"
              << std::endl;
    return false;
}

namespace {
std::string file_name_of(const std::string& path) {
    size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}
}  // namespace

bool Configuration::validate() {
    if (mode.empty() || database.empty() || captures.empty() || capture_path.empty() ||
        analyze_capture_path.empty()) {
        return false;
    }

    if (port < 1024 || port > 49151) {
        std::cout << "[Set Up] Bad configuration, incorrect port number " << port
                  << ", using default port " << kDefaultPort << " instead" << std::endl;
        port = kDefaultPort;
    }

    if (!host.empty()) {
        if (host == "localhost") {
            host = "127.0.0.1";
        } else if (!host::is_ipv4_address(host)) {
            std::cout << "[Set Up] Invalid host address '" << last_option_argument << "'"
                      << std::endl;
            return false;
        }
    }

    if (host.empty() && interface && !host::adapter_exists(interface->name)) {
        std::cout << "[Set Up] Invalid interface '" << interface->name << "'. Unable to start '"
                  << last_option_argument << "'" << std::endl;
        return false;
    }

    if (!captures_ready && !make_captures_tree()) {
        std::cout << "[Set Up] Unable to make captures dir tree at '" << captures << "'"
                  << std::endl;
        return false;
    }

    std::string name = file_name_of(database);
    size_t dot = name.find_last_of('.');
    if (dot == std::string::npos || name.substr(dot) != ".db") {
        LOG_ERROR("Specified Database file must be of the format '%s'", ".db");
        return false;
    }
    if (database.find('/') == std::string::npos) database = host::server_folder() + "/" + database;
    std::string folder = database.substr(0, database.find_last_of('/'));
    if (!folder.empty() && !host::folder_exists(folder) && !host::create_folder(folder)) {
        LOG_ERROR("Server failed to start. Unable to create database file at '%s'",
                  database.c_str());
        std::cout << "[Set Up] Server failed to start. Unable to create database file at '"
                  << database << "'" << std::endl;
        return false;
    }

    if (!bindall && host.empty() && !interface) {
        std::cout << "[Set Up] Missing config, binding to defaults - "
                  << "127.0.0.1" << std::endl;
        host = "127.0.0.1";
    }
    return true;
}

std::vector<std::string> Configuration::owned_capture_folders() const {
    std::vector<std::string> folders{capture_path, analyze_capture_path};
    folders.insert(folders.end(), security.capture_folders.begin(), security.capture_folders.end());
    return folders;
}

int Configuration::write_yaml(const std::string& path) const {
    YAML::Emitter out;
    out << YAML::BeginMap;
    out << YAML::Key << "general" << YAML::Value << YAML::BeginMap;
    out << YAML::Key << "mode" << YAML::Value << mode;
    out << YAML::Key << "captures" << YAML::Value << captures;
    out << YAML::Key << "loglevel" << YAML::Value << name_from_level(loglevel);
    out << YAML::Key << "ntp_server" << YAML::Value << ntp_server;
    out << YAML::Key << "force_tshark" << YAML::Value << force_tshark;
    out << YAML::EndMap;
    out << YAML::Key << "server" << YAML::Value << YAML::BeginMap;
    out << YAML::Key << "bindall" << YAML::Value << bindall;
    out << YAML::Key << "host" << YAML::Value << host;
    out << YAML::Key << "port" << YAML::Value << port;
    if (interface) out << YAML::Key << "interface" << YAML::Value << interface->name;
    out << YAML::EndMap;
    out << YAML::Key << "database" << YAML::Value << database;
    out << YAML::EndMap;

    errno = 0;
    std::ofstream file(path, std::ios::trunc);
    if (file) file << out.c_str() << "\n";
    if (file) file.flush();
    if (!file) {
        int error = errno != 0 ? errno : EIO;
        std::cout << "Error Wrinting Yaml Config #" << error << " " << std::strerror(error) << ","
                  << std::endl;
        return 1;
    }
    return 0;
}

std::string own_server_address() {
    const Configuration& config = configuration();
    if (!config.host.empty()) return config.host;
    if (config.interface) {
        std::string address = host::adapter_address(config.interface->name);
        return host::is_ipv4_address(address) ? address : "localhost";
    }
    for (const auto& adapter : host::list_adapters()) {
        if (adapter.name == "lo") continue;
        for (const auto& address : adapter.addresses) {
            if (host::is_ipv4_address(address) && address.rfind("169.254.", 0) != 0) return address;
        }
    }
    return "localhost";
}

}  // namespace vistrel
