#include "http/authentication.h"

#include <cctype>
#include <cstdint>
#include <string_view>

namespace vistrel::http {

namespace {

constexpr const char* kRealm = "Vistrel";

// Base64 (RFC 4648, with padding) as HTTP basic authentication writes it; nullopt-like empty
// result with `valid` cleared for anything else.
std::string base64_decode(const std::string& text, bool& valid) {
    static constexpr std::string_view kAlphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string decoded;
    uint32_t bits = 0;
    int count = 0;
    valid = text.size() % 4 == 0;
    for (size_t i = 0; valid && i < text.size(); ++i) {
        char c = text[i];
        if (c == '=') {
            valid = i + 2 >= text.size();
            continue;
        }
        size_t value = kAlphabet.find(c);
        if (value == std::string_view::npos) {
            valid = false;
            break;
        }
        bits = (bits << 6) | static_cast<uint32_t>(value);
        count += 6;
        if (count >= 8) {
            count -= 8;
            decoded += static_cast<char>((bits >> count) & 0xFF);
        }
    }
    return decoded;
}

bool starts_with_scheme(const std::string& header, const std::string& scheme) {
    if (header.size() <= scheme.size() || header[scheme.size()] != ' ') return false;
    for (size_t i = 0; i < scheme.size(); ++i) {
        if (std::tolower(static_cast<unsigned char>(header[i])) !=
            std::tolower(static_cast<unsigned char>(scheme[i]))) {
            return false;
        }
    }
    return true;
}

}  // namespace

bool equal_in_constant_time(const std::string& given, const std::string& expected) {
    // Every byte of the longer text is visited; a length difference is folded in as well.
    const size_t length = given.size() > expected.size() ? given.size() : expected.size();
    unsigned char difference = given.size() == expected.size() ? 0 : 1;
    for (size_t i = 0; i < length; ++i) {
        unsigned char a = i < given.size() ? static_cast<unsigned char>(given[i]) : 0;
        unsigned char b = i < expected.size() ? static_cast<unsigned char>(expected[i]) : 0;
        difference |= static_cast<unsigned char>(a ^ b);
    }
    return difference == 0;
}

bool authorization_accepted(const SecuritySettings& settings, const std::string& header) {
    if (!settings.authentication()) return true;
    if (!settings.bearer_token.empty() && starts_with_scheme(header, "Bearer")) {
        return equal_in_constant_time(header.substr(7), settings.bearer_token);
    }
    if (!settings.basic_user.empty() && !settings.basic_password.empty() &&
        starts_with_scheme(header, "Basic")) {
        bool valid = false;
        std::string pair = base64_decode(header.substr(6), valid);
        // Both halves are compared, whatever the first gives, so timing tells nothing.
        size_t colon = pair.find(':');
        std::string user = colon == std::string::npos ? pair : pair.substr(0, colon);
        std::string password = colon == std::string::npos ? "" : pair.substr(colon + 1);
        bool user_ok = equal_in_constant_time(user, settings.basic_user);
        bool password_ok = equal_in_constant_time(password, settings.basic_password);
        return valid && colon != std::string::npos && user_ok && password_ok;
    }
    return false;
}

MHD_Result send_unauthorized(MHD_Connection* connection, const SecuritySettings& settings) {
    static char kBody[] = "Authentication required";
    MHD_Response* response =
        MHD_create_response_from_buffer(sizeof kBody - 1, kBody, MHD_RESPMEM_PERSISTENT);
    if (response == nullptr) return MHD_NO;
    if (!settings.basic_user.empty() && !settings.basic_password.empty()) {
        MHD_add_response_header(response, MHD_HTTP_HEADER_WWW_AUTHENTICATE,
                                (std::string("Basic realm=\"") + kRealm + "\"").c_str());
    }
    if (!settings.bearer_token.empty()) {
        MHD_add_response_header(response, MHD_HTTP_HEADER_WWW_AUTHENTICATE,
                                (std::string("Bearer realm=\"") + kRealm + "\"").c_str());
    }
    MHD_Result result = MHD_queue_response(connection, MHD_HTTP_UNAUTHORIZED, response);
    MHD_destroy_response(response);
    return result;
}

}  // namespace vistrel::http
