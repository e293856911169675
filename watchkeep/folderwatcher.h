#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "host/uniquefd.h"
#include "wakeup.h"

namespace vistrel::watchkeep {

// Watches the capture folders of the devices (inotify) and hands over every capture file that a
// device closes after writing or moves in. At stop, the files created while watching and not
// closed yet are handed over too.
class FolderWatcher {
  public:
    // `folder` is the index of the folder in the constructor's list.
    using FileCallback = std::function<void(size_t folder, const std::string& path)>;

    // Creates missing folders and watches them; throws SourceError naming a folder that cannot
    // be watched.
    FolderWatcher(const std::vector<std::string>& folders, FileCallback on_file);
    ~FolderWatcher();
    FolderWatcher(const FolderWatcher&) = delete;
    FolderWatcher& operator=(const FolderWatcher&) = delete;

    void start();
    // Handles what is already queued in the kernel, then the files still open.
    void stop();

  private:
    void run();
    // False when the kernel had nothing more.
    bool read_events();

    host::UniqueFd inotify_;
    std::map<int, size_t> folder_of_watch_;
    std::vector<std::string> folders_;
    std::set<std::pair<size_t, std::string>> open_files_;
    FileCallback on_file_;
    Wakeup stop_;
    std::thread thread_;
};

}  // namespace vistrel::watchkeep
