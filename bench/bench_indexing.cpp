// Indexes a capture file as the engine's analysis form does: libpcap reads it, one
// SourceIndexer makes the records, one BulkSender ships them to <bulk url>. Prints
// "<packets> <records> <seconds> <cpu seconds> <peak RSS KiB>".
// Usage: bench_indexing <file> <bulk url> <spool folder>
#include <pcap/pcap.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <memory>

#include "index/indexer.h"

namespace {

double cpu_seconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

struct PcapClose {
    void operator()(pcap_t* handle) const { pcap_close(handle); }
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: bench_indexing <file> <bulk url> <spool folder>\n");
        return 2;
    }
    char error[PCAP_ERRBUF_SIZE];
    std::unique_ptr<pcap_t, PcapClose> capture(
        pcap_open_offline_with_tstamp_precision(argv[1], PCAP_TSTAMP_PRECISION_NANO, error));
    if (!capture) {
        std::fprintf(stderr, "bench_indexing: %s\n", error);
        return 1;
    }
    vistrel::watchkeep::IndexSettings settings;
    settings.bulk_url = argv[2];
    settings.flows_index = "vistrel-bench";
    settings.spool_folder = argv[3];
    settings.dns_records = true;
    settings.packet_statistics = true;
    const auto link = static_cast<uint32_t>(pcap_datalink(capture.get()));

    const auto start = std::chrono::steady_clock::now();
    const double cpu_start = cpu_seconds();
    vistrel::watchkeep::BulkSender sender(settings);
    uint64_t packets = 0;
    {
        vistrel::watchkeep::SourceIndexer indexer(settings, sender, "upload");
        pcap_pkthdr* header = nullptr;
        const u_char* data = nullptr;
        uint64_t next_tick = 0;
        while (pcap_next_ex(capture.get(), &header, &data) == 1) {
            const uint64_t time = static_cast<uint64_t>(header->ts.tv_sec) * 1'000'000'000ULL +
                                  static_cast<uint64_t>(header->ts.tv_usec);
            indexer.packet(link, time, data, header->caplen, header->len);
            ++packets;
            if (time >= next_tick) {
                indexer.tick(time);
                next_tick = time + 1'000'000'000ULL;
            }
        }
        indexer.finish();
    }
    const bool complete = sender.finish(std::chrono::seconds(60));
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const double cpu = cpu_seconds() - cpu_start;
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto statistics = sender.statistics();
    std::printf("%llu %llu %.3f %.3f %ld\n", static_cast<unsigned long long>(packets),
                static_cast<unsigned long long>(statistics.documents_sent), seconds, cpu,
                usage.ru_maxrss);
    return complete ? 0 : 1;
}
