// Runs a fuzz target over stored inputs without libFuzzer, so that `make test` replays every
// corpus and every kept crash input. Arguments: files, or folders whose files are all read.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

int replay(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "cannot read %s\n", path.c_str());
        return 1;
    }
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                                  std::istreambuf_iterator<char>());
    std::printf("%s (%zu bytes)\n", path.c_str(), bytes.size());
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    int failures = 0;
    size_t inputs = 0;
    for (int i = 1; i < argc; ++i) {
        const std::filesystem::path path(argv[i]);
        if (std::filesystem::is_directory(path)) {
            for (const auto& entry : std::filesystem::recursive_directory_iterator(path)) {
                if (!entry.is_regular_file()) continue;
                failures += replay(entry.path());
                ++inputs;
            }
        } else {
            failures += replay(path);
            ++inputs;
        }
    }
    // An empty replay means a mistyped folder, not a pass.
    if (inputs == 0) {
        std::fprintf(stderr, "no inputs\n");
        return 1;
    }
    return failures == 0 ? 0 : 1;
}
