#include "capturewriter.h"

#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <system_error>

namespace vistrel::sim {

namespace {

constexpr auto kTick = std::chrono::milliseconds(100);
constexpr uint64_t kMaxPacketsPerTick = 20000;
constexpr uint64_t kNanosecondsPerSecond = 1'000'000'000ull;

uint64_t now_ns() {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                     std::chrono::system_clock::now().time_since_epoch())
                                     .count());
}

}  // namespace

CaptureWriter::CaptureWriter(CaptureOptions options)
    : options_(std::move(options)), generator_(options_.seed), rate_(options_.packets_per_second) {
    writer_.set_application("Tidewell device simulator");
}

CaptureWriter::~CaptureWriter() {
    stop();
}

bool CaptureWriter::start(std::string& error) {
    std::error_code code;
    std::filesystem::create_directories(options_.folder, code);
    if (code || !std::filesystem::is_directory(options_.folder)) {
        error = "cannot create the capture folder " + options_.folder;
        return false;
    }
    const uint64_t now = now_ns();
    {
        std::lock_guard lock(mutex_);
        counters_ = CaptureCounters{};
        counters_.running = true;
        counters_.start_time_ns = now;
        rate_base_ns_ = now;
        rate_base_packets_ = 0;
        last_timestamp_ns_ = now;
    }
    closed_bytes_ = 0;
    files_.clear();
    if (!open_next_file(now)) {
        std::lock_guard lock(mutex_);
        counters_.running = false;
        error = "cannot create a capture file in " + options_.folder;
        return false;
    }
    thread_ = std::thread(&CaptureWriter::run, this);
    return true;
}

void CaptureWriter::stop() {
    {
        std::lock_guard lock(mutex_);
        stop_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable()) thread_.join();
    if (writer_.is_open()) finish_file();
    std::lock_guard lock(mutex_);
    counters_.running = false;
}

void CaptureWriter::set_rate(uint32_t packets_per_second) {
    std::lock_guard lock(mutex_);
    rate_base_ns_ = now_ns();
    rate_base_packets_ = counters_.packets;
    rate_ = packets_per_second;
}

CaptureCounters CaptureWriter::counters() const {
    std::lock_guard lock(mutex_);
    return counters_;
}

bool CaptureWriter::open_next_file(uint64_t now) {
    uint32_t index;
    {
        std::lock_guard lock(mutex_);
        index = ++counters_.current_file_index;
    }
    const std::time_t seconds = static_cast<std::time_t>(now / kNanosecondsPerSecond);
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    char stamp[32];
    std::strftime(stamp, sizeof(stamp), "%Y%m%d_%H%M%S", &parts);
    char number[16];
    std::snprintf(number, sizeof(number), "%05u", index);
    const std::string path =
        (std::filesystem::path(options_.folder) /
         (options_.file_name + "_" + stamp + "_" + number + options_.extension))
            .string();
    if (!writer_.open(path, {"port A", "port B"})) return false;
    files_.push_back(path);
    file_start_ns_ = now;
    return true;
}

void CaptureWriter::finish_file() {
    closed_bytes_ += writer_.bytes_written();
    writer_.close();
    std::lock_guard lock(mutex_);
    ++counters_.files_written;
    counters_.bytes = closed_bytes_;
}

bool CaptureWriter::rotate_if_due(uint64_t at) {
    if (options_.capture_time == 0 ||
        at < file_start_ns_ + options_.capture_time * kNanosecondsPerSecond) {
        return true;
    }
    finish_file();
    if (options_.max_files > 0 && files_.size() >= options_.max_files) {
        if (!options_.loop) return false;
        if (!options_.keep_files) {
            std::error_code code;
            std::filesystem::remove(files_.front(), code);
        }
        files_.pop_front();
    }
    return open_next_file(at);
}

void CaptureWriter::run() {
    std::unique_lock lock(mutex_);
    while (!stop_) {
        wake_.wait_for(lock, kTick);
        if (stop_) break;
        const uint64_t now = now_ns();
        const uint64_t elapsed = now - rate_base_ns_;
        uint64_t target = rate_base_packets_ + elapsed * rate_ / kNanosecondsPerSecond;
        if (target > counters_.packets + kMaxPacketsPerTick) {
            target = counters_.packets + kMaxPacketsPerTick;
        }
        const uint64_t count = target > counters_.packets ? target - counters_.packets : 0;
        const uint64_t from = last_timestamp_ns_;
        lock.unlock();

        // Frames of this tick are spread evenly between the last tick and now.
        uint64_t written = 0;
        bool ended = false;
        for (uint64_t i = 1; i <= count; ++i) {
            const uint64_t timestamp = from + (now - from) * i / count;
            if (!rotate_if_due(timestamp)) {
                ended = true;
                break;
            }
            uint32_t port = 0;
            const std::vector<uint8_t> frame = generator_.next_frame(port);
            writer_.write_packet(port, timestamp, frame.data(),
                                 static_cast<uint32_t>(frame.size()));
            ++written;
        }
        // A slow rate must not keep a file open past its time.
        if (!ended && !rotate_if_due(now)) ended = true;
        writer_.flush();

        lock.lock();
        counters_.packets += written;
        counters_.bytes = closed_bytes_ + (writer_.is_open() ? writer_.bytes_written() : 0);
        last_timestamp_ns_ = now;
        if (ended) {
            counters_.running = false;
            break;
        }
    }
}

}  // namespace vistrel::sim
