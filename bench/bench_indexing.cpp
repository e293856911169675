// Indexes a capture file as the engine's analysis form does: the engine's file reading hands
// it to one SourceIndexer, one BulkSender ships the records to <bulk url>. Prints
// "<packets> <records> <seconds> <cpu seconds> <peak RSS KiB>".
// Usage: bench_indexing <file> <bulk url> <spool folder>
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <ctime>

#include "filesummary.h"
#include "index/indexer.h"

namespace {

double cpu_seconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: bench_indexing <file> <bulk url> <spool folder>\n");
        return 2;
    }
    vistrel::watchkeep::IndexSettings settings;
    settings.bulk_url = argv[2];
    settings.flows_index = "vistrel-bench";
    settings.spool_folder = argv[3];
    settings.dns_records = true;
    settings.packet_statistics = true;

    const auto start = std::chrono::steady_clock::now();
    const double cpu_start = cpu_seconds();
    vistrel::watchkeep::BulkSender sender(settings);
    uint64_t packets = 0;
    {
        vistrel::watchkeep::SourceIndexer indexer(settings, sender, "upload");
        auto summary = vistrel::watchkeep::read_capture_file(argv[1], &indexer);
        if (!summary) {
            std::fprintf(stderr, "bench_indexing: %s is no capture file\n", argv[1]);
            return 1;
        }
        packets = summary->packets;
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
