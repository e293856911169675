#include "capturegenerator.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "capture/pcapngwriter.h"

namespace vistrel::bench {

namespace {

void put16(std::vector<uint8_t>& out, uint16_t value) {
    out.insert(out.end(), reinterpret_cast<uint8_t*>(&value),
               reinterpret_cast<uint8_t*>(&value) + 2);
}
void put32(std::vector<uint8_t>& out, uint32_t value) {
    out.insert(out.end(), reinterpret_cast<uint8_t*>(&value),
               reinterpret_cast<uint8_t*>(&value) + 4);
}

// Sizes cycle through a mix close to real traffic: many small, some medium, many full.
size_t frame_length(uint64_t i) {
    static constexpr size_t kMix[] = {64, 1514, 90, 576, 1514, 128, 1514, 60, 1200, 350};
    return kMix[i % 10];
}

std::vector<uint8_t> frame(size_t length, uint64_t i) {
    std::vector<uint8_t> f(length, 0);
    const uint8_t macs[12] = {0, 0x1b, 0xc5, 0, 0, 2, 0, 0x1b, 0xc5, 0, 0, 1};
    std::memcpy(f.data(), macs, 12);
    f[12] = 0x08;
    f[14] = 0x45;
    const uint16_t ip_length = static_cast<uint16_t>(length - 14);
    f[16] = uint8_t(ip_length >> 8);
    f[17] = uint8_t(ip_length);
    f[22] = 64;
    f[23] = 17;
    const uint8_t addresses[8] = {10, 0, 0, uint8_t(1 + i % 200), 10, 0, 1, 1};
    std::memcpy(f.data() + 26, addresses, 8);
    static constexpr uint16_t kPorts[] = {53, 80, 443};
    const uint16_t port = kPorts[i % 3];
    f[34] = 0x9c;
    f[35] = 0x40;  // 40000
    f[36] = uint8_t(port >> 8);
    f[37] = uint8_t(port);
    const uint16_t udp_length = static_cast<uint16_t>(length - 34);
    f[38] = uint8_t(udp_length >> 8);
    f[39] = uint8_t(udp_length);
    for (size_t k = 42; k < length; ++k) f[k] = uint8_t(k + i);
    return f;
}

}  // namespace

namespace {

// Classic pcap in microseconds, written by hand: the pcapng writer knows only pcapng.
void generate_pcap(const std::string& path, uint64_t target_bytes, uint64_t spacing_ns,
                   GeneratedFile& result) {
    std::unique_ptr<FILE, int (*)(FILE*)> out(std::fopen(path.c_str(), "wb"), &std::fclose);
    if (!out) return;
    std::vector<uint8_t> bytes;
    put32(bytes, 0xA1B2C3D4);
    put16(bytes, 2);
    put16(bytes, 4);
    put32(bytes, 0);
    put32(bytes, 0);
    put32(bytes, 65535);
    put32(bytes, 1);
    uint64_t written = 0;
    uint64_t timestamp = result.first_ns;
    for (uint64_t i = 0; written + bytes.size() < target_bytes; ++i) {
        const size_t length = frame_length(i);
        const std::vector<uint8_t> data = frame(length, i);
        timestamp -= timestamp % 1000;
        put32(bytes, static_cast<uint32_t>(timestamp / 1000000000));
        put32(bytes, static_cast<uint32_t>(timestamp % 1000000000 / 1000));
        put32(bytes, static_cast<uint32_t>(length));
        put32(bytes, static_cast<uint32_t>(length));
        bytes.insert(bytes.end(), data.begin(), data.end());
        result.last_ns = timestamp;
        ++result.packets;
        timestamp += spacing_ns;
        if (bytes.size() >= (1 << 20)) {
            std::fwrite(bytes.data(), 1, bytes.size(), out.get());
            written += bytes.size();
            bytes.clear();
        }
    }
    std::fwrite(bytes.data(), 1, bytes.size(), out.get());
    result.bytes = written + bytes.size();
}

// pcapng with two nanosecond Ethernet interfaces, packets alternating between them.
void generate_pcapng(const std::string& path, uint64_t target_bytes, uint64_t spacing_ns,
                     GeneratedFile& result) {
    capture::PcapngWriter writer;
    if (!writer.open(path, {"", ""})) return;
    uint64_t timestamp = result.first_ns;
    for (uint64_t i = 0; writer.bytes_written() < target_bytes; ++i) {
        const size_t length = frame_length(i);
        const std::vector<uint8_t> data = frame(length, i);
        writer.write_packet(static_cast<uint32_t>(i % 2), timestamp, data.data(),
                            static_cast<uint32_t>(length));
        result.last_ns = timestamp;
        ++result.packets;
        timestamp += spacing_ns;
    }
    writer.close();
    result.bytes = writer.bytes_written();
}

}  // namespace

GeneratedFile generate_capture(const std::string& path, bool pcapng, uint64_t target_bytes,
                               uint64_t start_ns, uint64_t spacing_ns) {
    GeneratedFile result;
    result.path = path;
    result.first_ns = start_ns;
    if (pcapng) {
        generate_pcapng(path, target_bytes, spacing_ns, result);
    } else {
        generate_pcap(path, target_bytes, spacing_ns, result);
    }
    return result;
}

}  // namespace vistrel::bench
