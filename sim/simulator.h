#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "TidewellAPI.h"
#include "simdevice.h"

namespace vistrel::sim {

// The simulated library: the devices of $TIDEWELL_SIM_CONFIG, the two callback lists and the
// library's own thread, which watches the file, brings restarted devices back and runs every
// callback.
class Simulator {
  public:
    enum class CallbackKind { kNewDevice, kDeviceGone };

    static Simulator& instance();
    ~Simulator();

    TidewellAPIRet add_callback(CallbackKind kind, TidewellAPIDeviceCallback callback,
                                void* context);
    TidewellAPIRet remove_callback(CallbackKind kind, TidewellAPIDeviceCallback callback,
                                   void* context);
    TidewellAPIRet initialize();
    TidewellAPIRet uninitialize();

    // The present device of `handle`, or null.
    std::shared_ptr<SimDevice> device(TidewellAPIHandle handle) const;
    // The capabilities of the device of `handle` when it is present and of that model; else of
    // the first present device of the model; else the model's own.
    uint32_t capabilities(TidewellAPIDeviceType type, TidewellAPIHandle handle) const;
    // The device goes now and comes back about a second later.
    TidewellAPIRet restart(TidewellAPIHandle handle);

  private:
    using Clock = std::chrono::steady_clock;
    struct Event {
        CallbackKind kind;
        TidewellAPIHandle handle;
    };
    struct Entry {
        std::shared_ptr<SimDevice> device;
        bool present = false;
        Clock::time_point back_at{};  // a restarting device returns then
    };

    Simulator() = default;
    void run();
    // Reads the file; applies a changed device list. Called with `mutex_` held; devices to power
    // off are handed back so that it happens outside the lock.
    void reload(std::vector<std::shared_ptr<SimDevice>>& powered_off);
    void apply(const std::vector<SimDeviceConfig>& configs,
               std::vector<std::shared_ptr<SimDevice>>& powered_off);
    TidewellAPIHandle handle_for(const std::string& mac);

    mutable std::mutex mutex_;
    std::condition_variable wake_;
    bool initialized_ = false;
    bool stop_ = false;
    std::thread thread_;
    std::string config_path_;
    std::string last_text_;
    bool have_text_ = false;
    std::map<std::string, Entry> devices_;  // by MAC text
    std::unordered_map<TidewellAPIHandle, std::string> macs_;
    std::map<std::string, TidewellAPIHandle> handles_;  // stable for the process' life
    TidewellAPIHandle next_handle_ = 0x7e1d0000;
    std::deque<Event> events_;
    std::vector<std::pair<TidewellAPIDeviceCallback, void*>> new_device_callbacks_;
    std::vector<std::pair<TidewellAPIDeviceCallback, void*>> device_gone_callbacks_;
};

}  // namespace vistrel::sim
