// Writes a pcap file of generated traffic for the indexing benchmark and prints
// "<packets> <flows>". Mix: many short TCP and UDP conversations (a handshake, some data, a
// close; DNS questions among them), a few long ones carrying a sixth of the packets, IPv4 and
// IPv6, a fifth on VLANs, frame sizes from 60 to 1514 bytes, 20,000 conversations at once.
// Usage: bench_makeflows <file> <packets>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "framebuilder.h"

namespace {

using vistrel::testing::FrameSpec;

struct Conversation {
    FrameSpec shape;
    uint32_t remaining = 0;
    uint32_t sent = 0;
};

void put32(FILE* out, uint32_t value) {
    std::fwrite(&value, 4, 1, out);
}

std::string address(std::mt19937_64& random, bool six, bool server) {
    uint64_t value = random();
    char text[64];
    if (six) {
        std::snprintf(text, sizeof text, "2001:db8:%x:%x::%x", server ? 1u : 2u,
                      static_cast<unsigned>(value & 0xffff),
                      static_cast<unsigned>((value >> 16) & 0xffff));
    } else {
        std::snprintf(text, sizeof text, "%u.%u.%u.%u", server ? 10u : 172u,
                      static_cast<unsigned>(value & 0xff),
                      static_cast<unsigned>((value >> 8) & 0xff),
                      static_cast<unsigned>(1 + (value >> 16) % 254));
    }
    return text;
}

Conversation make_conversation(std::mt19937_64& random, bool long_lived) {
    Conversation c;
    const bool six = random() % 10 < 3;
    c.shape.ip_src = address(random, six, false);
    c.shape.ip_dst = address(random, six, true);
    if (random() % 5 == 0) c.shape.vlan = static_cast<uint16_t>(1 + random() % 100);
    const unsigned kind = random() % 10;
    c.shape.protocol = kind < 7 ? 6 : 17;
    c.shape.port_src = static_cast<uint16_t>(32768 + random() % 28000);
    static const uint16_t kServices[] = {443, 80, 22, 8080, 993, 5432};
    c.shape.port_dst = c.shape.protocol == 17 ? (kind == 7 ? 53 : 123) : kServices[random() % 6];
    c.remaining = long_lived ? 1u << 30 : static_cast<uint32_t>(2 + random() % 19);
    return c;
}

std::string next_frame(std::mt19937_64& random, Conversation& c, bool long_lived) {
    const bool reply = c.sent % 2 == 1;
    FrameSpec shape = reply ? vistrel::testing::reply(c.shape) : c.shape;
    if (shape.protocol == 6) {
        shape.tcp_flags = c.sent == 0 ? 0x02 : c.sent == 1 ? 0x12 : c.remaining == 1 ? 0x11 : 0x18;
    }
    size_t size = long_lived ? 1400 : (random() % 4 == 0 ? 1200 + random() % 250 : random() % 300);
    if (shape.port_dst == 53 || shape.port_src == 53) {
        shape.payload =
            vistrel::testing::dns_message("host" + std::to_string(random() % 1000) + ".example.org",
                                          static_cast<uint16_t>(random()), 1, reply);
    } else if (c.sent >= 2 || shape.protocol == 17) {
        shape.payload.assign(size, 'x');
    }
    ++c.sent;
    --c.remaining;
    return vistrel::testing::build_frame(shape);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: bench_makeflows <file> <packets>\n");
        return 2;
    }
    const uint64_t packets = std::strtoull(argv[2], nullptr, 10);
    FILE* out = std::fopen(argv[1], "wb");
    if (out == nullptr) {
        std::perror(argv[1]);
        return 1;
    }
    put32(out, 0xa1b2c3d4);
    put32(out, 0x00040002);
    put32(out, 0);
    put32(out, 0);
    put32(out, 65535);
    put32(out, 1);

    std::mt19937_64 random(42);
    std::vector<Conversation> short_ones;
    std::vector<Conversation> long_ones;
    for (int i = 0; i < 20000; ++i) short_ones.push_back(make_conversation(random, false));
    for (int i = 0; i < 40; ++i) long_ones.push_back(make_conversation(random, true));
    uint64_t flows = short_ones.size() + long_ones.size();
    // 2024-03-05 12:00:00 UTC, then a packet every 10 us on average.
    uint64_t time_us = 1709640000ULL * 1000000ULL;
    for (uint64_t n = 0; n < packets; ++n) {
        const bool long_lived = random() % 6 == 0;
        std::string frame;
        if (long_lived) {
            Conversation& c = long_ones[random() % long_ones.size()];
            frame = next_frame(random, c, true);
        } else {
            Conversation& c = short_ones[random() % short_ones.size()];
            frame = next_frame(random, c, false);
            if (c.remaining == 0) {
                c = make_conversation(random, false);
                ++flows;
            }
        }
        time_us += random() % 20;
        put32(out, static_cast<uint32_t>(time_us / 1000000));
        put32(out, static_cast<uint32_t>(time_us % 1000000));
        put32(out, static_cast<uint32_t>(frame.size()));
        put32(out, static_cast<uint32_t>(frame.size()));
        std::fwrite(frame.data(), 1, frame.size(), out);
    }
    if (std::fclose(out) != 0) {
        std::perror(argv[1]);
        return 1;
    }
    std::printf("%llu %llu\n", static_cast<unsigned long long>(packets),
                static_cast<unsigned long long>(flows));
    return 0;
}
