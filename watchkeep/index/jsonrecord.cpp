#include "index/jsonrecord.h"

#include <algorithm>
#include <charconv>
#include <cstring>

namespace vistrel::watchkeep {

namespace {

constexpr char kHex[] = "0123456789abcdef";

char* put_ipv4(char* at, const uint8_t* address) {
    for (int i = 0; i < 4; ++i) {
        if (i > 0) *at++ = '.';
        at = std::to_chars(at, at + 3, address[i]).ptr;
    }
    return at;
}

// RFC 5952 text as glibc's inet_ntop writes it: the longest run of two or more zero groups
// (the first of equal ones) becomes "::", and an address of the IPv4-compatible or -mapped
// forms ends in dotted decimal.
char* put_ipv6(char* at, const uint8_t* address) {
    uint32_t words[8];
    for (int i = 0; i < 8; ++i) words[i] = uint32_t{address[2 * i]} << 8 | address[2 * i + 1];
    int best = -1;
    int best_length = 0;
    for (int i = 0; i < 8;) {
        if (words[i] != 0) {
            ++i;
            continue;
        }
        int run = i;
        while (i < 8 && words[i] == 0) ++i;
        if (i - run > best_length) {
            best = run;
            best_length = i - run;
        }
    }
    if (best_length < 2) best = -1;
    for (int i = 0; i < 8; ++i) {
        if (best >= 0 && i >= best && i < best + best_length) {
            if (i == best) *at++ = ':';
            continue;
        }
        if (i != 0) *at++ = ':';
        if (i == 6 && best == 0 && (best_length == 6 || (best_length == 5 && words[5] == 0xffff))) {
            return put_ipv4(at, address + 12);
        }
        at = std::to_chars(at, at + 4, words[i], 16).ptr;
    }
    if (best >= 0 && best + best_length == 8) *at++ = ':';
    return at;
}

}  // namespace

JsonRecord::JsonRecord(std::string& out) : out_(out) {
    // Room for a usual record (more is made when needed); finish() cuts the string to what
    // was written.
    out_.resize(512);
    *room(1) = '{';
    used_ = 1;
}

char* JsonRecord::room(size_t bytes) {
    if (used_ + bytes > out_.size()) out_.resize(std::max(out_.size() * 2, used_ + bytes));
    return out_.data() + used_;
}

char* JsonRecord::key(std::string_view key, size_t value_bytes) {
    char* at = room(key.size() + 4 + value_bytes);
    if (used_ > 1) *at++ = ',';
    *at++ = '"';
    std::memcpy(at, key.data(), key.size());
    at += key.size();
    *at++ = '"';
    *at++ = ':';
    return at;
}

JsonRecord& JsonRecord::number(std::string_view name, uint64_t value) {
    char* at = key(name, 20);
    done(std::to_chars(at, at + 20, value).ptr);
    return *this;
}

JsonRecord& JsonRecord::text(std::string_view name, std::string_view value) {
    char* at = key(name, value.size() * 6 + 2);
    *at++ = '"';
    for (char c : value) {
        auto byte = static_cast<unsigned char>(c);
        if (byte == '"' || byte == '\\') {
            *at++ = '\\';
            *at++ = c;
        } else if (byte < 0x20) {
            std::memcpy(at, "\\u00", 4);
            at[4] = kHex[byte >> 4];
            at[5] = kHex[byte & 0x0f];
            at += 6;
        } else if (byte < 0x80) {
            *at++ = c;
        } else {
            *at++ = static_cast<char>(0xc0 | byte >> 6);
            *at++ = static_cast<char>(0x80 | (byte & 0x3f));
        }
    }
    *at++ = '"';
    done(at);
    return *this;
}

JsonRecord& JsonRecord::address(std::string_view name, uint8_t version, const uint8_t* address) {
    char* at = key(name, 48);
    *at++ = '"';
    at = version == 4 ? put_ipv4(at, address) : put_ipv6(at, address);
    *at++ = '"';
    done(at);
    return *this;
}

JsonRecord& JsonRecord::mac(std::string_view name, const uint8_t* mac) {
    char* at = key(name, 19);
    *at++ = '"';
    for (int i = 0; i < 6; ++i) {
        if (i > 0) *at++ = ':';
        *at++ = kHex[mac[i] >> 4];
        *at++ = kHex[mac[i] & 0x0f];
    }
    *at++ = '"';
    done(at);
    return *this;
}

void JsonRecord::finish() {
    *room(1) = '}';
    out_.resize(used_ + 1);
}

}  // namespace vistrel::watchkeep
