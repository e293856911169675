#include "devices/firmwarestash.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <pugixml.hpp>

#include "startup/logger.h"

namespace vistrel::devices {

namespace {

// A value as an attribute of <device>, else as a child element's text.
std::string value_of(const pugi::xml_node& device, const char* key) {
    if (const pugi::xml_attribute attribute = device.attribute(key)) return attribute.value();
    return device.child(key).text().get();
}

bool read_number(const std::string& text, uint32_t& value) {
    if (text.empty()) return false;
    errno = 0;
    char* end = nullptr;
    const unsigned long long number = std::strtoull(text.c_str(), &end, 0);
    if (errno != 0 || *end != '\0' || number > UINT32_MAX || text[0] == '-') return false;
    value = static_cast<uint32_t>(number);
    return true;
}

}  // namespace

bool read_firmware_catalogue(const std::string& path, std::vector<FirmwareImage>& images) {
    pugi::xml_document document;
    const pugi::xml_parse_result result = document.load_file(path.c_str());
    if (result.status == pugi::status_file_not_found || result.status == pugi::status_io_error) {
        LOG_ERROR("Could not open Firwmare.xml at: %s", path.c_str());
        return false;
    }
    if (!result) {
        LOG_ERROR("XML [%s] parsed with errors", path.c_str());
        LOG_ERROR("XML Error Description: %s", result.description());
        LOG_ERROR("XML Error Offset: %ld", static_cast<long>(result.offset));
        return false;
    }
    const std::filesystem::path folder = std::filesystem::path(path).parent_path();
    images.clear();
    for (const pugi::xml_node device : document.child("devices").children("device")) {
        FirmwareImage image;
        image.name = value_of(device, "name");
        image.file = value_of(device, "file");
        image.type = value_of(device, "type");
        const std::string swversion = value_of(device, "swversion");
        if (!read_number(swversion, image.swversion)) {
            LOG_ERROR("Could not read firmware swversion: %s", swversion.c_str());
            continue;
        }
        const std::string hwversion = value_of(device, "hwversion");
        if (!hwversion.empty() && !read_number(hwversion, image.hwversion)) {
            LOG_WARNING("Could not read firmware hwversion: %s", hwversion.c_str());
            continue;
        }
        const std::filesystem::path file(image.file);
        image.path = file.is_absolute() ? file.string() : (folder / file).string();
        images.push_back(std::move(image));
    }
    return true;
}

std::vector<FirmwareImage> firmware_for_device(const std::vector<FirmwareImage>& images,
                                               const StatsThreadInfo& device) {
    std::vector<FirmwareImage> matching;
    const std::string model = model_name(device.type);
    const std::string number = std::to_string(static_cast<int>(device.type));
    for (const auto& image : images) {
        if (image.type != model && image.type != number) continue;
        if (image.hwversion != 0 && image.hwversion != device.versions.HardwareVersion) continue;
        matching.push_back(image);
    }
    return matching;
}

bool is_newer_firmware(const FirmwareImage& image, const StatsThreadInfo& device) {
    return image.swversion > device.versions.FirmwareVersion;
}

}  // namespace vistrel::devices
