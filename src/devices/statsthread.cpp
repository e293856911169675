#include "devices/statsthread.h"

#include <chrono>

#include "devices/devicelibrary.h"
#include "startup/logger.h"

namespace vistrel::devices {

StatsThread::StatsThread(StatsThreadInfo device, std::u16string firmware_path, Callback on_complete,
                         Callback on_progress)
    : device_(std::move(device)),
      firmware_path_(std::move(firmware_path)),
      on_complete_(std::move(on_complete)),
      on_progress_(std::move(on_progress)),
      finished_(std::make_shared<std::atomic<bool>>(false)) {
    device_.firmware_update_success = false;
    device_.firmware_update_progress = 0;
}

StatsThread::~StatsThread() {
    if (thread_.joinable()) thread_.join();
}

void StatsThread::start() {
    if (thread_.joinable()) return;
    LOG_DEBUG("Starting firmware update thread");
    thread_ = std::thread(&StatsThread::flash, this);
}

void StatsThread::abandon(std::unique_ptr<StatsThread> worker) {
    if (!worker) return;
    {
        std::lock_guard lock(worker->mutex_);
        if (!worker->finished_->load() && worker->thread_.joinable()) {
            worker->owns_itself_ = true;
            worker->thread_.detach();
            (void)worker.release();  // finish() deletes it
            return;
        }
    }
    worker.reset();
}

void StatsThread::finish() {
    bool owns_itself;
    {
        std::lock_guard lock(mutex_);
        finished_->store(true);
        owns_itself = owns_itself_;
    }
    // The thread is detached and nothing else refers to the worker any more.
    if (owns_itself) delete this;
}

StatsThreadInfo StatsThread::device() const {
    std::lock_guard lock(mutex_);
    return device_;
}

void StatsThread::flash() {
    const StatsThreadInfo start = device();
    const std::string mac = start.mac_text();
    const std::string path = to_narrow(firmware_path_);
    const TidewellAPIHandle handle = start.handle;
    DeviceLibrary& api = library();
    LOG_INFO("Starting firmware flash for device [%s] with file [%s]", mac.c_str(), path.c_str());
    const TidewellAPIRet started = api.firmware_update_start(handle, firmware_path_.c_str());
    if (started != TIDEWELLAPI_SUCCESS) {
        LOG_ERROR("Could not start firmware flash for device [%s] with file [%s]. APIRet: %ld",
                  mac.c_str(), path.c_str(), static_cast<long>(started));
        start_failed_ = true;
        StatsThreadInfo copy;
        {
            std::lock_guard lock(mutex_);
            device_.firmware_update_success = false;
            copy = device_;
        }
        if (on_complete_) on_complete_(copy);
        finish();
        return;
    }
    TidewellAPIRet result;
    for (;;) {
        int32_t progress = 0;
        result = api.firmware_update_get_progress(handle, &progress);
        StatsThreadInfo copy;
        {
            std::lock_guard lock(mutex_);
            device_.firmware_update_progress = progress;
            if (result != TIDEWELLAPI_IN_PROGRESS) {
                device_.firmware_update_success = result == TIDEWELLAPI_SUCCESS;
            }
            copy = device_;
        }
        if (on_progress_) on_progress_(copy);
        if (result != TIDEWELLAPI_IN_PROGRESS) {
            if (on_complete_) on_complete_(copy);
            break;
        }
        std::this_thread::sleep_for(std::chrono::seconds(1));
    }
    finish();
}

}  // namespace vistrel::devices
