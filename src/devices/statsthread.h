#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "devices/statsthreadinfo.h"

namespace vistrel::devices {

// Runs one firmware update of one device on a thread of its own. The flash calls the library
// without the device mutex; the firmware-update guard keeps other operations away meanwhile.
class StatsThread {
  public:
    using Callback = std::function<void(StatsThreadInfo)>;

    StatsThread(StatsThreadInfo device, std::u16string firmware_path, Callback on_complete,
                Callback on_progress);
    // Joins the flash thread (unless it was handed over by abandon()).
    ~StatsThread();
    StatsThread(const StatsThread&) = delete;
    StatsThread& operator=(const StatsThread&) = delete;

    // Starts the flash thread (once).
    void start();
    bool finished() const { return finished_->load(); }
    // The finished flag, shared with the guard's running-update pointer.
    std::shared_ptr<const std::atomic<bool>> finished_flag() const { return finished_; }
    bool start_failed() const { return start_failed_.load(); }
    // A shut-down that can't wait: a worker still flashing is handed over to its own thread,
    // which destroys it when the flash ends; a finished one is destroyed (joined) here.
    static void abandon(std::unique_ptr<StatsThread> worker);
    // A copy of the device record with the latest progress and success.
    StatsThreadInfo device() const;

  private:
    void flash();
    // Sets the finished flag; an abandoned worker then destroys itself.
    void finish();

    mutable std::mutex mutex_;
    StatsThreadInfo device_;
    const std::u16string firmware_path_;
    const Callback on_complete_;
    const Callback on_progress_;
    std::shared_ptr<std::atomic<bool>> finished_;
    std::atomic<bool> start_failed_{false};
    bool owns_itself_ = false;  // guarded by mutex_, like the finished flag's last change
    std::thread thread_;
};

}  // namespace vistrel::devices
