#include "capture/extractionjob.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "capture/capturefile.h"
#include "host/paths.h"
#include "startup/logger.h"

namespace vistrel::capture {

namespace {

void pause_a_moment() {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

}  // namespace

ExtractionJob::ExtractionJob(database::CaptureQuery query, Readers readers)
    : query_(std::move(query)), readers_(std::move(readers)) {
    filtered_mode_ = !query_.display_filter.empty();
    // An end of 0 is an open bound, as it is for the selection and the display filter.
    range_end_ = query_.end == 0 ? ~uint64_t{0} : query_.end;
}

ExtractionJob::~ExtractionJob() {
    cancelled_.store(true);
    if (pipe_) pipe_->abort();
    if (feeder_.joinable()) feeder_.join();
}

void ExtractionJob::prime() {
    nothing_readable_ = readers_.empty();
    if (readers_.empty()) return;
    first_chunk_.resize(chunk_size());
    while (!readers_.empty()) {
        const size_t used = readers_.front()->read_range_into(query_.start, range_end_,
                                                              first_chunk_.data(), chunk_size());
        if (used > 0) {
            first_chunk_.resize(used);
            return;
        }
        readers_.pop_front();
    }
    first_chunk_.clear();
    no_data_ = true;
}

int64_t ExtractionJob::hand_out(uint8_t* buffer, size_t maximum) {
    const size_t count = std::min(maximum, pending_.size() - pending_offset_);
    std::memcpy(buffer, pending_.data() + pending_offset_, count);
    pending_offset_ += count;
    return static_cast<int64_t>(count);
}

int64_t ExtractionJob::read_direct(uint8_t* buffer, size_t maximum) {
    if (maximum == 0) return 0;
    if (pending_offset_ < pending_.size()) return hand_out(buffer, maximum);
    if (!header_sent_) {
        if (readers_.empty()) {
            status_.store(204);
            return kEndOfStream;
        }
        header_sent_ = true;
        pending_ = readers_.front()->output_file_header();
        pending_.insert(pending_.end(), first_chunk_.begin(), first_chunk_.end());
        first_chunk_ = std::vector<uint8_t>();
        pending_offset_ = 0;
        return hand_out(buffer, maximum);
    }
    while (!readers_.empty()) {
        FileFormatParser& reader = *readers_.front();
        if (maximum >= kHttpBlockSize) {
            const size_t used =
                reader.read_range_into(query_.start, range_end_, buffer, kHttpBlockSize);
            if (used > 0) return static_cast<int64_t>(used);
        } else {
            pending_.resize(kHttpBlockSize);
            const size_t used =
                reader.read_range_into(query_.start, range_end_, pending_.data(), kHttpBlockSize);
            pending_.resize(used);
            pending_offset_ = 0;
            if (used > 0) return hand_out(buffer, maximum);
        }
        readers_.pop_front();
    }
    return kEndOfStream;
}

bool ExtractionJob::start_filter(std::unique_ptr<TsharkPipe> pipe) {
    pipe_ = pipe ? std::move(pipe) : std::make_unique<TsharkPipe>();
    if (pipe_->start(query_) != 0) {
        pipe_->close_handles();
        return false;
    }
    feeder_ = std::thread([this] { feed(); });
    return true;
}

bool ExtractionJob::send_all(const uint8_t* bytes, size_t count) {
    while (count > 0) {
        if (cancelled_.load()) return false;
        const int64_t taken = pipe_->send(bytes, count);
        if (taken < 0) {
            LOG_WARNING("Send error");
            status_.store(500);
            return false;
        }
        if (taken == 0) {
            pause_a_moment();
            continue;
        }
        bytes += taken;
        count -= static_cast<size_t>(taken);
    }
    return true;
}

void ExtractionJob::feed() {
    // A tshark that exits early must not take the server with it: a write to its closed
    // input fails with EPIPE here instead of raising SIGPIPE.
    sigset_t pipe_signal;
    sigemptyset(&pipe_signal);
    sigaddset(&pipe_signal, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe_signal, nullptr);

    const auto started = std::chrono::steady_clock::now();
    bool sent = true;
    if (!readers_.empty()) {
        header_sent_ = true;
        const std::vector<uint8_t> header = readers_.front()->output_file_header();
        sent = send_all(header.data(), header.size()) &&
               send_all(first_chunk_.data(), first_chunk_.size());
    }
    std::vector<uint8_t> chunk(kFilterChunkSize);
    while (sent && !readers_.empty()) {
        const size_t used =
            readers_.front()->read_range_into(query_.start, range_end_, chunk.data(), chunk.size());
        if (used == 0) {
            readers_.pop_front();
            continue;
        }
        sent = send_all(chunk.data(), used);
    }
    pipe_->stop();
    if (sent) {
        const auto elapsed = std::chrono::duration_cast<std::chrono::microseconds>(
            std::chrono::steady_clock::now() - started);
        LOG_NORMAL("Data sent in %llu us\n", static_cast<unsigned long long>(elapsed.count()));
    }
}

int64_t ExtractionJob::read_filtered(uint8_t* buffer, size_t maximum) {
    // The finished flag is looked at before the pipe, as the stream's end is decided by
    // tshark's exit alone.
    for (;;) {
        if (pipe_->finished()) return status_.load() == 200 ? kEndOfStream : kEndWithError;
        const int64_t got = pipe_->receive(buffer, maximum);
        if (got < 0) return kEndOfStream;
        if (got > 0) return got;
        pause_a_moment();
    }
}

int64_t counted_file_size(const std::string& path) {
    struct stat status;
    if (::stat(path.c_str(), &status) != 0) return 0;
    const int32_t size = static_cast<int32_t>(static_cast<uint64_t>(status.st_size));
    return size < 0 ? 0 : size;
}

Extraction prepare_extraction(const database::CaptureQuery& query,
                              const std::list<database::CaptureFileRecord>& files,
                              std::unique_ptr<TsharkPipe> pipe) {
    Extraction extraction;
    LOG_NORMAL("Requesting pcap between: %lld and %lld", static_cast<long long>(query.start),
               static_cast<long long>(query.end));
    LOG_NORMAL("Starting process to deliver the file...");
    LOG_NORMAL("Found %zu files", files.size());
    if (files.empty()) {
        LOG_NORMAL("Unable to find traffic data for the requested parameters");
        extraction.error_title = "Error Extracting Capture File";
        extraction.error_message =
            "Unable to find traffic data for the requested time range and filters in your "
            "capture machine";
        return extraction;
    }

    int64_t total = 0;
    for (const auto& file : files) total += counted_file_size(file.file_path);
    LOG_DEBUG("Total extraction file size: %lld bytes", static_cast<long long>(total));
    if (total > kMaximumExtractionBytes) {
        const int gigabytes = static_cast<int>(total / (int64_t{1} << 30));
        LOG_WARNING("Extract capture too big: Aprox. total size too big: %dGB", gigabytes);
        extraction.error_title = "Error Extracting Capture File";
        extraction.error_message =
            "We are sorry, the total amount of data to process is too big (~" +
            std::to_string(gigabytes) + "GB); Max size supported to filter and extract is " +
            std::to_string(10) +
            " GB. Please try to stretch the time range in order to reduce the amount of data.";
        return extraction;
    }

    ExtractionJob::Readers readers;
    // Files the index names but that cannot be read: the first is explained, the rest counted,
    // so that an index full of stale rows cannot flood the log.
    size_t unreadable = 0;
    for (const auto& file : files) {
        if (::access(file.file_path.c_str(), R_OK) != 0) {
            if (unreadable++ == 0) {
                LOG_ERROR("Unable to open file [%s] with erc: %s", file.file_path.c_str(),
                          std::strerror(errno));
            }
            continue;
        }
        LOG_DEBUG("Detecting format for file: [%s]", file.file_path.c_str());
        if (auto reader = open_capture_file(file)) {
            LOG_DEBUG("Successfully deceted format for file: [%s]", file.file_path.c_str());
            readers.push_back(std::move(reader));
        }
        LOG_DEBUG("Cleaning up resources for file: [%s]", file.file_path.c_str());
    }
    if (unreadable > 1) LOG_WARNING("%zu more files could not be read", unreadable - 1);
    LOG_DEBUG("Cleaning up resources for file list");

    auto job = std::make_unique<ExtractionJob>(query, std::move(readers));
    job->prime();
    LOG_DEBUG("Getting tshark filter");
    if (!query.display_filter.empty()) {
        LOG_DEBUG("Tshark filter found, starting threaded tshark instance...");
        // Nothing to filter when no packet is in range or no file could be read.
        if (!job->no_data() && !job->nothing_readable() && !job->start_filter(std::move(pipe))) {
            LOG_ERROR("Unable to start %s for the display filter", host::tshark_program().c_str());
            extraction.error_title = "Error Extracting Capture File";
            extraction.error_message =
                "Unable to filter the requested traffic: the packet analyser could not be "
                "started in your capture machine";
            return extraction;
        }
    } else {
        LOG_NORMAL("Bypassing tshark, no user filter found");
    }
    if (job->no_data()) {
        LOG_NORMAL("Extract Capture: Couldn't find traffic data for the requested parameters");
        extraction.error_title = "Extract Capture Error";
        extraction.error_message =
            "Couldn't find traffic data for the requested parameters in your capture machine";
        return extraction;
    }
    LOG_DEBUG("Successfully extracted files - Sending to FE");
    extraction.job = std::move(job);
    return extraction;
}

}  // namespace vistrel::capture
