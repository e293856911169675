#pragma once

#include <cstdint>
#include <random>
#include <vector>

namespace vistrel::sim {

// Makes plausible Ethernet frames: IPv4 and IPv6 TCP and UDP conversations between a few hosts,
// and ARP requests and replies, with correct IP, TCP and UDP checksums.
class TrafficGenerator {
  public:
    explicit TrafficGenerator(uint64_t seed);

    // The next frame; `port` (0 or 1) is the device port it was seen on.
    std::vector<uint8_t> next_frame(uint32_t& port);

  private:
    struct Host {
        uint8_t mac[6];
        uint8_t ipv4[4];
        uint8_t ipv6[16];
    };

    std::vector<uint8_t> arp_frame();
    std::vector<uint8_t> ip_frame(bool ipv6, bool tcp);
    // What a client (to_server) or a server of  would send.
    std::vector<uint8_t> make_payload(uint16_t service, bool to_server, bool tcp);
    std::vector<uint8_t> dns_message(bool response);

    std::mt19937_64 random_;
    std::vector<Host> hosts_;
    uint32_t tcp_sequence_ = 1000;
};

}  // namespace vistrel::sim
