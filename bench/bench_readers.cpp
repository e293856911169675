// Reader throughput without HTTP: read_range over a generated file, in the download's
// 102,400-byte chunks.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "capture/capturefile.h"
#include "capturegenerator.h"
#include "startup/logger.h"

namespace {

// Two generated files in a folder of their own, removed when the program ends.
class SampleFolder {
  public:
    SampleFolder() {
        char name[] = "/tmp/vistrel-bench-XXXXXX";
        if (mkdtemp(name) != nullptr) folder_ = name;
    }
    ~SampleFolder() {
        for (const auto& path : paths_) {
            if (!path.empty()) std::remove(path.c_str());
        }
        if (!folder_.empty()) rmdir(folder_.c_str());
    }

    const std::string& sample(bool pcapng) {
        std::string& path = paths_[pcapng ? 1 : 0];
        if (path.empty()) {
            path = folder_ + (pcapng ? "/sample.pcapng" : "/sample.pcap");
            vistrel::bench::generate_capture(path, pcapng, 64ull << 20,
                                             1710000000ull * 1000000000ull, 700000);
        }
        return path;
    }

  private:
    std::string folder_;
    std::string paths_[2];
};

const std::string& sample(bool pcapng) {
    static SampleFolder folder;
    return folder.sample(pcapng);
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
