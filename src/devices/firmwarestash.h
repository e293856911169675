#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "devices/statsthreadinfo.h"

namespace vistrel::devices {

// One firmware image of the catalogue firmware.xml.
struct FirmwareImage {
    std::string name;
    std::string file;  // as written; relative names are relative to the catalogue's folder
    std::string path;  // `file` resolved against the catalogue's folder
    uint32_t swversion = 0;
    uint32_t hwversion = 0;  // 0: any board revision
    std::string type;        // a model display name ("Tidewell Pro") or its number
};

// Reads the catalogue: <devices><device name=".." file=".." swversion=".." hwversion=".."
// type=".."/>...</devices>; each value may also be a child element of <device>. Images whose
// swversion can't be read are skipped (and logged). False when the file can't be read or parsed.
bool read_firmware_catalogue(const std::string& path, std::vector<FirmwareImage>& images);

// The images meant for the device: same model, and hwversion 0 or the device's board revision.
std::vector<FirmwareImage> firmware_for_device(const std::vector<FirmwareImage>& images,
                                               const StatsThreadInfo& device);
// The image is newer than the firmware the device runs.
bool is_newer_firmware(const FirmwareImage& image, const StatsThreadInfo& device);

}  // namespace vistrel::devices
