#include "capture/bpfprogram.h"

#include <mutex>

namespace vistrel::capture {

namespace {
// The link types' packets are at most this long; the filter only needs it to be large.
constexpr int kSnapshotLength = 262144;
}  // namespace

std::unique_ptr<BpfProgram> BpfProgram::compile(const std::string& expression, int link_type,
                                                std::string& error) {
    // libpcap's compiler keeps state of its own in some releases: one compile at a time.
    static std::mutex compiling;
    std::lock_guard<std::mutex> lock(compiling);
    std::unique_ptr<pcap_t, void (*)(pcap_t*)> dead(pcap_open_dead(link_type, kSnapshotLength),
                                                    &pcap_close);
    if (!dead) {
        error = "no libpcap handle for link type " + std::to_string(link_type);
        return nullptr;
    }
    auto program = std::make_unique<BpfProgram>(Compiled{});
    if (pcap_compile(dead.get(), &program->program_, expression.c_str(), 1, PCAP_NETMASK_UNKNOWN) !=
        0) {
        error = pcap_geterr(dead.get());
        program->program_ = {};
        return nullptr;
    }
    return program;
}

BpfProgram::~BpfProgram() {
    if (program_.bf_insns != nullptr) pcap_freecode(&program_);
}

bool BpfProgram::matches(const uint8_t* data, uint32_t captured_length,
                         uint32_t original_length) const {
    pcap_pkthdr header{};
    header.caplen = captured_length;
    header.len = original_length;
    return pcap_offline_filter(&program_, &header, data) != 0;
}

}  // namespace vistrel::capture
