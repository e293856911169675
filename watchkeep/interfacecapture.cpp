#include "interfacecapture.h"

#include <net/if.h>
#include <poll.h>

#include <chrono>
#include <filesystem>

#include "filereporter.h"
#include "index/indexer.h"
#include "sourceerror.h"
#include "startup/logger.h"

namespace vistrel::watchkeep {

namespace {

constexpr int kSnapLength = 262144;           // whole frames, GRO/TSO super-frames included
constexpr int kRingBytes = 64 * 1024 * 1024;  // absorbs bursts while a file rotates
constexpr int kBlockTimeoutMs = 100;          // a ring block is handed over at least this often
constexpr uint64_t kTickNs = 1'000'000'000ULL;
constexpr uint64_t kDropLogEveryNs = 10'000'000'000ULL;
constexpr uint64_t kLastDrainNs = 3 * kBlockTimeoutMs * 1'000'000ULL;

uint64_t wall_ns() {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                     std::chrono::system_clock::now().time_since_epoch())
                                     .count());
}

// pcap's DLT_ numbers are the file formats' LINKTYPE_ numbers except for raw IP.
uint32_t link_type_of(int datalink) {
    return datalink == DLT_RAW ? 101 : static_cast<uint32_t>(datalink);
}

std::string activation_error(const std::string& name, int status, pcap_t* handle) {
    switch (status) {
        case PCAP_ERROR_NO_SUCH_DEVICE:
            return "network interface '" + name + "' does not exist";
        case PCAP_ERROR_PERM_DENIED:
        case PCAP_ERROR_PROMISC_PERM_DENIED:
            return "capturing on '" + name +
                   "' needs root or the CAP_NET_RAW capability (setcap "
                   "cap_net_raw,cap_net_admin=eip on the watchkeep program)";
        case PCAP_ERROR_IFACE_NOT_UP:
            return "network interface '" + name + "' is down";
        default:
            return "cannot capture on '" + name + "': " + pcap_geterr(handle);
    }
}

}  // namespace

InterfaceCapture::InterfaceCapture(const std::string& name, const std::string& capture_path,
                                   uint64_t file_period_ns, std::unique_ptr<SourceIndexer> indexer,
                                   FileReporter& reporter)
    : name_(name), indexer_(std::move(indexer)) {
    if (if_nametoindex(name.c_str()) == 0) {
        throw SourceError("network interface '" + name + "' does not exist");
    }
    char error[PCAP_ERRBUF_SIZE] = {0};
    handle_.reset(pcap_create(name.c_str(), error));
    if (!handle_) throw SourceError("cannot capture on '" + name + "': " + error);
    pcap_t* handle = handle_.get();
    pcap_set_snaplen(handle, kSnapLength);
    pcap_set_promisc(handle, 1);
    pcap_set_timeout(handle, kBlockTimeoutMs);
    pcap_set_buffer_size(handle, kRingBytes);
    pcap_set_tstamp_precision(handle, PCAP_TSTAMP_PRECISION_NANO);
    const int status = pcap_activate(handle);
    if (status < 0) throw SourceError(activation_error(name, status, handle));
    if (status > 0) LOG_WARNING("Capture on %s: %s", name.c_str(), pcap_geterr(handle));
    if (pcap_setnonblock(handle, 1, error) != 0) {
        throw SourceError("cannot capture on '" + name + "': " + error);
    }
    link_type_ = link_type_of(pcap_datalink(handle));

    const std::string folder = capture_path + "/" + name;
    std::error_code created;
    std::filesystem::create_directories(folder, created);
    if (!std::filesystem::is_directory(folder)) {
        throw SourceError("cannot create the capture folder '" + folder +
                          "': " + created.message());
    }
    files_ = std::make_unique<RotatingCaptureFile>(
        folder, name, static_cast<uint16_t>(link_type_), file_period_ns,
        [&reporter, name](const FileSummary& summary) { reporter.report(summary, name); });
    LOG_NORMAL("Capturing interface %s (link type %u) into %s, a new file every %llu s",
               name.c_str(), link_type_, folder.c_str(),
               static_cast<unsigned long long>(file_period_ns / kTickNs));
}

InterfaceCapture::~InterfaceCapture() {
    stop();
}

void InterfaceCapture::start() {
    thread_ = std::thread(&InterfaceCapture::run, this);
}

void InterfaceCapture::stop() {
    stop_.set();
    if (thread_.joinable()) thread_.join();
}

