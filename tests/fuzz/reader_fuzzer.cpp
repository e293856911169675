// libFuzzer target for one capture reader (VISTREL_FUZZ_PCAPNG picks pcapng, else pcap).
// Every input must end cleanly, and reading it by ranges in small chunks must give exactly
// the packets that reading it packet by packet gives: the resume point is exact.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "capture/pcapformatparser.h"
#include "capture/pcapngformatparser.h"
#include "fuzzharness.h"

#ifdef VISTREL_FUZZ_PCAPNG
using Reader = vistrel::capture::PcapngFormatParser;
#else
using Reader = vistrel::capture::PcapFormatParser;
#endif

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    vistrel::fuzz::quiet();
    if (size < 2) return 0;
    // The first two bytes choose the chunk size; the rest is the file.
    const size_t maximum = 32 + (size_t{data[0]} << 8 | data[1]) % 8192;
    const std::string& path = vistrel::fuzz::memory_file(data + 2, size - 2);

    Reader whole(path);
    whole.check_header();
    std::string packets;
    std::vector<size_t> sizes;
    while (auto packet = whole.next_packet()) {
        const auto& block = packet->block;
        FUZZ_CHECK(block.size() >= 32);
        uint32_t interface_id, high, low;
        std::memcpy(&interface_id, block.data() + 8, 4);
        std::memcpy(&high, block.data() + 12, 4);
        std::memcpy(&low, block.data() + 16, 4);
        FUZZ_CHECK(interface_id <= 1);
        FUZZ_CHECK((uint64_t{high} << 32 | low) == packet->timestamp);
        packets.append(block.begin(), block.end());
        sizes.push_back(block.size());
    }

    Reader chunked(path);
    std::string ranges;
    while (auto chunk = chunked.read_range(0, ~uint64_t{0}, maximum)) {
        FUZZ_CHECK(chunk->size() <= maximum);
        ranges.append(chunk->begin(), chunk->end());
    }
    // Ranges stop early only at a packet larger than the chunk size.
    FUZZ_CHECK(packets.compare(0, ranges.size(), ranges) == 0);
    if (ranges.size() < packets.size()) {
        size_t offset = 0;
        size_t index = 0;
        while (offset < ranges.size()) offset += sizes[index++];
        FUZZ_CHECK(offset == ranges.size() && sizes[index] > maximum);
    }
    return 0;
}
