#include "capture/extractionjob.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "capture/bytes.h"
#include "capture/capturefile.h"
#include "capture/filterchoice.h"
#include "capture/packet.h"
#include "host/paths.h"
#include "startup/logger.h"

namespace vistrel::capture {

namespace {

void pause_a_moment() {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

}  // namespace

ExtractionJob::ExtractionJob(CaptureQuery query, Readers readers)
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
        streamed_.bytes += pending_.size();
        first_chunk_.resize(keep_selected(first_chunk_.data(), first_chunk_.size()));
        pending_.insert(pending_.end(), first_chunk_.begin(), first_chunk_.end());
        first_chunk_ = std::vector<uint8_t>();
        pending_offset_ = 0;
        return hand_out(buffer, maximum);
    }
    while (!readers_.empty()) {
        FileFormatParser& reader = *readers_.front();
        const bool in_place = maximum >= kDirectChunkSize;
        if (!in_place) pending_.resize(kDirectChunkSize);
        uint8_t* chunk = in_place ? buffer : pending_.data();
        const size_t used = reader.read_range_into(query_.start, range_end_, chunk, kDirectChunkSize);
        if (used == 0) {
            readers_.pop_front();
            continue;
        }
        const size_t kept = keep_selected(chunk, used);
        if (kept == 0) continue;  // nothing selected in this chunk: the file goes on
        if (in_place) return static_cast<int64_t>(kept);
        pending_.resize(kept);
        pending_offset_ = 0;
        return hand_out(buffer, maximum);
    }
    return kEndOfStream;
}

void ExtractionJob::use_selector(std::unique_ptr<PacketSelector> selector) {
    selector_ = std::move(selector);
}

ExtractionJob::Path ExtractionJob::path() const {
    if (pipe_) return Path::kTshark;
    return selector_ ? Path::kSelected : Path::kDirect;
}

size_t ExtractionJob::keep_selected(uint8_t* chunk, size_t used) {
    size_t kept = used;
    uint64_t packets = 0;
    if (!selector_) {
        for (size_t at = 0; at < used; at += load_u32(chunk + at + kEpbTotalLength)) ++packets;
    } else {
        // The end is exclusive here, as it is in tshark's time filter.
        const uint64_t end = query_.end == 0 ? ~uint64_t{0} : query_.end;
        kept = 0;
        for (size_t at = 0; at < used;) {
            const uint8_t* epb = chunk + at;
            const uint32_t length = load_u32(epb + kEpbTotalLength);
            const uint64_t stamp = uint64_t{load_u32(epb + kEpbTimestampHigh)} << 32 |
                                   load_u32(epb + kEpbTimestampLow);
            if (stamp < end && selector_->selects(epb)) {
                if (kept != at) std::memmove(chunk + kept, epb, length);
                kept += length;
                ++packets;
            }
            at += length;
        }
    }
    // Download metrics: packets and bytes of the direct and selected paths are counted here.
    streamed_.packets += packets;
    streamed_.bytes += kept;
    return kept;
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
    // tshark's output is read to its end before its exit status is looked at: having exited
    // says nothing about what it wrote and nobody has read yet.
    for (;;) {
        const int64_t got = pipe_->receive(buffer, maximum);
        if (got > 0) {
            // Download metrics: bytes of the tshark path are counted here.
            streamed_.bytes += static_cast<uint64_t>(got);
            return got;
        }
        if (got < 0) {
            LOG_ERROR("Filtered download cut short: tshark's output could not be read");
            status_.store(500);
            return kEndWithError;
        }
        if (pipe_->output_ended()) return end_of_tshark_output();
    }
}

int64_t ExtractionJob::end_of_tshark_output() {
    // The feeder stops the pipe when everything is sent or a send failed; tshark has closed
    // its output, so that is soon.
    while (!pipe_->finished()) pause_a_moment();
    if (status_.load() != 200) {
        LOG_ERROR("Filtered download cut short: the extract could not all be handed to tshark");
        return kEndWithError;
    }
    if (pipe_->exit_status() != 0) {
        LOG_ERROR("Filtered download cut short: tshark ended with status %d after %llu bytes",
                  pipe_->exit_status(), static_cast<unsigned long long>(streamed_.bytes));
        status_.store(500);
        return kEndWithError;
    }
    return kEndOfStream;
}

int64_t counted_file_size(const std::string& path) {
    struct stat status;
    if (::stat(path.c_str(), &status) != 0) return 0;
    const int32_t size = static_cast<int32_t>(static_cast<uint64_t>(status.st_size));
    return size < 0 ? 0 : size;
}

Extraction prepare_extraction(const CaptureQuery& query,
                              const std::list<CaptureFileRecord>& files,
                              ExtractionOptions options) {
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
    // Nothing to filter when no packet is in range or no file could be read.
    const bool streams = !job->no_data() && !job->nothing_readable();
    if (!query.display_filter.empty() && streams) {
        FilterChoice choice = choose_filter(query.display_filter, options.tshark_reason);
        const uint64_t end = query.end == 0 ? ~uint64_t{0} : query.end;
        if (choice.selector && !range_is_plain(*choice.selector, files, query.start, end)) {
            choice.selector.reset();
            choice.reason =
                "the range holds packets that only tshark reads exactly (VLAN tags, tunnels, "
                "ICMP errors, fragments, cut or inconsistent headers)";
        }
        if (choice.selector) {
            LOG_NORMAL("Filtering with BPF, without tshark: '%s'",
                       choice.selector->expression().c_str());
            job->use_selector(std::move(choice.selector));
        } else {
            LOG_NORMAL("Filtering with tshark: %s", choice.reason.c_str());
            LOG_DEBUG("Tshark filter found, starting threaded tshark instance...");
            if (!job->start_filter(std::move(options.pipe))) {
                LOG_ERROR("Unable to start %s for the display filter",
                          host::tshark_program().c_str());
                extraction.error_title = "Error Extracting Capture File";
                extraction.error_message =
                    "Unable to filter the requested traffic: the packet analyser could not be "
                    "started in your capture machine";
                return extraction;
            }
        }
    } else if (query.display_filter.empty()) {
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
