#include "session/devicelistings.h"

#include <nlohmann/json.hpp>
#include <vector>

#include "devices/deviceoperations.h"
#include "devices/deviceregistry.h"
#include "devices/firmwarestash.h"
#include "host/paths.h"
#include "session/devicedocuments.h"
#include "session/sessionresult.h"
#include "startup/logger.h"

namespace vistrel::session {

namespace {

std::string name_of(const VistrelSession& session, const devices::StatsThreadInfo& device) {
    return device.name.empty() ? session.remembered_name(device.mac) : device.name;
}

// A registry copy refreshed from the device; logs when the device can't be read.
devices::StatsThreadInfo refreshed(devices::StatsThreadInfo device,
                                   devices::InterfaceStatus* details) {
    if (!devices::get_iface_status(device, details)) {
        LOG_WARNING("Could not get Capture Statistics for device with mac [%s]",
                    device.mac_text().c_str());
    }
    return device;
}

nlohmann::ordered_json image_document(const devices::FirmwareImage& image) {
    nlohmann::ordered_json document;
    document["name"] = image.name;
    document["file"] = image.file;
    document["swversion"] = image.swversion;
    document["hwversion"] = image.hwversion;
    document["type"] = image.type;
    return document;
}

}  // namespace

std::string devices_list_text(const VistrelSession& session) {
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const auto& device : devices::snapshot()) {
        list.push_back(device_summary(refreshed(device, nullptr), name_of(session, device)));
    }
    return "\"devices\":" + document_text(list);
}

Reply tidewells_reply(const VistrelSession& session) {
    nlohmann::ordered_json document;
    document["general_message"] = "Successfully retrieved all tidewell tidewell_devices";
    document["command"] = command_name(kCommandGetTidewells);
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const auto& device : devices::snapshot()) {
        devices::InterfaceStatus details;
        devices::StatsThreadInfo current = refreshed(device, &details);
        list.push_back(device_details(current, details, name_of(session, device)));
    }
    document["devices"] = list;
    return {document_text(document), 200};
}

Reply firmwares_reply(const VistrelSession& session) {
    std::vector<devices::FirmwareImage> images;
    if (!devices::read_firmware_catalogue(host::firmware_catalogue_path(), images)) {
        nlohmann::ordered_json failure;
        failure["general_message"] = "Could not read the firmware catalogue";
        failure["catalogue"] = host::firmware_catalogue_path();
        return {document_text(failure), 500};
    }
    nlohmann::ordered_json document;
    document["general_message"] = "Successfully returned all available firmware";
    nlohmann::ordered_json catalogue = nlohmann::ordered_json::array();
    for (const auto& image : images) catalogue.push_back(image_document(image));
    document["firmwares"] = catalogue;
    nlohmann::ordered_json tidewells = nlohmann::ordered_json::array();
    for (const auto& device : devices::snapshot()) {
        nlohmann::ordered_json entry;
        entry["mac"] = device.mac_text();
        entry["model"] = devices::model_name(device.type);
        entry["friendly_name"] = name_of(session, device);
        entry["firmware_version"] = device.versions.FirmwareVersion;
        entry["hardware_version"] = device.versions.HardwareVersion;
        nlohmann::ordered_json available = nlohmann::ordered_json::array();
        for (const auto& image : devices::firmware_for_device(images, device)) {
            nlohmann::ordered_json offer = image_document(image);
            offer["newer"] = devices::is_newer_firmware(image, device);
            available.push_back(offer);
        }
        entry["firmwares"] = available;
        tidewells.push_back(entry);
    }
    document["tidewells"] = tidewells;
    return {document_text(document), 200};
}

}  // namespace vistrel::session
