#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "devices/statsthread.h"

namespace vistrel::devices {

// Longest firmware file path accepted, in characters.
constexpr size_t MaxFirmwarePathLength = 2048;

struct FirmwareStartResult {
    bool success = false;
    std::string message;
};

// What a status question answers about one device.
struct FirmwareUpdateStatus {
    std::string message;
    bool update_in_progress = false;
    int32_t update_progress = 0;
    bool update_success = false;
    bool start_success = false;
};

// Starts firmware updates (one StatsThread per device), answers status questions by MAC and
// destroys finished workers from a cleanup thread that wakes once a second.
class TidewellFirmwareUpdater {
  public:
    TidewellFirmwareUpdater();
    // Joins finished workers; workers still flashing are left running (and logged).
    ~TidewellFirmwareUpdater();
    TidewellFirmwareUpdater(const TidewellFirmwareUpdater&) = delete;
    TidewellFirmwareUpdater& operator=(const TidewellFirmwareUpdater&) = delete;

    // Starts flashing `file_path` into the device with MAC text `mac`. Throws
    // TidewellMissingException when the device is not attached.
    FirmwareStartResult start_update(const std::string& mac, const std::string& file_path);
    FirmwareUpdateStatus status(const std::string& mac);
    // Some worker has not finished yet.
    bool any_running() const;
    // Workers still flashing.
    size_t running_count() const;

  private:
    struct Entry;
    struct State;

    void cleanup_loop();

    std::shared_ptr<State> state_;
    std::thread cleanup_thread_;
};

}  // namespace vistrel::devices
