#pragma once

#include <pcap/pcap.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include "rotatingcapturefile.h"
#include "wakeup.h"

namespace vistrel::watchkeep {

class FileReporter;
class SourceIndexer;

// Live capture of one network interface with libpcap (TPACKET_V3 ring underneath): whole frames
// with nanosecond timestamps into rotating pcapng files, each packet also handed to the
// interface's indexer. One thread per interface.
class InterfaceCapture {
  public:
    struct Counters {
        uint64_t packets = 0;       // received and handed on
        uint64_t kernel_drops = 0;  // the ring was full
        uint64_t interface_drops = 0;
        uint64_t engine_drops = 0;  // received but not written to a file
    };

    // Opens the interface; throws SourceError (no such interface, no capture privileges...).
    // Files go to `<capture path>/<name>/`.
    InterfaceCapture(const std::string& name, const std::string& capture_path,
                     uint64_t file_period_ns, std::unique_ptr<SourceIndexer> indexer,
                     FileReporter& reporter);
    ~InterfaceCapture();
    InterfaceCapture(const InterfaceCapture&) = delete;
    InterfaceCapture& operator=(const InterfaceCapture&) = delete;

    void start();
    // Takes what the kernel still holds, closes and reports the file, finishes the indexer.
    void stop();

    const std::string& name() const { return name_; }
    Counters counters() const;

  private:
    struct PcapCloser {
        void operator()(pcap_t* handle) const { pcap_close(handle); }
    };

    static void on_packet(u_char* self, const pcap_pkthdr* header, const u_char* data);
    void run();
    void dispatch_all();
    void tick(uint64_t now_ns);

    const std::string name_;
    std::unique_ptr<pcap_t, PcapCloser> handle_;
    std::unique_ptr<SourceIndexer> indexer_;
    std::unique_ptr<RotatingCaptureFile> files_;
    uint32_t link_type_ = 1;
    Wakeup stop_;
    std::thread thread_;

    // Written by the capture thread; read by counters() at any time.
    std::atomic<uint64_t> packets_{0};
    std::atomic<uint64_t> kernel_drops_{0};
    std::atomic<uint64_t> interface_drops_{0};
    std::atomic<uint64_t> engine_drops_{0};
    // Drops already handed to the indexer and the log.
    uint64_t reported_kernel_ = 0;
    uint64_t reported_engine_ = 0;
    uint64_t logged_kernel_ = 0;
    uint64_t logged_engine_ = 0;
    uint64_t next_drop_log_ns_ = 0;
};

}  // namespace vistrel::watchkeep
