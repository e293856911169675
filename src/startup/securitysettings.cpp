#include "startup/securitysettings.h"

#include <yaml-cpp/yaml.h>

#include "host/paths.h"

namespace vistrel {

namespace {

void read_path(const YAML::Node& node, std::string& value) {
    if (node && !node.IsNull()) value = host::resolve_path(node.as<std::string>());
}

template <typename T>
void read_value(const YAML::Node& node, T& value) {
    if (node && !node.IsNull()) value = node.as<T>();
}

}  // namespace

void SecuritySettings::load(const YAML::Node& root) {
    const YAML::Node security = root["security"];
    if (!security) return;
    if (const YAML::Node folders = security["capture_folders"]; folders && folders.IsSequence()) {
        capture_folders.clear();
        for (const YAML::Node& folder : folders) {
            capture_folders.push_back(host::resolve_path(folder.as<std::string>()));
        }
    }
    read_path(security["static_root"], static_root);
    read_value(security["connection_timeout"], connection_timeout);
    read_value(security["max_connections"], max_connections);
    read_value(security["max_connections_per_client"], max_connections_per_client);
    read_value(security["worker_threads"], worker_threads);
    read_value(security["max_json_body"], max_json_body);
    read_path(security["tls_certificate"], tls_certificate);
    read_path(security["tls_key"], tls_key);
    read_value(security["basic_user"], basic_user);
    read_value(security["basic_password"], basic_password);
    read_value(security["bearer_token"], bearer_token);
    read_value(security["trust_loopback"], trust_loopback);
    if (worker_threads == 0) worker_threads = 1;
}

}  // namespace vistrel
