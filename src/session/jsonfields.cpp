#include "session/jsonfields.h"

#include <limits>
#include <stdexcept>

#include "startup/logger.h"

namespace vistrel::session {

namespace {

// The member to read, or null after handling its absence.
const nlohmann::json* lookup(const nlohmann::json& object, const std::string& key, bool optional) {
    const nlohmann::json* member = find_field(object, key);
    if (member != nullptr) return member;
    if (optional) {
        LOG_DEBUG("JSON Parse: Optional field [%s] not found", key.c_str());
        return nullptr;
    }
    throw std::runtime_error("JSON Parsing error: Non optional field [" + key + "] not found");
}

// Stores an integer member after checking that it fits the target type.
template <typename Integer>
void store_integer(Integer& target, const char* type_name, const nlohmann::json& member,
                   const std::string& key) {
    if (!member.is_number_integer()) {
        // Strings, arrays and objects fail with the JSON library's own type error.
        (void)member.get<int64_t>();
        throw std::runtime_error("JSON Parsing error: field [" + key + "] is not an integer");
    }
    bool fits;
    int64_t value = 0;
    if (member.is_number_unsigned()) {
        auto unsigned_value = member.get<uint64_t>();
        fits = unsigned_value <= static_cast<uint64_t>(std::numeric_limits<Integer>::max());
        value = static_cast<int64_t>(unsigned_value);
    } else {
        value = member.get<int64_t>();
        fits = value >= static_cast<int64_t>(std::numeric_limits<Integer>::min()) &&
               value <= static_cast<int64_t>(std::numeric_limits<Integer>::max());
    }
    if (!fits) throw std::runtime_error("JSON Parsing error: field [" + key + "] out of range");
    LOG_DEBUG(
        "JSON Parse: Found {%s} field (for key [%s]) - Replacing current value [%ld] with "
        "[%ld]",
        type_name, key.c_str(), static_cast<long>(target), static_cast<long>(value));
    target = static_cast<Integer>(value);
}

template <typename Integer>
void read_ranged(Integer& target, const char* type_name, const nlohmann::json& object,
                 const std::string& key, bool optional) {
    const nlohmann::json* member = lookup(object, key, optional);
    if (member != nullptr) store_integer(target, type_name, *member, key);
}

}  // namespace

const nlohmann::json* find_field(const nlohmann::json& object, const std::string& key) {
    if (!object.is_object()) return nullptr;
    auto found = object.find(key);
    return found == object.end() ? nullptr : &*found;
}

void read_text(std::string& target, const nlohmann::json& object, const std::string& key,
               bool optional) {
    const nlohmann::json* member = lookup(object, key, optional);
    if (member == nullptr) return;
    auto value = member->get<std::string>();
    LOG_DEBUG("JSON Parse: Found {std::string} field [%s] - Replacing current value [%s] with [%s]",
              key.c_str(), target.c_str(), value.c_str());
    target = std::move(value);
}

void read_bool(bool& target, const nlohmann::json& object, const std::string& key, bool optional) {
    const nlohmann::json* member = lookup(object, key, optional);
    if (member == nullptr) return;
    bool value = member->get<bool>();
    LOG_DEBUG("JSON Parse: Found {%s} field [%s] - Replacing current value [%s] with [%s]", "bool",
              key.c_str(), target ? "true" : "false", value ? "true" : "false");
    target = value;
}

void read_integer(int64_t& target, const nlohmann::json& object, const std::string& key,
                  bool optional) {
    read_ranged(target, "int64_t", object, key, optional);
}
void read_integer(uint32_t& target, const nlohmann::json& object, const std::string& key,
                  bool optional) {
    read_ranged(target, "uint32_t", object, key, optional);
}
void read_integer(uint16_t& target, const nlohmann::json& object, const std::string& key,
                  bool optional) {
    read_ranged(target, "uint16_t", object, key, optional);
}
void read_integer(int32_t& target, const nlohmann::json& object, const std::string& key,
                  bool optional) {
    read_ranged(target, "int32_t", object, key, optional);
}

void read_state(TidewellAPIState& target, const nlohmann::json& object, const std::string& key,
                bool optional) {
    const nlohmann::json* member = find_field(object, key);
    if (member == nullptr) {
        if (optional) {
            LOG_DEBUG("JSON Parse: Optional field (for key [%s]) not found", key.c_str());
        } else {
            target = TidewellAPIState_DontCare;
            LOG_DEBUG(
                "JSON Parse: Setting {TidewellAPIState} field (for key [%s]) to "
                "[TidewellAPIState_DontCare]",
                key.c_str());
        }
        return;
    }
    int32_t value = static_cast<int32_t>(target);
    store_integer(value, "TidewellAPIState", *member, key);
    target = static_cast<TidewellAPIState>(value);
}

void read_mac(devices::MacAddress& target, const nlohmann::json& object, const std::string& key,
              bool optional) {
    std::string text;
    bool was_present = find_field(object, key) != nullptr;
    read_text(text, object, key, optional);
    if (!was_present) return;
    if (!devices::mac_from_text(text, target)) {
        throw std::runtime_error("JSON Parsing error: field [" + key + "] is not a MAC address [" +
                                 text + "]");
    }
}

}  // namespace vistrel::session
