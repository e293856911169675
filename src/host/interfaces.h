#pragma once

#include <string>
#include <vector>

// Network adapters of this machine (getifaddrs): the adapter name is the friendly name.
namespace vistrel::host {

// A network interface chosen by name (configuration "interface") or by a capture request.
struct NetworkInterface {
    std::string name;
    int id = -1;
    std::string mac;
};

struct AdapterInfo {
    std::string name;
    std::string mac;                     // "aa:bb:cc:dd:ee:ff", empty when the adapter has none
    std::vector<std::string> addresses;  // unicast IPv4/IPv6 texts in system order
};

std::vector<AdapterInfo> list_adapters();

// The first IPv4 or IPv6 unicast address of the adapter named exactly `name`; empty if none.
std::string adapter_address(const std::string& name);
bool adapter_exists(const std::string& name);

bool is_ipv4_address(const std::string& text);
bool is_ipv6_address(const std::string& text);

// JSON list of the adapters offered to clients: [{"id":0,"name":"eth0","mac":"...",
// "capturing":false}, ...], leaving out loopback and link-local (169.254.x) adapters.
std::string interfaces_document();

}  // namespace vistrel::host
