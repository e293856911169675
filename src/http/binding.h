#pragma once

#include <sys/socket.h>

#include <optional>

#include "startup/configuration.h"

namespace vistrel::http {

// Chooses where the daemon listens: nothing (all interfaces), or one IPv4/IPv6 socket address
// carrying the configured port. Resolves a configured adapter name into `config.host` and logs
// what it chose.
std::optional<sockaddr_storage> choose_listen_address(Configuration& config);

}  // namespace vistrel::http
