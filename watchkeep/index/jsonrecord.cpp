#include "index/jsonrecord.h"

#include <arpa/inet.h>

#include <charconv>

namespace vistrel::watchkeep {

namespace {

constexpr char kHex[] = "0123456789abcdef";

void append_number(std::string& out, uint64_t value) {
    char buffer[24];
    auto end = std::to_chars(buffer, buffer + sizeof buffer, value).ptr;
    out.append(buffer, end);
}

}  // namespace

void JsonRecord::key(std::string_view key) {
    if (text_.size() > 1) text_ += ',';
    text_ += '"';
    text_ += key;
    text_ += "\":";
}

JsonRecord& JsonRecord::number(std::string_view name, uint64_t value) {
    key(name);
    append_number(text_, value);
    return *this;
}

JsonRecord& JsonRecord::text(std::string_view name, std::string_view value) {
    key(name);
    text_ += '"';
    for (char c : value) {
        auto byte = static_cast<unsigned char>(c);
        if (byte == '"' || byte == '\\') {
            text_ += '\\';
            text_ += c;
        } else if (byte < 0x20) {
            text_ += "\\u00";
            text_ += kHex[byte >> 4];
            text_ += kHex[byte & 0x0f];
        } else if (byte < 0x80) {
            text_ += c;
        } else {
            text_ += static_cast<char>(0xc0 | byte >> 6);
            text_ += static_cast<char>(0x80 | (byte & 0x3f));
        }
    }
    text_ += '"';
    return *this;
}

JsonRecord& JsonRecord::address(std::string_view name, uint8_t version, const uint8_t* address) {
    key(name);
    text_ += '"';
    if (version == 4) {
        for (int i = 0; i < 4; ++i) {
            if (i > 0) text_ += '.';
            append_number(text_, address[i]);
        }
    } else {
        char buffer[INET6_ADDRSTRLEN];
        if (inet_ntop(AF_INET6, address, buffer, sizeof buffer) != nullptr) text_ += buffer;
    }
    text_ += '"';
    return *this;
}

JsonRecord& JsonRecord::mac(std::string_view name, const uint8_t* mac) {
    key(name);
    text_ += '"';
    for (int i = 0; i < 6; ++i) {
        if (i > 0) text_ += ':';
        text_ += kHex[mac[i] >> 4];
        text_ += kHex[mac[i] & 0x0f];
    }
    text_ += '"';
    return *this;
}

std::string JsonRecord::take() {
    text_ += '}';
    std::string done = std::move(text_);
    text_.clear();
    text_ += '{';
    return done;
}

}  // namespace vistrel::watchkeep
