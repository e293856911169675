#pragma once

#include <array>
#include <cstdint>
#include <exception>
#include <string>

#include "TidewellAPI.h"

namespace vistrel::devices {

using MacAddress = std::array<uint8_t, TIDEWELLAPI_MAC_LENGTH>;

// "%02x:%02x:%02x:%02x:%02x:%02x": lower case, compared byte for byte by every lookup.
std::string mac_to_text(const MacAddress& mac);
// Six hexadecimal bytes separated by ":" ("00:1B:c5:0:0:1" is accepted); false otherwise, and
// `mac` is then left unchanged.
bool mac_from_text(const std::string& text, MacAddress& mac);

// UTF-8 <-> UTF-16 for the library's wide strings (invalid bytes become U+FFFD).
std::u16string to_wide(const std::string& text);
std::string to_narrow(const std::u16string& text);

// The record of one attached device. Copyable: a copy owns its own capture-folder string.
// A fresh record is all zero or empty.
struct StatsThreadInfo {
    StatsThreadInfo() = default;
    StatsThreadInfo(const StatsThreadInfo&) = default;
    StatsThreadInfo(StatsThreadInfo&&) = default;
    StatsThreadInfo& operator=(const StatsThreadInfo&) = default;
    StatsThreadInfo& operator=(StatsThreadInfo&&) = default;
    virtual ~StatsThreadInfo() = default;

    TidewellAPIHandle handle = 0;
    TidewellAPIDeviceType type = TidewellAPIDeviceType_Unknown;
    uint32_t capabilities = 0;  // bit 0 (TIDEWELLAPI_CAP_FEATURES): features record present
    std::string name;           // also the device's sub-folder under the capture folder
    MacAddress mac{};
    TidewellAPIVersions versions{};
    TidewellAPIDiskDumpStatus dd_status{};
    // Options of the disk-dump capture. Its CaptureFolder pointer stays null here: the folder
    // lives in `capture_folder`, and library_config() joins the two for the library.
    TidewellAPIDiskDumpConfig dd_config{};
    std::u16string capture_folder;
    TidewellAPIFeatures features{};
    bool firmware_update_success = false;
    int32_t firmware_update_progress = 0;
    TidewellAPIPortsSpeed port_speeds{};

    std::string mac_text() const { return mac_to_text(mac); }
    bool has_features() const { return (capabilities & TIDEWELLAPI_CAP_FEATURES) != 0; }
    bool capturing() const { return dd_status.CaptureRunning != 0; }
    // Copies `file_name` into dd_config.FileName (cut to fit); false when it was cut.
    bool set_file_name(const std::string& file_name);
    // dd_config with CaptureFolder pointing into this record's `capture_folder`; valid while
    // the record lives and the string is unchanged.
    TidewellAPIDiskDumpConfig library_config() const;
};

// Device errors that travel as exceptions.
class TidewellException : public std::exception {
  public:
    explicit TidewellException(std::string message) : message_(std::move(message)) {}
    const char* what() const noexcept override { return message_.c_str(); }

  private:
    std::string message_;
};

// A device MAC that is not attached.
class TidewellMissingException : public TidewellException {
  public:
    explicit TidewellMissingException(const std::string& mac);
    const std::string& mac() const { return mac_; }

  private:
    std::string mac_;
};

// The display name of a model ("Unknown" for a value outside the table).
std::string model_name(TidewellAPIDeviceType type);
// The model of a display name (exact text); false when the name is not in the table.
bool model_from_name(const std::string& name, TidewellAPIDeviceType& type);

}  // namespace vistrel::devices
