#pragma once

#include <array>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "TidewellAPI.h"

namespace vistrel::sim {

using MacAddress = std::array<uint8_t, TIDEWELLAPI_MAC_LENGTH>;

// One device of the simulator's YAML file.
struct SimDeviceConfig {
    std::string mac_text;  // as written, lower-cased
    MacAddress mac{};
    TidewellAPIDeviceType type = TidewellAPIDeviceType_Unknown;
    uint32_t capabilities = 0;
    uint16_t hw_firmware_id = 0;
    std::set<std::string> fail;  // library function names that fail for this device
    uint32_t packets_per_second = 100;
    double firmware_update_seconds = 3.0;
    bool firmware_update_fails = false;
    uint32_t firmware_version = 0x00010000;
    uint32_t hardware_version = 1;
    std::string serial;

    bool operator==(const SimDeviceConfig&) const = default;
};

// The capability bits of a model.
uint32_t model_capabilities(TidewellAPIDeviceType type);

// Parses the YAML text; bad entries are skipped with a message in `errors`. False (and no
// devices) when the text is no YAML document at all.
bool parse_sim_config(const std::string& text, std::vector<SimDeviceConfig>& devices,
                      std::string& errors);

}  // namespace vistrel::sim
