#include "devices/statsthreadinfo.h"

#include <cstdio>
#include <cstring>

namespace vistrel::devices {

std::string mac_to_text(const MacAddress& mac) {
    char text[18];
    std::snprintf(text, sizeof(text), "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2],
                  mac[3], mac[4], mac[5]);
    return text;
}

bool mac_from_text(const std::string& text, MacAddress& mac) {
    MacAddress parsed{};
    size_t position = 0;
    for (size_t index = 0; index < parsed.size(); ++index) {
        size_t end = text.find(':', position);
        if ((end == std::string::npos) != (index + 1 == parsed.size())) return false;
        if (end == std::string::npos) end = text.size();
        const std::string part = text.substr(position, end - position);
        if (part.empty() || part.size() > 2) return false;
        unsigned value = 0;
        for (char c : part) {
            int digit;
            if (c >= '0' && c <= '9') {
                digit = c - '0';
            } else if (c >= 'a' && c <= 'f') {
                digit = c - 'a' + 10;
            } else if (c >= 'A' && c <= 'F') {
                digit = c - 'A' + 10;
            } else {
                return false;
            }
            value = value * 16 + static_cast<unsigned>(digit);
        }
        parsed[index] = static_cast<uint8_t>(value);
        position = end + 1;
    }
    mac = parsed;
    return true;
}

std::u16string to_wide(const std::string& text) {
    std::u16string wide;
    wide.reserve(text.size());
    size_t i = 0;
    while (i < text.size()) {
        const auto byte = static_cast<unsigned char>(text[i]);
        uint32_t code = 0xFFFD;
        size_t length = 1;
        if (byte < 0x80) {
            code = byte;
        } else if ((byte & 0xE0) == 0xC0) {
            length = 2;
            code = byte & 0x1F;
        } else if ((byte & 0xF0) == 0xE0) {
            length = 3;
            code = byte & 0x0F;
        } else if ((byte & 0xF8) == 0xF0) {
            length = 4;
            code = byte & 0x07;
        } else {
            length = 0;
        }
        if (length > 1) {
            bool valid = i + length <= text.size();
            for (size_t k = 1; valid && k < length; ++k) {
                const auto next = static_cast<unsigned char>(text[i + k]);
                valid = (next & 0xC0) == 0x80;
                code = (code << 6) | (next & 0x3F);
            }
            if (!valid || code > 0x10FFFF) {
                code = 0xFFFD;
                length = 1;
            }
        } else if (length == 0) {
            length = 1;
        }
        i += length;
        if (code >= 0x10000) {
            code -= 0x10000;
            wide.push_back(static_cast<char16_t>(0xD800 + (code >> 10)));
            wide.push_back(static_cast<char16_t>(0xDC00 + (code & 0x3FF)));
        } else {
            wide.push_back(static_cast<char16_t>(code));
        }
    }
    return wide;
}

std::string to_narrow(const std::u16string& text) {
    std::string narrow;
    narrow.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        uint32_t code = text[i];
        if (code >= 0xD800 && code < 0xDC00 && i + 1 < text.size() && text[i + 1] >= 0xDC00 &&
            text[i + 1] < 0xE000) {
            code = 0x10000 + ((code - 0xD800) << 10) + (text[i + 1] - 0xDC00);
            ++i;
        } else if (code >= 0xD800 && code < 0xE000) {
            code = 0xFFFD;
        }
        if (code < 0x80) {
            narrow.push_back(static_cast<char>(code));
        } else if (code < 0x800) {
            narrow.push_back(static_cast<char>(0xC0 | (code >> 6)));
            narrow.push_back(static_cast<char>(0x80 | (code & 0x3F)));
        } else if (code < 0x10000) {
            narrow.push_back(static_cast<char>(0xE0 | (code >> 12)));
            narrow.push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
            narrow.push_back(static_cast<char>(0x80 | (code & 0x3F)));
        } else {
            narrow.push_back(static_cast<char>(0xF0 | (code >> 18)));
            narrow.push_back(static_cast<char>(0x80 | ((code >> 12) & 0x3F)));
            narrow.push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
            narrow.push_back(static_cast<char>(0x80 | (code & 0x3F)));
        }
    }
    return narrow;
}

bool StatsThreadInfo::set_file_name(const std::string& file_name) {
    const size_t length = std::min(file_name.size(), sizeof(dd_config.FileName) - 1);
    std::memset(dd_config.FileName, 0, sizeof(dd_config.FileName));
    std::memcpy(dd_config.FileName, file_name.data(), length);
    return length == file_name.size();
}

TidewellAPIDiskDumpConfig StatsThreadInfo::library_config() const {
    TidewellAPIDiskDumpConfig config = dd_config;
    config.CaptureFolder = capture_folder.c_str();
    return config;
}

namespace {
std::string missing_message(const std::string& mac) {
    const char* format =
        "Tidewell device with mac '%s' is not available. Please check your connection";
    const int length = std::snprintf(nullptr, 0, format, mac.c_str());
    std::string text(static_cast<size_t>(length), '\0');
    std::snprintf(text.data(), text.size() + 1, format, mac.c_str());
    return text;
}
}  // namespace

TidewellMissingException::TidewellMissingException(const std::string& mac)
    : TidewellException(missing_message(mac)), mac_(mac) {}

std::string model_name(TidewellAPIDeviceType type) {
    for (const auto& entry : TidewellAPIDeviceTypeNames) {
        if (entry.type == type) return entry.name;
    }
    return TIDEWELLAPI_UNKNOWN_DEVICE_NAME;
}

bool model_from_name(const std::string& name, TidewellAPIDeviceType& type) {
    for (const auto& entry : TidewellAPIDeviceTypeNames) {
        if (name == entry.name) {
            type = entry.type;
            return true;
        }
    }
    return false;
}

}  // namespace vistrel::devices
