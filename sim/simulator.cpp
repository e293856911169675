#include "simulator.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "simconfig.h"

namespace vistrel::sim {

namespace {

constexpr auto kPollInterval = std::chrono::milliseconds(100);
constexpr auto kRestartTime = std::chrono::seconds(1);

bool read_file(const std::string& path, std::string& text) {
    std::ifstream file(path, std::ios::binary);
    if (!file) return false;
    std::ostringstream content;
    content << file.rdbuf();
    text = content.str();
    return true;
}

}  // namespace

Simulator& Simulator::instance() {
    static Simulator simulator;
    return simulator;
}

Simulator::~Simulator() {
    uninitialize();
}

TidewellAPIRet Simulator::add_callback(CallbackKind kind, TidewellAPIDeviceCallback callback,
                                       void* context) {
    if (callback == nullptr) return TIDEWELLAPI_ERROR_INVALID_ARGUMENT;
    std::lock_guard lock(mutex_);
    auto& list = kind == CallbackKind::kNewDevice ? new_device_callbacks_ : device_gone_callbacks_;
    list.emplace_back(callback, context);
    return TIDEWELLAPI_SUCCESS;
}

TidewellAPIRet Simulator::remove_callback(CallbackKind kind, TidewellAPIDeviceCallback callback,
                                          void* context) {
    std::lock_guard lock(mutex_);
    auto& list = kind == CallbackKind::kNewDevice ? new_device_callbacks_ : device_gone_callbacks_;
    for (auto it = list.begin(); it != list.end(); ++it) {
        if (it->first == callback && it->second == context) {
            list.erase(it);
            return TIDEWELLAPI_SUCCESS;
        }
    }
    return TIDEWELLAPI_ERROR_INVALID_ARGUMENT;
}

TidewellAPIRet Simulator::initialize() {
    // Lets tests see how the server copes with a library that does not start.
    if (const char* fail = std::getenv("TIDEWELL_SIM_FAIL_INITIALIZE"); fail && *fail)
        return TIDEWELLAPI_ERROR;
    std::vector<std::shared_ptr<SimDevice>> powered_off;
    {
        std::lock_guard lock(mutex_);
        if (initialized_) return TIDEWELLAPI_SUCCESS;
        const char* path = std::getenv("TIDEWELL_SIM_CONFIG");
        config_path_ = path != nullptr ? path : "";
        have_text_ = false;
        last_text_.clear();
        stop_ = false;
        reload(powered_off);
        initialized_ = true;
        thread_ = std::thread(&Simulator::run, this);
    }
    return TIDEWELLAPI_SUCCESS;
}

TidewellAPIRet Simulator::uninitialize() {
    std::map<std::string, Entry> devices;
    {
        std::lock_guard lock(mutex_);
        if (!initialized_) return TIDEWELLAPI_SUCCESS;
        stop_ = true;
    }
    wake_.notify_all();
    thread_.join();
    {
        std::lock_guard lock(mutex_);
        devices.swap(devices_);
        macs_.clear();
        events_.clear();
        initialized_ = false;
    }
    for (auto& [mac, entry] : devices) entry.device->power_off();
    return TIDEWELLAPI_SUCCESS;
}

std::shared_ptr<SimDevice> Simulator::device(TidewellAPIHandle handle) const {
    std::lock_guard lock(mutex_);
    const auto mac = macs_.find(handle);
    if (mac == macs_.end()) return nullptr;
    const auto entry = devices_.find(mac->second);
    if (entry == devices_.end() || !entry->second.present) return nullptr;
    return entry->second.device;
}

uint32_t Simulator::capabilities(TidewellAPIDeviceType type, TidewellAPIHandle handle) const {
    std::lock_guard lock(mutex_);
    if (const auto mac = macs_.find(handle); mac != macs_.end()) {
        const auto entry = devices_.find(mac->second);
        if (entry != devices_.end() && entry->second.present) {
            const SimDeviceConfig config = entry->second.device->config();
            if (config.type == type) return config.capabilities;
        }
    }
    for (const auto& [mac, entry] : devices_) {
        if (!entry.present) continue;
        const SimDeviceConfig config = entry.device->config();
        if (config.type == type) return config.capabilities;
    }
    return model_capabilities(type);
}

TidewellAPIRet Simulator::restart(TidewellAPIHandle handle) {
    std::shared_ptr<SimDevice> device;
    {
        std::lock_guard lock(mutex_);
        const auto mac = macs_.find(handle);
        if (mac == macs_.end()) return TIDEWELLAPI_ERROR_INVALID_HANDLE;
        Entry& entry = devices_.at(mac->second);
        if (!entry.present) return TIDEWELLAPI_ERROR_INVALID_HANDLE;
        entry.present = false;
        entry.back_at = Clock::now() + kRestartTime;
        events_.push_back({CallbackKind::kDeviceGone, handle});
        device = entry.device;
    }
    wake_.notify_all();
    device->power_off();
    return TIDEWELLAPI_SUCCESS;
}

TidewellAPIHandle Simulator::handle_for(const std::string& mac) {
    auto found = handles_.find(mac);
    if (found != handles_.end()) return found->second;
    next_handle_ += 0x100;
    handles_[mac] = next_handle_;
    return next_handle_;
}

void Simulator::reload(std::vector<std::shared_ptr<SimDevice>>& powered_off) {
    std::string text;
    if (config_path_.empty() || !read_file(config_path_, text)) text.clear();
    if (have_text_ && text == last_text_) return;
    std::vector<SimDeviceConfig> configs;
    std::string errors;
    if (!parse_sim_config(text, configs, errors)) {
        // A half-written file: keep the devices as they are until it reads well.
        std::fprintf(stderr, "[Tidewell simulator] %s: %s\n", config_path_.c_str(), errors.c_str());
        last_text_ = text;
        have_text_ = true;
        return;
    }
    if (!errors.empty()) {
        std::fprintf(stderr, "[Tidewell simulator] %s: %s\n", config_path_.c_str(), errors.c_str());
    }
    last_text_ = text;
    have_text_ = true;
    apply(configs, powered_off);
}

void Simulator::apply(const std::vector<SimDeviceConfig>& configs,
                      std::vector<std::shared_ptr<SimDevice>>& powered_off) {
    // Unplugged devices.
    for (auto it = devices_.begin(); it != devices_.end();) {
        bool kept = false;
        for (const auto& config : configs) kept = kept || config.mac_text == it->first;
        if (kept) {
            ++it;
            continue;
        }
        const TidewellAPIHandle handle = it->second.device->handle();
        if (it->second.present) events_.push_back({CallbackKind::kDeviceGone, handle});
        powered_off.push_back(it->second.device);
        macs_.erase(handle);
        it = devices_.erase(it);
    }
    // Plugged and changed devices.
    for (const auto& config : configs) {
        auto found = devices_.find(config.mac_text);
        if (found != devices_.end()) {
            found->second.device->reconfigure(config);
            continue;
        }
        const TidewellAPIHandle handle = handle_for(config.mac_text);
        Entry entry;
        entry.device = std::make_shared<SimDevice>(config, handle);
        entry.present = true;
        devices_.emplace(config.mac_text, std::move(entry));
        macs_[handle] = config.mac_text;
        events_.push_back({CallbackKind::kNewDevice, handle});
    }
}

void Simulator::run() {
    std::unique_lock lock(mutex_);
    while (!stop_) {
        if (events_.empty()) wake_.wait_for(lock, kPollInterval);
        if (stop_) break;
        std::vector<std::shared_ptr<SimDevice>> powered_off;
        reload(powered_off);
        const Clock::time_point now = Clock::now();
        for (auto& [mac, entry] : devices_) {
            if (!entry.present && entry.back_at != Clock::time_point{} && now >= entry.back_at) {
                entry.present = true;
                entry.back_at = {};
                events_.push_back({CallbackKind::kNewDevice, entry.device->handle()});
            }
        }
        // Callbacks call back into the library: run them without the lock, in order.
        while (!events_.empty() && !stop_) {
            const Event event = events_.front();
            events_.pop_front();
            const auto callbacks = event.kind == CallbackKind::kNewDevice ? new_device_callbacks_
                                                                          : device_gone_callbacks_;
            lock.unlock();
            for (const auto& device : powered_off) device->power_off();
            powered_off.clear();
            for (const auto& [callback, context] : callbacks) callback(event.handle, context);
            lock.lock();
        }
        if (!powered_off.empty()) {
            lock.unlock();
            for (const auto& device : powered_off) device->power_off();
            lock.lock();
        }
    }
}

}  // namespace vistrel::sim
