// Writes the benchmark's capture files and prints one line per file:
//   <path> <first ns> <last ns> <packets> <bytes>
// Usage: bench_makecaptures <folder> <files> <megabytes per file>
//        bench_makecaptures --free-port   (prints a free TCP port on 127.0.0.1)
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "capturegenerator.h"

namespace {

// A free port the server accepts (1024..49151), below the kernel's ephemeral range so that
// outgoing connections do not take it meanwhile.
int free_port() {
    std::srand(static_cast<unsigned>(::getpid()) ^ static_cast<unsigned>(std::time(nullptr)));
    for (int attempt = 0; attempt < 1000; ++attempt) {
        const int port = 20000 + std::rand() % 12000;
        const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        if (fd < 0) return 0;
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<uint16_t>(port));
        const bool free = ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
        ::close(fd);
        if (free) return port;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::string(argv[1]) == "--free-port") {
        std::printf("%d\n", free_port());
        return 0;
    }
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s <folder> <files> <megabytes per file>\n", argv[0]);
        return 2;
    }
    const std::string folder = argv[1];
    const int files = std::atoi(argv[2]);
    const uint64_t bytes = std::strtoull(argv[3], nullptr, 10) << 20;
    // 2024-03-09, one file per 100 s; packets spaced so that a file fills its 100 s.
    uint64_t start = 1710000000ull * 1000000000ull;
    for (int k = 0; k < files; ++k) {
        const bool pcapng = k % 2 == 0;
        const std::string path =
            folder + "/bench-" + std::to_string(k) + (pcapng ? ".pcapng" : ".pcap");
        const auto file = vistrel::bench::generate_capture(path, pcapng, bytes, start, 700000);
        if (file.packets == 0) return 1;
        std::printf("%s %llu %llu %llu %llu\n", file.path.c_str(),
                    static_cast<unsigned long long>(file.first_ns),
                    static_cast<unsigned long long>(file.last_ns),
                    static_cast<unsigned long long>(file.packets),
                    static_cast<unsigned long long>(file.bytes));
        start = file.last_ns + 1000000000ull;
    }
    return 0;
}
