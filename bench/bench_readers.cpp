// Reader throughput without HTTP: read_range over a generated file, in the download's
// 102,400-byte chunks.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "capture/capturefile.h"
#include "capturegenerator.h"
#include "startup/logger.h"

namespace {

const std::string& sample(bool pcapng) {
    static const std::string folder = [] {
        char name[] = "/tmp/vistrel-bench-XXXXXX";
        return std::string(mkdtemp(name));
    }();
    static std::string paths[2];
    std::string& path = paths[pcapng ? 1 : 0];
    if (path.empty()) {
        path = folder + (pcapng ? "/sample.pcapng" : "/sample.pcap");
        vistrel::bench::generate_capture(path, pcapng, 64ull << 20, 1710000000ull * 1000000000ull,
                                         700000);
    }
    return path;
}

void read_whole_file(benchmark::State& state, bool pcapng) {
    vistrel::logger().set_level(0);
    const std::string& path = sample(pcapng);
    std::vector<uint8_t> buffer(102400);
    int64_t bytes = 0;
    for (auto _ : state) {
        auto reader = vistrel::capture::open_capture_file(path);
        size_t used;
        while ((used = reader->read_range_into(0, ~uint64_t{0}, buffer.data(), buffer.size())) >
               0) {
            bytes += static_cast<int64_t>(used);
        }
    }
    state.SetBytesProcessed(bytes);
}

void BM_PcapngReadRange(benchmark::State& state) {
    read_whole_file(state, true);
}
void BM_PcapReadRange(benchmark::State& state) {
    read_whole_file(state, false);
}
BENCHMARK(BM_PcapngReadRange)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PcapReadRange)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
