#include "engine.h"

#include <algorithm>
#include <filesystem>

#include "fileindexer.h"
#include "filereporter.h"
#include "folderwatcher.h"
#include "interfacecapture.h"
#include "sourceerror.h"
#include "startup/logger.h"

namespace vistrel::watchkeep {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr const char* kUploadSource = "upload";
// Of a stop's budget: what the server and the bulk endpoint keep at the end.
constexpr milliseconds kReportShare{1000};
constexpr milliseconds kBulkShare{1500};

milliseconds left_until(Clock::time_point deadline, milliseconds keep = milliseconds(0)) {
    const auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now()) - keep;
    return std::max(left, milliseconds(0));
}

}  // namespace

IndexSettings Engine::index_settings(const EngineArguments& arguments,
                                     const EngineEnvironment& environment) {
    IndexSettings settings;
    settings.bulk_url = arguments.bulk_url;
    settings.flows_index = arguments.flows_index;
    settings.http_index = arguments.http_index;
    settings.dns_records = arguments.dns_mode == 1;
    settings.arp_records = arguments.arp_records;
    settings.packet_statistics = arguments.packet_statistics;
    settings.spool_folder = environment.spool_folder();
    return settings;
}

Engine::Engine(EngineArguments arguments, EngineEnvironment environment)
    : arguments_(std::move(arguments)),
      environment_(std::move(environment)),
      settings_(index_settings(arguments_, environment_)) {}

Engine::~Engine() = default;

void Engine::start() {
    std::error_code error;
    std::filesystem::create_directories(settings_.spool_folder, error);
    reporter_ =
        std::make_unique<FileReporter>(environment_.server_url, settings_.flows_index,
                                       settings_.spool_folder, environment_.server_certificate);
    sender_ = std::make_unique<BulkSender>(settings_);

    const uint64_t period_ns = static_cast<uint64_t>(environment_.file_seconds) * 1'000'000'000ULL;
    for (const auto& name : arguments_.interfaces) {
        captures_.push_back(std::make_unique<InterfaceCapture>(
            name, environment_.capture_path, period_ns,
            std::make_unique<SourceIndexer>(settings_, *sender_, name), *reporter_));
    }
    if (arguments_.is_analysis()) {
        open_analysed_files();
    } else if (!arguments_.devices.empty()) {
        open_device_folders();
    }

    for (auto& capture : captures_) capture->start();
    if (files_) files_->start();
    if (watcher_) watcher_->start();
}

void Engine::open_device_folders() {
    std::vector<FileIndexer::Source> sources;
    std::vector<std::string> folders;
    for (const auto& device : arguments_.devices) {
        std::unique_ptr<SourceIndexer> indexer;
        if (device.index_traffic) {
            indexer = std::make_unique<SourceIndexer>(settings_, *sender_, device.name);
        }
        sources.push_back({device.name, std::move(indexer)});
        folders.push_back(device.folder);
    }
    files_ = std::make_unique<FileIndexer>(std::move(sources), *reporter_);
    watcher_ = std::make_unique<FolderWatcher>(
        folders, [this](size_t device, const std::string& path) { files_->add(device, path); });
}

void Engine::open_analysed_files() {
    std::vector<FileIndexer::Source> sources;
    sources.push_back(
        {kUploadSource, std::make_unique<SourceIndexer>(settings_, *sender_, kUploadSource)});
    files_ = std::make_unique<FileIndexer>(std::move(sources), *reporter_);
    for (const auto& file : arguments_.files) {
        LOG_NORMAL("Analysing %s", file.c_str());
        files_->add(0, file);
    }
    files_->on_idle([this] { analysis_done_.set(); });
}

bool Engine::stop(milliseconds budget) {
    const Clock::time_point deadline = Clock::now() + budget;
    if (watcher_) watcher_->stop();
    for (auto& capture : captures_) capture->stop();
    if (files_) files_->stop(left_until(deadline, kReportShare + kBulkShare));
    // Reports that the server did not take wait in the spool: late, not lost.
    if (reporter_) reporter_->finish(left_until(deadline, kBulkShare));
    const bool sent = sender_ ? sender_->finish(left_until(deadline)) : true;
    if (!sent) LOG_ERROR("Some records could be neither sent nor spooled: they are lost");
    return sent;
}

}  // namespace vistrel::watchkeep
