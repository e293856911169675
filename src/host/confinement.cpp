#include "host/confinement.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <memory>

namespace vistrel::host {

std::optional<std::string> real_path(const std::string& path) {
    std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(path.c_str(), nullptr),
                                                         &std::free);
    if (resolved == nullptr) return std::nullopt;
    return std::string(resolved.get());
}

bool lies_beneath(const std::string& real, const std::vector<std::string>& roots) {
    for (const std::string& root : roots) {
        std::optional<std::string> real_root = real_path(root);
        if (!real_root) continue;
        std::string prefix = *real_root == "/" ? "/" : *real_root + "/";
        if (real.size() > prefix.size() && real.compare(0, prefix.size(), prefix) == 0) {
            return true;
        }
    }
    return false;
}

int open_beneath(const std::string& root, const std::string& relative) {
    int folder = ::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0) return -1;
    open_how how{};
    how.flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
    int file = static_cast<int>(::syscall(SYS_openat2, folder, relative.c_str(), &how, sizeof how));
    int error = errno;
    ::close(folder);
    errno = error;
    return file;
}

}  // namespace vistrel::host
