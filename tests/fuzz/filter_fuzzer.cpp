// libFuzzer target for the fast filtered path: a random dashboard filter made from the keys of
// the shipped rules file, over a fuzzed pcapng file. Whatever libpcap takes must run without a
// fault and give a subsequence of the unfiltered extract (the download tests compare the
// selection itself with tshark's).
#include <cstdint>
#include <cstring>
#include <list>
#include <string>
#include <vector>

#include "capture/extractionjob.h"
#include "capture/filterchoice.h"
#include "dashboard/dashboardfilter.h"
#include "fuzzharness.h"

namespace {

using vistrel::capture::ExtractionJob;

std::string stream(ExtractionJob& job) {
    std::string bytes;
    std::vector<uint8_t> buffer(vistrel::capture::kDirectChunkSize);
    int64_t got;
    while ((got = job.read_direct(buffer.data(), buffer.size())) > 0) {
        bytes.append(reinterpret_cast<const char*>(buffer.data()), static_cast<size_t>(got));
    }
    return bytes;
}

// The EPBs behind the 92-byte header.
std::vector<std::string> blocks(const std::string& extract) {
    std::vector<std::string> result;
    for (size_t at = 92; at + 8 <= extract.size();) {
        uint32_t length;
        std::memcpy(&length, extract.data() + at + 4, 4);
        FUZZ_CHECK(length >= 32 && at + length <= extract.size());
        result.push_back(extract.substr(at, length));
        at += length;
    }
    return result;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    vistrel::fuzz::quiet();
    static const std::vector<std::pair<std::string, std::vector<std::string>>> kKeys = {
        {"IP_SRC", {"10.0.0.1", "2001:db8::1"}},
        {"IP_DST", {"10.0.0.2", "::1"}},
        {"L4_SRC_PORT", {"53", "80"}},
        {"L4_DST_PORT", {"443", "0"}},
        {"MAC_SRC", {"00:1b:c5:00:00:01"}},
        {"MAC_DST", {"ff:ff:ff:ff:ff:ff"}},
        {"ETH_TYPE", {"0x0800", "0x86dd"}},
        {"IP_PROTOCOL", {"6", "17"}},
        {"IP_TTL", {"64", "1"}},
        {"TCP_FLAGS", {"0x012", "2"}},
        {"ARP", {"x"}},
        {"ICMP", {"x"}},
        {"TCP_SYN", {"x"}},
        {"VLAN_ID", {"7"}}};
    static const char* kOperators[] = {"=", "!=", "<", ">", "=~", "!~"};
    if (size < 4) return 0;
    // The first byte: term count and direction; then two bytes per term; then the file.
    const size_t terms = 1 + data[0] % 3;
    const bool bidirectional = data[0] & 0x80;
    if (size < 1 + 2 * terms) return 0;
    std::vector<vistrel::dashboard::DashboardFilter> filters;
    for (size_t i = 0; i < terms; ++i) {
        const auto& [key, values] = kKeys[data[1 + 2 * i] % kKeys.size()];
        const uint8_t choice = data[2 + 2 * i];
        filters.push_back({key, kOperators[choice % 6], values[(choice / 6) % values.size()]});
    }
    const size_t header = 1 + 2 * terms;
    vistrel::capture::CaptureFileRecord record;
    record.file_path = vistrel::fuzz::memory_file(data + header, size - header);

    vistrel::capture::CaptureQuery query;
    query.display_filter =
        vistrel::dashboard::translate_filters(filters, bidirectional, VISTREL_RULES_FILE);
    // Only the fast path is exercised: what goes to tshark is tshark's business.
    const std::list<vistrel::capture::CaptureFileRecord> files = {record};
    const auto choice = vistrel::capture::choose_filter(query.display_filter, "");
    if (!choice.selector || !vistrel::capture::range_is_plain(*choice.selector, files, 0, ~0ull))
        return 0;
    auto filtered = vistrel::capture::prepare_extraction(query, files);
    if (filtered.job && !filtered.job->nothing_readable()) {
        FUZZ_CHECK(filtered.job->path() == ExtractionJob::Path::kSelected);
        vistrel::capture::CaptureQuery everything;
        auto direct = vistrel::capture::prepare_extraction(everything, {record});
        FUZZ_CHECK(static_cast<bool>(direct.job));
        const std::vector<std::string> all = blocks(stream(*direct.job));
        const std::vector<std::string> selected = blocks(stream(*filtered.job));
        size_t next = 0;
        for (const auto& epb : selected) {
            while (next < all.size() && all[next] != epb) ++next;
            FUZZ_CHECK(next < all.size());
            ++next;
        }
    }
    return 0;
}
