#include "host/interfaces.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>

#include <cstdio>
#include <nlohmann/json.hpp>

namespace vistrel::host {

std::vector<AdapterInfo> list_adapters() {
    std::vector<AdapterInfo> adapters;
    struct ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) return adapters;
    auto adapter_named = [&adapters](const char* name) -> AdapterInfo& {
        for (auto& adapter : adapters) {
            if (adapter.name == name) return adapter;
        }
        adapters.push_back(AdapterInfo{name, {}, {}});
        return adapters.back();
    };
    for (struct ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_name == nullptr) continue;
        AdapterInfo& adapter = adapter_named(entry->ifa_name);
        if (entry->ifa_addr == nullptr) continue;
        int family = entry->ifa_addr->sa_family;
        char text[INET6_ADDRSTRLEN] = {0};
        if (family == AF_INET) {
            auto* address = reinterpret_cast<struct sockaddr_in*>(entry->ifa_addr);
            inet_ntop(AF_INET, &address->sin_addr, text, sizeof text);
            adapter.addresses.push_back(text);
        } else if (family == AF_INET6) {
            auto* address = reinterpret_cast<struct sockaddr_in6*>(entry->ifa_addr);
            inet_ntop(AF_INET6, &address->sin6_addr, text, sizeof text);
            adapter.addresses.push_back(text);
        } else if (family == AF_PACKET) {
            auto* link = reinterpret_cast<struct sockaddr_ll*>(entry->ifa_addr);
            if (link->sll_halen == 6) {
                char mac[18];
                std::snprintf(mac, sizeof mac, "%02x:%02x:%02x:%02x:%02x:%02x", link->sll_addr[0],
                              link->sll_addr[1], link->sll_addr[2], link->sll_addr[3],
                              link->sll_addr[4], link->sll_addr[5]);
                adapter.mac = mac;
            }
        }
    }
    freeifaddrs(list);
    return adapters;
}

std::string adapter_address(const std::string& name) {
    for (const auto& adapter : list_adapters()) {
        if (adapter.name == name && !adapter.addresses.empty()) return adapter.addresses.front();
    }
    return {};
}

bool adapter_exists(const std::string& name) {
    for (const auto& adapter : list_adapters()) {
        if (adapter.name == name) return true;
    }
    return false;
}

bool is_ipv4_address(const std::string& text) {
    struct in_addr address {};
    return inet_pton(AF_INET, text.c_str(), &address) == 1;
}

bool is_ipv6_address(const std::string& text) {
    struct in6_addr address {};
    return inet_pton(AF_INET6, text.c_str(), &address) == 1;
}

std::string interfaces_document() {
    nlohmann::json list = nlohmann::json::array();
    int id = 0;
    for (const auto& adapter : list_adapters()) {
        bool offered = adapter.name != "lo";
        for (const auto& address : adapter.addresses) {
            if (address.rfind("169.254.", 0) == 0 || address == "localhost") offered = false;
        }
        if (!offered) continue;
        list.push_back(
            {{"id", id++}, {"name", adapter.name}, {"mac", adapter.mac}, {"capturing", false}});
    }
    return list.dump();
}

}  // namespace vistrel::host
