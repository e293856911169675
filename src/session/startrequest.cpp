#include "session/startrequest.h"

#include <exception>
#include <stdexcept>

#include "session/jsonfields.h"
#include "startup/logger.h"

namespace vistrel::session {

namespace {

void read_analyzer(const nlohmann::json& object, engine::EngineOptions& options) {
    read_bool(options.dns_mode_flag, object, "dns", false);
    read_bool(options.arp_flag, object, "arp_stats", false);
    read_bool(options.pkt_stats_flag, object, "pkt_stats", false);
    read_text(options.es_host, object, "es_host", false);
    read_text(options.es_port, object, "es_port", false);
    read_text(options.flows_index, object, "es_index", false);
    read_text(options.http_index, object, "es_type", false);
    read_text(options.server_host, object, "http_host", false);
    read_text(options.server_port, object, "http_port", false);
}

host::NetworkInterface read_interface(const nlohmann::json& object) {
    host::NetworkInterface interface;
    read_text(interface.name, object, "name", true);
    int32_t id = interface.id;
    read_integer(id, object, "id", true);
    interface.id = id;
    // Adapters without a hardware address are listed with an empty "mac".
    read_text(interface.mac, object, "mac", false);
    devices::MacAddress mac{};
    if (!interface.mac.empty()) {
        if (!devices::mac_from_text(interface.mac, mac)) {
            throw std::runtime_error("JSON Parsing error: field [mac] is not a MAC address [" +
                                     interface.mac + "]");
        }
        interface.mac = devices::mac_to_text(mac);
    }
    return interface;
}

}  // namespace

devices::StatsThreadInfo read_device(const nlohmann::json& object) {
    devices::StatsThreadInfo device;
    std::string model;
    read_text(model, object, "model", false);
    // A name outside the model table leaves the model unknown rather than refusing the device.
    if (!devices::model_from_name(model, device.type)) device.type = TidewellAPIDeviceType_Unknown;
    read_text(device.name, object, "friendly_name", false);
    read_mac(device.mac, object, "mac", false);
    std::string file_name;
    read_text(file_name, object, "file_name", false);
    device.set_file_name(file_name);
    read_integer(device.dd_config.CaptureTime, object, "capture_time", false);
    read_integer(device.dd_config.MaxNrFiles, object, "max_nr_files", false);
    read_state(device.dd_config.LoopCapture, object, "loop_capture", false);
    read_integer(device.dd_config.KeepFiles, object, "keep_files", false);
    // Not in every client's documents: captures are indexed, as packets, unless told otherwise.
    device.dd_config.IndexTraffic = 1;
    read_integer(device.dd_config.IndexTraffic, object, "index_traffic", true);
    device.dd_config.Mode = TidewellAPIDiskDumpMode_Packets;
    read_enum(device.dd_config.Mode, object, "mode", true);
    return device;
}

bool read_start_request(const std::string& json_text, bool require_devices, StartRequest& request) {
    nlohmann::json document = nlohmann::json::parse(json_text);
    if (!document.is_object()) return false;

    if (const nlohmann::json* devices = find_field(document, "tidewells")) {
        // Unlike the other members, a bad device ends the whole document.
        try {
            if (!devices->is_array())
                throw std::runtime_error("JSON Parsing error: [tidewells] is not an array");
            for (const auto& element : *devices) request.devices.push_back(read_device(element));
        } catch (const std::exception& error) {
            LOG_ERROR("Exception parsing tidewells array: %s", error.what());
            throw;
        }
    }
    if (const nlohmann::json* analyzer = find_field(document, "analyzer")) {
        request.options.emplace();
        try {
            read_analyzer(*analyzer, *request.options);
        } catch (const std::exception& error) {
            LOG_ERROR("Exception parsing analyzer array: %s", error.what());
        }
    }
    if (const nlohmann::json* interfaces = find_field(document, "interfaces")) {
        try {
            if (!interfaces->is_array()) throw std::runtime_error("[interfaces] is not an array");
            for (const auto& element : *interfaces) {
                request.interfaces.push_back(read_interface(element));
            }
        } catch (const std::exception& error) {
            LOG_ERROR("Exception parsing interface array: %s", error.what());
        }
    }
    if (!require_devices) return true;
    return !(request.devices.empty() && request.interfaces.empty());
}

}  // namespace vistrel::session
