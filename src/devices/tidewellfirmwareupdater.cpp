#include "devices/tidewellfirmwareupdater.h"

#include <algorithm>
#include <chrono>

#include "devices/deviceregistry.h"
#include "devices/firmwareguard.h"
#include "startup/logger.h"

namespace vistrel::devices {

namespace {

void* as_pointer(TidewellAPIHandle handle) {
    return reinterpret_cast<void*>(static_cast<uintptr_t>(handle));
}

template <typename... Args>
std::string format(const char* pattern, Args... args) {
    const int length = std::snprintf(nullptr, 0, pattern, args...);
    std::string text(static_cast<size_t>(length), '\0');
    std::snprintf(text.data(), text.size() + 1, pattern, args...);
    return text;
}

const char* flag_text(bool value) {
    return value ? "true" : "false";
}

constexpr int kShutdownGraceSteps = 200;  // at most 2 s in steps of 10 ms

}  // namespace

// One device that had an update started. The entry outlives its worker.
struct TidewellFirmwareUpdater::Entry {
    std::string mac;
    TidewellAPIHandle handle = 0;
    std::unique_ptr<StatsThread> worker;
    int32_t progress = 0;
    bool success = false;
    bool complete = false;
    bool start_failed = false;
};

// Shared with the workers' callbacks, so that a worker left running at shut-down never
// touches a destroyed updater.
struct TidewellFirmwareUpdater::State {
    mutable std::mutex mutex;
    std::condition_variable wake;
    bool stop = false;
    std::vector<Entry> entries;

    // Some worker has reported its end but not yet set its finished flag.
    bool ending() const {
        std::lock_guard lock(mutex);
        for (const auto& entry : entries) {
            if (entry.worker && entry.complete && !entry.worker->finished()) return true;
        }
        return false;
    }

