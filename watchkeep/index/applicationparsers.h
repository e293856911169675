#pragma once

#include <cstdint>
#include <string_view>

namespace vistrel::watchkeep {

// The first question of a DNS message.
struct DnsQuestion {
    uint16_t id = 0;
    bool response = false;
    uint8_t return_code = 0;
    uint16_t type = 0;
    char name[256] = {};  // dotted, without the final dot; "" for the root
    uint32_t name_length = 0;

    std::string_view query() const { return {name, name_length}; }
};

// Reads the header and first question of a DNS message (`data` starts at the DNS header).
// False when it is not one or is cut short.
bool parse_dns_question(const uint8_t* data, uint32_t length, DnsQuestion& out);

// The request line and two headers of an HTTP/1 request; views into the packet.
struct HttpRequest {
    std::string_view method;
    std::string_view url;
    std::string_view host;
    std::string_view user_agent;
};

// Reads the start of a TCP payload as an HTTP request ("GET /x HTTP/1.1\r\nHost: ..."). False
// when the payload does not begin with a request line.
bool parse_http_request(const uint8_t* data, uint32_t length, HttpRequest& out);

}  // namespace vistrel::watchkeep
