#pragma once

// What the fuzz targets share: a failed check aborts (libFuzzer reports it as a crash, the
// replay driver dies), the log stays quiet, and an input becomes a file opened by name.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "startup/logger.h"

namespace vistrel::fuzz {

inline void fail_unless(bool condition, const char* file, int line) {
    if (condition) return;
    std::fprintf(stderr, "check failed at %s:%d\n", file, line);
    std::abort();
}
#define FUZZ_CHECK(condition) ::vistrel::fuzz::fail_unless((condition), __FILE__, __LINE__)

// Once per run: millions of inputs must not fill the disk with log lines.
inline void quiet() {
    static const bool done = (logger().set_level(0), true);
    (void)done;
}

// The input as a file the readers open by name, without touching the disk. One file serves
// every input, rewritten each time: nothing keeps it open from one input to the next.
inline const std::string& memory_file(const uint8_t* data, size_t size) {
    static const int fd = memfd_create("fuzz-input", 0);
    static const std::string path = "/proc/self/fd/" + std::to_string(fd);
    FUZZ_CHECK(fd >= 0 && ftruncate(fd, 0) == 0);
    FUZZ_CHECK(size == 0 || pwrite(fd, data, size, 0) == static_cast<ssize_t>(size));
    return path;
}

}  // namespace vistrel::fuzz
