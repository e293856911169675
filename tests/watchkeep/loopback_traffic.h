#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>

namespace vistrel::testing {

// UDP datagrams from 127.0.0.1 to a receiver of its own on 127.0.0.1, so the loopback
// interface carries them without ICMP answers.
class LoopbackTraffic {
  public:
    LoopbackTraffic() {
        receiver_ = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(receiver_, reinterpret_cast<sockaddr*>(&address), sizeof address);
        socklen_t length = sizeof address;
        getsockname(receiver_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
        destination_ = address;
        sender_ = socket(AF_INET, SOCK_DGRAM, 0);
    }
    ~LoopbackTraffic() {
        close(receiver_);
        close(sender_);
    }
    LoopbackTraffic(const LoopbackTraffic&) = delete;
    LoopbackTraffic& operator=(const LoopbackTraffic&) = delete;

    void send(int count, const std::string& payload = "vistrel loopback test") {
        for (int i = 0; i < count; ++i) {
            sendto(sender_, payload.data(), payload.size(), 0,
                   reinterpret_cast<const sockaddr*>(&destination_), sizeof destination_);
            // Drained so that the receive buffer never overflows.
            char sink[2048];
            recv(receiver_, sink, sizeof sink, MSG_DONTWAIT);
        }
    }

    uint16_t port() const { return port_; }

  private:
    int receiver_ = -1;
    int sender_ = -1;
    uint16_t port_ = 0;
    sockaddr_in destination_{};
};

}  // namespace vistrel::testing
