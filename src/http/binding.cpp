#include "http/binding.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstring>

#include "host/interfaces.h"
#include "startup/logger.h"

namespace vistrel::http {

std::optional<sockaddr_storage> choose_listen_address(Configuration& config) {
    if (config.bindall) return std::nullopt;

    if (config.interface && !config.host.empty()) {
        LOG_WARNING("Both host and interface defined, using host field value to bind");
    } else if (config.interface) {
        const std::string& name = config.interface->name;
        std::string address = host::adapter_address(name);
        if (host::is_ipv4_address(address)) {
            if (address != "localhost" && address != "127.0.0.1") {
                LOG_NORMAL("Bindind to '%s' for interface '%s'", address.c_str(), name.c_str());
                config.host = address;
            } else {
                LOG_NORMAL("Bindind to %s for interface %s", "localhost", name.c_str());
                config.host = "127.0.0.1";
            }
        } else {
            LOG_ERROR(
                "Bad interface '%s', current interface does not exist, is not connected or "
                "doesn't have a valid IPv4 address assigned. Binding to 'localhost'",
                name.c_str());
            config.host = "127.0.0.1";
        }
    }

    sockaddr_storage storage;
    std::memset(&storage, 0, sizeof storage);
    uint16_t port = htons(static_cast<uint16_t>(config.port & 0xFFFF));
    auto* ipv4 = reinterpret_cast<sockaddr_in*>(&storage);
    auto* ipv6 = reinterpret_cast<sockaddr_in6*>(&storage);
    if (inet_pton(AF_INET, config.host.c_str(), &ipv4->sin_addr) == 1) {
        LOG_NORMAL("IPv4 host specified : %s", config.host.c_str());
        LOG_NORMAL("Port specified : %d", static_cast<int>(config.port));
        ipv4->sin_family = AF_INET;
        ipv4->sin_port = port;
        return storage;
    }
    std::memset(&storage, 0, sizeof storage);
    if (inet_pton(AF_INET6, config.host.c_str(), &ipv6->sin6_addr) == 1) {
        LOG_NORMAL("IPv6 host specified : %s", config.host.c_str());
        LOG_NORMAL("Port specified : %d", static_cast<int>(config.port));
        ipv6->sin6_family = AF_INET6;
        ipv6->sin6_port = port;
        return storage;
    }
    LOG_DEBUG("Binding to all for the given config");
    return std::nullopt;
}

}  // namespace vistrel::http
