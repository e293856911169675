#pragma once

#include <chrono>
#include <memory>
#include <vector>

#include "arguments.h"
#include "environment.h"
#include "index/indexer.h"
#include "wakeup.h"

namespace vistrel::watchkeep {

class FileIndexer;
class FileReporter;
class FolderWatcher;
class InterfaceCapture;

// One run of the engine: the sources of the command line (live interfaces, device folders or
// analysed files), one bulk sender, one file reporter.
class Engine {
  public:
    Engine(EngineArguments arguments, EngineEnvironment environment);
    ~Engine();
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    // Opens every source, then starts them; throws SourceError naming the first that cannot
    // be opened (nothing runs then).
    void start();
    // Readable once every analysed file is indexed and registered (analysis form only).
    int analysis_done_fd() const { return analysis_done_.fd(); }
    // Closes and registers the files, sends or spools what is pending, all within `budget`.
    // True when nothing was lost.
    bool stop(std::chrono::milliseconds budget);

    static IndexSettings index_settings(const EngineArguments& arguments,
                                        const EngineEnvironment& environment);

  private:
    void open_device_folders();
    void open_analysed_files();

    const EngineArguments arguments_;
    const EngineEnvironment environment_;
    const IndexSettings settings_;
    std::unique_ptr<FileReporter> reporter_;
    std::unique_ptr<BulkSender> sender_;
    std::vector<std::unique_ptr<InterfaceCapture>> captures_;
    std::unique_ptr<FileIndexer> files_;
    std::unique_ptr<FolderWatcher> watcher_;
    Wakeup analysis_done_;
};

}  // namespace vistrel::watchkeep