InterfaceCapture::Counters InterfaceCapture::counters() const {
    return {packets_.load(), kernel_drops_.load(), interface_drops_.load(), engine_drops_.load()};
}

void InterfaceCapture::on_packet(u_char* self, const pcap_pkthdr* header, const u_char* data) {
    auto* capture = reinterpret_cast<InterfaceCapture*>(self);
    // Nanosecond precision: tv_usec holds nanoseconds.
    const uint64_t timestamp = static_cast<uint64_t>(header->ts.tv_sec) * 1'000'000'000ULL +
                               static_cast<uint64_t>(header->ts.tv_usec);
    // The kernel's stamp is wall-clock time: good enough to decide a file's rotation.
    if (!capture->files_->write(timestamp, data, header->caplen, timestamp)) {
        capture->engine_drops_.fetch_add(1, std::memory_order_relaxed);
    }
    capture->indexer_->packet(capture->link_type_, timestamp, data, header->caplen, header->len);
    capture->packets_.fetch_add(1, std::memory_order_relaxed);
}

void InterfaceCapture::dispatch_all() {
    // The kernel hands a partly filled ring block over only once its time-out has passed.
    // Bounded in time: on a busy interface there is always one more block.
    pollfd ring{pcap_get_selectable_fd(handle_.get()), POLLIN, 0};
    const uint64_t until = wall_ns() + kLastDrainNs;
    while (wall_ns() < until) {
        if (poll(&ring, 1, 2 * kBlockTimeoutMs) <= 0) break;
        if (pcap_dispatch(handle_.get(), -1, on_packet, reinterpret_cast<u_char*>(this)) < 0) {
            break;
        }
    }
}

void InterfaceCapture::tick(uint64_t now_ns) {
    pcap_stat statistics{};
    if (pcap_stats(handle_.get(), &statistics) == 0) {
        kernel_drops_.store(statistics.ps_drop);
        interface_drops_.store(statistics.ps_ifdrop);
    }
    const uint64_t kernel = kernel_drops_.load() + interface_drops_.load();
    const uint64_t engine = engine_drops_.load();
    if (kernel != reported_kernel_ || engine != reported_engine_) {
        indexer_->drops(kernel - reported_kernel_, engine - reported_engine_);
        reported_kernel_ = kernel;
        reported_engine_ = engine;
    }
    // Drops are logged as they happen, at most every ten seconds.
    if ((kernel != logged_kernel_ || engine != logged_engine_) && now_ns >= next_drop_log_ns_) {
        LOG_WARNING(
            "Capture on %s dropped %llu packets in the kernel and %llu in the engine "
            "(%llu and %llu since the start)",
            name_.c_str(), static_cast<unsigned long long>(kernel - logged_kernel_),
            static_cast<unsigned long long>(engine - logged_engine_),
            static_cast<unsigned long long>(kernel), static_cast<unsigned long long>(engine));
        logged_kernel_ = kernel;
        logged_engine_ = engine;
        next_drop_log_ns_ = now_ns + kDropLogEveryNs;
    }
    files_->tick(now_ns);
    indexer_->tick(now_ns);
}

void InterfaceCapture::run() {
    pollfd watched[2] = {{pcap_get_selectable_fd(handle_.get()), POLLIN, 0},
                         {stop_.fd(), POLLIN, 0}};
    uint64_t next_tick = wall_ns() + kTickNs;
    for (;;) {
        poll(watched, 2, kBlockTimeoutMs);
        if (watched[1].revents != 0) break;
        if (pcap_dispatch(handle_.get(), -1, on_packet, reinterpret_cast<u_char*>(this)) ==
            PCAP_ERROR) {
            LOG_ERROR("Capture on %s ended: %s", name_.c_str(), pcap_geterr(handle_.get()));
            break;
        }
        const uint64_t now = wall_ns();
        if (now >= next_tick) {
            tick(now);
            next_tick = now + kTickNs;
        }
    }
    dispatch_all();
    tick(wall_ns());
    files_->close();
    indexer_->finish();
    const Counters totals = counters();
    LOG_NORMAL(
        "Capture on %s ended: %llu packets, %llu dropped by the kernel, %llu by the "
        "interface, %llu not written",
        name_.c_str(), static_cast<unsigned long long>(totals.packets),
        static_cast<unsigned long long>(totals.kernel_drops),
        static_cast<unsigned long long>(totals.interface_drops),
        static_cast<unsigned long long>(totals.engine_drops));
}

}  // namespace vistrel::watchkeep
