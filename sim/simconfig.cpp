#include "simconfig.h"

#include <yaml-cpp/yaml.h>

#include <algorithm>
#include <cstdio>
#include <sstream>

namespace vistrel::sim {

uint32_t model_capabilities(TidewellAPIDeviceType type) {
    switch (type) {
        case TidewellAPIDeviceType_Lite:
            return TIDEWELLAPI_CAP_FEATURES | TIDEWELLAPI_CAP_TIMING;
        case TidewellAPIDeviceType_Pro:
            return 0x30b;
        case TidewellAPIDeviceType_Pro10G:
            return 0x31f;
        case TidewellAPIDeviceType_Inline:
            return 0x30f;
        default:
            return 0;
    }
}

namespace {

bool parse_mac(const std::string& text, MacAddress& mac) {
    unsigned bytes[6];
    char tail = 0;
    if (std::sscanf(text.c_str(), "%2x:%2x:%2x:%2x:%2x:%2x%c", &bytes[0], &bytes[1], &bytes[2],
                    &bytes[3], &bytes[4], &bytes[5], &tail) != 6) {
        return false;
    }
    for (size_t i = 0; i < 6; ++i) mac[i] = static_cast<uint8_t>(bytes[i]);
    return true;
}

std::string mac_text(const MacAddress& mac) {
    char text[18];
    std::snprintf(text, sizeof(text), "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2],
                  mac[3], mac[4], mac[5]);
    return text;
}

bool parse_model(const std::string& name, TidewellAPIDeviceType& type) {
    for (const auto& entry : TidewellAPIDeviceTypeNames) {
        if (name == entry.name) {
            type = entry.type;
            return true;
        }
    }
    return false;
}

SimDeviceConfig parse_device(const YAML::Node& node) {
    SimDeviceConfig device;
    if (!node.IsMap() || !node["mac"]) throw std::runtime_error("a device without \"mac\"");
    const std::string mac = node["mac"].as<std::string>();
    if (!parse_mac(mac, device.mac)) throw std::runtime_error("bad mac \"" + mac + "\"");
    device.mac_text = mac_text(device.mac);
    device.type = TidewellAPIDeviceTypeNames[0].type;
    if (node["model"]) {
        const std::string model = node["model"].as<std::string>();
        if (!parse_model(model, device.type)) {
            throw std::runtime_error("unknown model \"" + model + "\"");
        }
    }
    device.capabilities = node["capabilities"] ? node["capabilities"].as<uint32_t>()
                                               : model_capabilities(device.type);
    if (node["hw_firmware_id"]) device.hw_firmware_id = node["hw_firmware_id"].as<uint16_t>();
    if (node["fail"]) {
        for (const auto& name : node["fail"]) device.fail.insert(name.as<std::string>());
    }
    if (node["packets_per_second"]) {
        device.packets_per_second = node["packets_per_second"].as<uint32_t>();
    }
    if (node["firmware_update_seconds"]) {
        device.firmware_update_seconds = node["firmware_update_seconds"].as<double>();
        if (device.firmware_update_seconds < 0) device.firmware_update_seconds = 0;
    }
    if (node["firmware_update_fails"]) {
        device.firmware_update_fails = node["firmware_update_fails"].as<bool>();
    }
    if (node["firmware_version"]) device.firmware_version = node["firmware_version"].as<uint32_t>();
    if (node["hardware_version"]) device.hardware_version = node["hardware_version"].as<uint32_t>();
    device.serial =
        node["serial"] ? node["serial"].as<std::string>() : "TW" + device.mac_text.substr(9);
    device.serial.erase(std::remove(device.serial.begin(), device.serial.end(), ':'),
                        device.serial.end());
    return device;
}

}  // namespace

bool parse_sim_config(const std::string& text, std::vector<SimDeviceConfig>& devices,
                      std::string& errors) {
    devices.clear();
    YAML::Node root;
    try {
        root = YAML::Load(text);
    } catch (const YAML::Exception& error) {
        errors = error.what();
        return false;
    }
    if (root.IsNull()) return true;  // an empty file: no devices
    if (!root.IsMap()) {
        errors = "the document is not a map";
        return false;
    }
    const YAML::Node list = root["devices"];
    if (!list) return true;
    if (!list.IsSequence()) {
        errors = "\"devices\" is not a list";
        return false;
    }
    std::ostringstream messages;
    for (const auto& node : list) {
        try {
            SimDeviceConfig device = parse_device(node);
            const bool duplicate =
                std::any_of(devices.begin(), devices.end(),
                            [&](const SimDeviceConfig& other) { return other.mac == device.mac; });
            if (duplicate) {
                messages << "duplicate device " << device.mac_text << " ignored; ";
            } else {
                devices.push_back(std::move(device));
            }
        } catch (const std::exception& error) {
            messages << error.what() << "; ";
        }
    }
    errors = messages.str();
    return true;
}

}  // namespace vistrel::sim
