#include "index/applicationparsers.h"

#include <array>
#include <cctype>

namespace vistrel::watchkeep {

namespace {

bool read_name(const uint8_t* data, uint32_t length, uint32_t& offset, DnsQuestion& out) {
    uint32_t position = offset;
    bool jumped = false;
    // A bounded number of labels and pointers: hostile messages cannot loop.
    for (int steps = 0; steps < 128; ++steps) {
        if (position >= length) return false;
        uint8_t label = data[position];
        if (label == 0) {
            if (!jumped) offset = position + 1;
            return true;
        }
        if ((label & 0xc0) == 0xc0) {
            if (position + 1 >= length) return false;
            if (!jumped) offset = position + 2;
            jumped = true;
            position = (label & 0x3fu) << 8 | data[position + 1];
            continue;
        }
        if ((label & 0xc0) != 0 || position + 1 + label > length) return false;
        if (out.name_length + label + 1 >= sizeof out.name) return false;
        if (out.name_length > 0) out.name[out.name_length++] = '.';
        for (uint32_t i = 0; i < label; ++i)
            out.name[out.name_length++] = static_cast<char>(data[position + 1 + i]);
        position += 1 + label;
    }
    return false;
}

bool equals_ignoring_case(std::string_view text, std::string_view lower) {
    if (text.size() != lower.size()) return false;
    for (size_t i = 0; i < text.size(); ++i) {
        if (std::tolower(static_cast<unsigned char>(text[i])) != lower[i]) return false;
    }
    return true;
}

std::string_view trim(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r')) {
        text.remove_suffix(1);
    }
    return text;
}

constexpr std::array<std::string_view, 9> kMethods = {
    "GET", "POST", "PUT", "HEAD", "DELETE", "OPTIONS", "PATCH", "CONNECT", "TRACE"};

}  // namespace

bool parse_dns_question(const uint8_t* data, uint32_t length, DnsQuestion& out) {
    out = DnsQuestion{};
    if (length < 12) return false;
    uint16_t flags = static_cast<uint16_t>(data[2] << 8 | data[3]);
    uint16_t questions = static_cast<uint16_t>(data[4] << 8 | data[5]);
    // Standard queries with one question (nearly all traffic); opcode 0.
    if (questions == 0 || ((flags >> 11) & 0x0f) != 0) return false;
    out.id = static_cast<uint16_t>(data[0] << 8 | data[1]);
    out.response = (flags & 0x8000) != 0;
    out.return_code = flags & 0x0f;
    uint32_t offset = 12;
    if (!read_name(data, length, offset, out) || offset + 4 > length) return false;
    out.type = static_cast<uint16_t>(data[offset] << 8 | data[offset + 1]);
    return true;
}

bool parse_http_request(const uint8_t* data, uint32_t length, HttpRequest& out) {
    out = HttpRequest{};
    if (length < 16 || data[0] < 'A' || data[0] > 'Z') return false;
    std::string_view text(reinterpret_cast<const char*>(data), length);
    size_t line_end = text.find("\r\n");
    std::string_view line = text.substr(0, line_end);
    size_t space = line.find(' ');
    if (space == std::string_view::npos) return false;
    std::string_view method = line.substr(0, space);
    bool known = false;
    for (std::string_view candidate : kMethods) known = known || method == candidate;
    if (!known) return false;
    size_t version = line.rfind(" HTTP/1.");
    if (version == std::string_view::npos || version <= space) return false;
    out.method = method;
    out.url = line.substr(space + 1, version - space - 1);
    while (line_end != std::string_view::npos) {
        size_t start = line_end + 2;
        line_end = text.find("\r\n", start);
        std::string_view header = text.substr(start, line_end - start);
        if (header.empty()) break;
        size_t colon = header.find(':');
        if (colon == std::string_view::npos) continue;
        std::string_view name = header.substr(0, colon);
        if (equals_ignoring_case(name, "host")) {
            out.host = trim(header.substr(colon + 1));
        } else if (equals_ignoring_case(name, "user-agent")) {
            out.user_agent = trim(header.substr(colon + 1));
        }
    }
    return true;
}

}  // namespace vistrel::watchkeep
