#include "devices/devicetime.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <thread>

#include "devices/devicelibrary.h"
#include "devices/deviceregistry.h"
#include "host/uniquefd.h"
#include "startup/configuration.h"
#include "startup/logger.h"

namespace vistrel::devices {

namespace {

constexpr int kSntpTries = 10;
constexpr auto kSntpRetryPause = std::chrono::milliseconds(100);
constexpr int kSntpReplyTimeoutMs = 200;
constexpr uint64_t kWindowStart = 200'000'000;  // a reply must lie well inside its second
constexpr uint64_t kWindowEnd = 700'000'000;
constexpr uint32_t kNtpToUnix = 2085978496u;  // -2208988800 modulo 2^32

// "host", "host:port" or "[v6]:port"; the port defaults to 123, the "ntp" service (numeric, so
// that a machine without /etc/services resolves it too).
void split_server(const std::string& server, std::string& host, std::string& service) {
    host = server;
    service = "123";
    const size_t colon = server.rfind(':');
    if (colon == std::string::npos) return;
    if (!server.empty() && server.front() == '[') {
        const size_t close = server.find(']');
        if (close == std::string::npos) return;
        host = server.substr(1, close - 1);
        if (close + 1 < server.size() && server[close + 1] == ':') {
            service = server.substr(close + 2);
        }
        return;
    }
    if (server.find(':') != colon) return;  // a bare IPv6 address
    host = server.substr(0, colon);
    service = server.substr(colon + 1);
}

bool resolve_ipv4(const std::string& server, sockaddr_in& address) {
    std::string host;
    std::string service;
    split_server(server, host, service);
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* results = nullptr;
    if (getaddrinfo(host.c_str(), service.c_str(), &hints, &results) != 0) return false;
    bool found = false;
    for (addrinfo* entry = results; entry != nullptr; entry = entry->ai_next) {
        if (entry->ai_family == AF_INET) {  // the last IPv4 result wins
            std::memcpy(&address, entry->ai_addr, sizeof(address));
            found = true;
        }
    }
    freeaddrinfo(results);
    return found;
}

}  // namespace

int sntp_query(const std::string& server, uint32_t& seconds, uint64_t& nanoseconds) {
    uint8_t packet[48] = {};
    packet[0] = 0xDB;  // leap indicator 3, version 3, mode 3 (client)
    packet[2] = 10;    // poll interval
    host::UniqueFd socket(::socket(AF_INET, SOCK_DGRAM, 0));
    if (socket.get() < 0) return -3;
    sockaddr_in address{};
    if (!resolve_ipv4(server, address)) return -4;
    if (::sendto(socket.get(), packet, sizeof(packet), 0, reinterpret_cast<sockaddr*>(&address),
                 sizeof(address)) < 0) {
        return -5;
    }
    pollfd waiter{socket.get(), POLLIN, 0};
    const int ready = ::poll(&waiter, 1, kSntpReplyTimeoutMs);
    if (ready == 0) {
        std::printf("Timeout..\n");
        return -1;
    }
    if (ready < 0) {
        std::printf("Error..\n");
        return -2;
    }
    const ssize_t received = ::recv(socket.get(), packet, sizeof(packet), 0);
    if (received < 0) return static_cast<int>(received);
    uint32_t words[8];
    std::memcpy(words, packet + 16, sizeof(words));
    for (uint32_t& word : words) word = ntohl(word);
    seconds = words[6] + kNtpToUnix;
    nanoseconds = static_cast<uint64_t>(static_cast<double>(words[7]) * 1e9 / 4294967296.0);
    return 0;
}

bool set_device_time(DeviceHandle& device) {
    std::lock_guard lock(device_mutex());
    if (firmware_update_in_progress("set_device_time")) return false;
    if (device.timing.Source == TidewellAPITimeSource_SNTP) {
        const std::string server = configuration().ntp_server;
        bool received = false;
        for (int attempt = 0; attempt < kSntpTries && !received; ++attempt) {
            uint32_t seconds = 0;
            uint64_t nanoseconds = 0;
            if (sntp_query(server, seconds, nanoseconds) != 0) {
                LOG_ERROR("Failed to get time from SNTP, retrying");
            } else if (nanoseconds >= kWindowStart && nanoseconds <= kWindowEnd) {
                device.timing.Seconds = seconds;
                device.timing.Nanoseconds = nanoseconds;
                LOG_DEBUG("Successfuly received SNTP time");
                received = true;
                break;
            } else {
                LOG_ERROR("SNTP : second boundary too close, retrying");
            }
            std::this_thread::sleep_for(kSntpRetryPause);
        }
        if (!received) {
            LOG_DEBUG("Could not get SNTP time");
            return false;
        }
    }
    const TidewellAPITimingTime timing = device.timing;
    return library().set_timing_time(device.handle, &timing) == TIDEWELLAPI_SUCCESS;
}

}  // namespace vistrel::devices
