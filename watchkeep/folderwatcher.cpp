#include "folderwatcher.h"

#include <poll.h>
#include <sys/inotify.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "capture/capturefile.h"
#include "sourceerror.h"
#include "startup/logger.h"

namespace vistrel::watchkeep {

namespace {
constexpr uint32_t kMask =
    IN_CREATE | IN_CLOSE_WRITE | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
}  // namespace

FolderWatcher::FolderWatcher(const std::vector<std::string>& folders, FileCallback on_file)
    : inotify_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)),
      folders_(folders),
      on_file_(std::move(on_file)) {
    if (!inotify_.valid()) {
        throw SourceError(std::string("cannot watch device folders: ") + std::strerror(errno));
    }
    for (size_t i = 0; i < folders_.size(); ++i) {
        const std::string& folder = folders_[i];
        std::error_code ignored;
        std::filesystem::create_directories(folder, ignored);
        const int watch = inotify_add_watch(inotify_.get(), folder.c_str(), kMask);
        if (watch < 0) {
            throw SourceError("cannot watch device folder '" + folder +
                              "': " + std::strerror(errno));
        }
        folder_of_watch_[watch] = i;
        LOG_NORMAL("Watching %s for capture files", folder.c_str());
    }
}

FolderWatcher::~FolderWatcher() {
    stop_.set();
    if (thread_.joinable()) thread_.join();
}

void FolderWatcher::start() {
    thread_ = std::thread(&FolderWatcher::run, this);
}

void FolderWatcher::stop() {
    stop_.set();
    if (thread_.joinable()) thread_.join();
    while (read_events()) {
    }
    for (const auto& [folder, path] : open_files_) {
        LOG_NORMAL("Taking %s, still open at stop", path.c_str());
        on_file_(folder, path);
    }
    open_files_.clear();
}

void FolderWatcher::run() {
    pollfd watched[2] = {{inotify_.get(), POLLIN, 0}, {stop_.fd(), POLLIN, 0}};
    for (;;) {
        if (poll(watched, 2, -1) < 0 && errno != EINTR) {
            LOG_ERROR("Watching device folders failed: %s", std::strerror(errno));
            return;
        }
        if (watched[1].revents != 0) return;
        if (watched[0].revents != 0) read_events();
    }
}

bool FolderWatcher::read_events() {
    alignas(inotify_event) char buffer[16384];
    const ssize_t length = read(inotify_.get(), buffer, sizeof buffer);
    if (length <= 0) return false;
    for (ssize_t at = 0; at < length;) {
        const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
        at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        if ((event->mask & IN_Q_OVERFLOW) != 0) {
            LOG_ERROR("Too many file events at once: some device files may not be indexed");
            continue;
        }
        const auto found = folder_of_watch_.find(event->wd);
        if (found == folder_of_watch_.end()) continue;
        const size_t folder = found->second;
        if ((event->mask & (IN_DELETE_SELF | IN_MOVE_SELF)) != 0) {
            LOG_ERROR("Device folder %s was removed or moved: its new files are not taken",
                      folders_[folder].c_str());
            continue;
        }
        if (event->len == 0 || (event->mask & IN_ISDIR) != 0) continue;
        const std::string name = event->name;
        if (!capture::is_capture_file_name(name)) continue;
        const std::string path = folders_[folder] + "/" + name;
        if ((event->mask & IN_CREATE) != 0) {
            open_files_.insert({folder, path});
        } else if ((event->mask & (IN_CLOSE_WRITE | IN_MOVED_TO)) != 0) {
            open_files_.erase({folder, path});
            on_file_(folder, path);
        }
    }
    return true;
}

}  // namespace vistrel::watchkeep
