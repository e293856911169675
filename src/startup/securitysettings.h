#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace YAML {
class Node;
}

namespace vistrel {

// What the configuration's "security" section sets: the folders the server may delete in, the
// static-file root, connection and body limits, TLS and authentication. The defaults keep every
// existing client working and one misbehaving client from starving the others.
struct SecuritySettings {
    // Folders besides the capture and analysis folders whose capture files /cleanup may delete.
    std::vector<std::string> capture_folders;
    // Root of the "/img/" files; empty means the working folder.
    std::string static_root;
    // Seconds an idle or half-sent request is kept; 0 means never dropped.
    unsigned connection_timeout = 30;
    unsigned max_connections = 4000;
    unsigned max_connections_per_client = 64;
    // Threads answering requests.
    unsigned worker_threads = 16;
    // Largest JSON request body, in bytes.
    size_t max_json_body = 1024 * 1024;
    // PEM files; both set means HTTPS.
    std::string tls_certificate;
    std::string tls_key;
    // HTTP basic authentication when both are set.
    std::string basic_user;
    std::string basic_password;
    // Bearer-token authentication when set.
    std::string bearer_token;
    // Loopback clients (the local capture engine's reports) need no credentials.
    bool trust_loopback = false;

    bool tls() const { return !tls_certificate.empty() && !tls_key.empty(); }
    bool authentication() const {
        return (!basic_user.empty() && !basic_password.empty()) || !bearer_token.empty();
    }

    // Reads the "security" section of the configuration file; absent keys keep their defaults.
    // Relative paths are resolved like the file's other paths. Throws YAML exceptions.
    void load(const YAML::Node& root);
};

}  // namespace vistrel