    Entry* find(TidewellAPIHandle handle) {
        for (auto& entry : entries) {
            if (entry.handle == handle) return &entry;
        }
        return nullptr;
    }
};

TidewellFirmwareUpdater::TidewellFirmwareUpdater()
    : state_(std::make_shared<State>()),
      cleanup_thread_(&TidewellFirmwareUpdater::cleanup_loop, this) {}

TidewellFirmwareUpdater::~TidewellFirmwareUpdater() {
    {
        std::lock_guard lock(state_->mutex);
        state_->stop = true;
    }
    state_->wake.notify_all();
    cleanup_thread_.join();
    // A worker that has reported its end sets its finished flag a moment later; one still
    // flashing is not waited for.
    for (int wait = 0; wait < kShutdownGraceSteps && state_->ending(); ++wait) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    std::vector<std::unique_ptr<StatsThread>> workers;
    bool leaking = false;
    {
        std::lock_guard lock(state_->mutex);
        for (auto& entry : state_->entries) {
            if (!entry.worker) continue;
            leaking = leaking || !entry.worker->finished();
            workers.push_back(std::move(entry.worker));
        }
    }
    if (leaking) {
        LOG_ERROR("There are still threads that are updating device firmware. We're leaking them");
    }
    // Outside the lock: joining a finished worker, or handing a running one to its own thread
    // (its callbacks then find the state gone and do nothing).
    for (auto& worker : workers) StatsThread::abandon(std::move(worker));
}

FirmwareStartResult TidewellFirmwareUpdater::start_update(const std::string& mac,
                                                          const std::string& file_path) {
    if (file_path.size() > MaxFirmwarePathLength) {
        return {false, format("Firmware filepath [%s] is too long. Max size: %ld",
                              file_path.c_str(), static_cast<long>(MaxFirmwarePathLength))};
    }
    std::lock_guard lock(state_->mutex);
    Entry* existing = nullptr;
    for (auto& entry : state_->entries) {
        LOG_DEBUG("Looking for device with mac %s - matching %s", mac.c_str(), entry.mac.c_str());
        if (entry.mac == mac) {
            existing = &entry;
            break;
        }
    }
    if (existing != nullptr && existing->worker && !existing->worker->finished()) {
        return {false, format("Could not start firmware update for device with mac [%s]: Update "
                              "already in progress",
                              mac.c_str())};
    }
    StatsThreadInfo device = find_device_by_mac(mac);
    std::u16string wide_path = to_wide(file_path);
    if (wide_path.size() > MaxFirmwarePathLength) wide_path.resize(MaxFirmwarePathLength);

    std::weak_ptr<State> weak = state_;
    auto on_progress = [weak](StatsThreadInfo info) {
        auto state = weak.lock();
        if (!state) return;
        std::lock_guard callback_lock(state->mutex);
        LOG_INFO("Firmware update for device with handle [%p] progress: %i",
                 as_pointer(info.handle), info.firmware_update_progress);
        if (Entry* entry = state->find(info.handle))
            entry->progress = info.firmware_update_progress;
    };
    auto on_complete = [weak](StatsThreadInfo info) {
        auto state = weak.lock();
        if (!state) return;
        std::lock_guard callback_lock(state->mutex);
        LOG_INFO("Firmware update for device with handle [%p] update success: %s",
                 as_pointer(info.handle), flag_text(info.firmware_update_success));
        if (Entry* entry = state->find(info.handle)) {
            entry->success = info.firmware_update_success;
            entry->progress = info.firmware_update_progress;
            entry->complete = true;
            entry->start_failed = entry->worker && entry->worker->start_failed();
        }
    };

    Entry fresh;
    fresh.mac = mac;
    fresh.handle = device.handle;
    fresh.worker =
        std::make_unique<StatsThread>(device, std::move(wide_path), on_complete, on_progress);
    if (existing != nullptr) {
        LOG_DEBUG("Reassigning StatsThread to reference vector for device with mac [%s]",
                  mac.c_str());
        *existing = std::move(fresh);  // a finished worker is joined here
    } else {
        LOG_DEBUG("Adding new StatsThread to reference vector for device with mac [%s]",
                  mac.c_str());
        state_->entries.push_back(std::move(fresh));
        existing = &state_->entries.back();
    }
    set_running_update(existing->worker->finished_flag());
    existing->worker->start();
    return {true,
            format("Successfully started firmware update of device with mac [%s]", mac.c_str())};
}

FirmwareUpdateStatus TidewellFirmwareUpdater::status(const std::string& mac) {
    std::lock_guard lock(state_->mutex);
    FirmwareUpdateStatus status;
    Entry* found = nullptr;
    for (auto& entry : state_->entries) {
        if (entry.mac == mac) found = &entry;
    }
    if (found == nullptr) {
        status.message = format(
            "Could not get firmware update status for device with mac [%s]: "
            "No firmware update has been started",
            mac.c_str());
        return status;
    }
    status.update_progress = found->progress;
    status.update_success = found->success;
    status.update_in_progress = !found->complete;
    status.start_success = !found->start_failed;
    if (found->start_failed) {
        LOG_DEBUG("Resetting update success for device [%s] to false", mac.c_str());
        found->start_failed = false;
        found->success = false;
        status.message =
            format("The last start of a firmware update fo device [%s] failed", mac.c_str());
    } else if (!found->complete) {
        status.message = format("The firmware update for device with mac [%s] is %i complete",
                                mac.c_str(), found->progress);
    } else {
        status.message = format(
            "The firmware update for device with mac [%s] has completed successfully", mac.c_str());
    }
    return status;
}

bool TidewellFirmwareUpdater::any_running() const {
    std::lock_guard lock(state_->mutex);
    for (const auto& entry : state_->entries) {
        if (entry.worker && !entry.worker->finished()) return true;
    }
    return false;
}

size_t TidewellFirmwareUpdater::running_count() const {
    std::lock_guard lock(state_->mutex);
    return static_cast<size_t>(
        std::count_if(state_->entries.begin(), state_->entries.end(),
                      [](const auto& entry) { return entry.worker && !entry.worker->finished(); }));
}

void TidewellFirmwareUpdater::cleanup_loop() {
    std::unique_lock lock(state_->mutex);
    while (!state_->stop) {
        state_->wake.wait_for(lock, std::chrono::seconds(1));
        if (state_->stop) break;
        for (auto& entry : state_->entries) {
            if (entry.worker && entry.worker->finished()) {
                LOG_DEBUG(
                    "Deleting StatsThread because Firmware Update for device [%p] is "
                    "complete",
                    as_pointer(entry.handle));
                entry.worker.reset();
            }
        }
    }
}

}  // namespace vistrel::devices
