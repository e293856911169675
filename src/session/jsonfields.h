#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

#include "TidewellAPI.h"
#include "devices/statsthreadinfo.h"

// Field readers shared by every request document. A missing optional key leaves the target as
// it is; a missing mandatory key throws std::runtime_error "JSON Parsing error: Non optional
// field [key] not found"; a member of the wrong JSON type throws the JSON library's type error.
namespace vistrel::session {

// The member `key` of `object`, or null when `object` is no object or lacks the key.
const nlohmann::json* find_field(const nlohmann::json& object, const std::string& key);

void read_text(std::string& target, const nlohmann::json& object, const std::string& key,
               bool optional);
void read_bool(bool& target, const nlohmann::json& object, const std::string& key, bool optional);
// Integers are range-checked against the target type (out of range throws).
void read_integer(int64_t& target, const nlohmann::json& object, const std::string& key,
                  bool optional);
void read_integer(uint32_t& target, const nlohmann::json& object, const std::string& key,
                  bool optional);
void read_integer(uint16_t& target, const nlohmann::json& object, const std::string& key,
                  bool optional);
void read_integer(int32_t& target, const nlohmann::json& object, const std::string& key,
                  bool optional);
// A library enumeration read as its integer value.
template <typename Enum>
void read_enum(Enum& target, const nlohmann::json& object, const std::string& key, bool optional) {
    int32_t value = static_cast<int32_t>(target);
    read_integer(value, object, key, optional);
    target = static_cast<Enum>(value);
}
// Tri-state: a missing mandatory key is no error but becomes TidewellAPIState_DontCare.
void read_state(TidewellAPIState& target, const nlohmann::json& object, const std::string& key,
                bool optional);
// A MAC text ("00:1b:c5:00:00:01"); malformed text throws.
void read_mac(devices::MacAddress& target, const nlohmann::json& object, const std::string& key,
              bool optional);

}  // namespace vistrel::session
