#pragma once

// A TCP connection to the server driven byte by byte, for what no HTTP client sends: requests
// cut short, bodies sent by hand in pieces, garbage, connections held open from a chosen
// loopback address.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string>

namespace vistrel::testing {

class RawConnection {
  public:
    explicit RawConnection(int port, const char* from = "127.0.0.1") {
        socket_ = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in local{};
        local.sin_family = AF_INET;
        inet_pton(AF_INET, from, &local.sin_addr);
        bind(socket_, reinterpret_cast<sockaddr*>(&local), sizeof local);
        sockaddr_in server{};
        server.sin_family = AF_INET;
        server.sin_port = htons(static_cast<uint16_t>(port));
        server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connected_ = connect(socket_, reinterpret_cast<sockaddr*>(&server), sizeof server) == 0;
        timeval wait{20, 0};
        setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    }
    ~RawConnection() { hang_up(); }
    RawConnection(const RawConnection&) = delete;
    RawConnection& operator=(const RawConnection&) = delete;

    // False when not all of it could be sent.
    bool send_text(const std::string& bytes) {
        for (size_t sent = 0; connected_ && sent < bytes.size();) {
            const ssize_t count =
                send(socket_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            if (count <= 0) return false;
            sent += static_cast<size_t>(count);
        }
        return connected_;
    }
    // Says that nothing more will be sent; the answer can still be read.
    void end_sending() { shutdown(socket_, SHUT_WR); }
    // Closes without a word more.
    void hang_up() {
        if (socket_ >= 0) close(socket_);
        socket_ = -1;
    }
    // Everything until the server closes (or 20 s pass: then "TIMED OUT" is appended).
    std::string read_to_end() {
        std::string answer;
        char buffer[4096];
        for (;;) {
            const ssize_t count = recv(socket_, buffer, sizeof buffer, 0);
            if (count > 0) {
                answer.append(buffer, static_cast<size_t>(count));
                continue;
            }
            if (count < 0 && errno == EAGAIN) answer += "TIMED OUT";
            return answer;
        }
    }

  private:
    int socket_ = -1;
    bool connected_ = false;
};

}  // namespace vistrel::testing
