#include "index/spool.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "startup/logger.h"

namespace vistrel::watchkeep {

namespace fs = std::filesystem;

namespace {

constexpr const char* kSuffix = ".ndjson";

// RAII for a file descriptor.
class Descriptor {
  public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() {
        if (fd_ >= 0) ::close(fd_);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return fd_; }
    // Closes now, reporting the error a delayed write may leave for close.
    bool close() {
        int fd = fd_;
        fd_ = -1;
        return ::close(fd) == 0;
    }

  private:
    int fd_;
};

bool write_all(int fd, const std::string& body) {
    size_t written = 0;
    while (written < body.size()) {
        ssize_t n = ::write(fd, body.data() + written, body.size() - written);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        written += static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

Spool::Spool(std::string folder) : folder_(std::move(folder)) {
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(folder_, error)) {
        const std::string name = entry.path().filename().string();
        if (name.rfind(".tmp-", 0) == 0) {
            // Left by a run that ended while writing: the batch was still in its memory then
            // and is gone with it, and this part is incomplete.
            fs::remove(entry.path(), error);
            continue;
        }
        uint64_t sequence = 0;
        char tail[16] = {};
        if (name.size() == 16 + std::strlen(kSuffix) &&
            std::sscanf(name.c_str(), "%16" SCNu64 "%15s", &sequence, tail) == 2 &&
            std::strcmp(tail, kSuffix) == 0) {
            waiting_.insert(sequence);
        }
    }
    if (!waiting_.empty()) {
        LOG_NORMAL("%zu bulk requests wait in %s from an earlier run; they go first",
                   waiting_.size(), folder_.c_str());
    }
}

std::string Spool::path(uint64_t sequence) const {
    char name[40];
    std::snprintf(name, sizeof name, "%016" PRIu64 "%s", sequence, kSuffix);
    return folder_ + "/" + name;
}

uint64_t Spool::next_sequence() const {
    std::lock_guard lock(mutex_);
    return waiting_.empty() ? 1 : *waiting_.rbegin() + 1;
}

bool Spool::empty() const {
    std::lock_guard lock(mutex_);
    return waiting_.empty();
}

uint64_t Spool::oldest() const {
    std::lock_guard lock(mutex_);
    return *waiting_.begin();
}

size_t Spool::files() const {
    std::lock_guard lock(mutex_);
    return waiting_.size();
}

bool Spool::store(uint64_t sequence, const std::string& body) {
    std::error_code error;
    fs::create_directories(folder_, error);
    const std::string final_path = path(sequence);
    const std::string temporary = folder_ + "/.tmp-" + fs::path(final_path).filename().string();
    Descriptor fd(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    bool stored = fd.get() >= 0 && write_all(fd.get(), body) && fd.close() &&
                  std::rename(temporary.c_str(), final_path.c_str()) == 0;
    std::lock_guard lock(mutex_);
    if (!stored) {
        int reason = errno;
        fs::remove(temporary, error);
        if (failing_) return false;
        failing_ = true;
        LOG_ERROR(
            "Spool %s: cannot write %zu bytes of records (%s); they stay in memory and "
            "are lost if the engine stops before Elasticsearch answers",
            folder_.c_str(), body.size(), std::strerror(reason));
        return false;
    }
    if (failing_) LOG_NORMAL("Spool %s: writable again", folder_.c_str());
    failing_ = false;
    waiting_.insert(sequence);
    return true;
}

std::optional<std::string> Spool::load(uint64_t sequence) const {
    std::ifstream file(path(sequence), std::ios::binary);
    if (!file) {
        LOG_ERROR("Spool %s: cannot read %s (%s)", folder_.c_str(), path(sequence).c_str(),
                  std::strerror(errno));
        return std::nullopt;
    }
    std::ostringstream body;
    body << file.rdbuf();
    return body.str();
}

void Spool::remove(uint64_t sequence) {
    std::error_code error;
    fs::remove(path(sequence), error);
    std::lock_guard lock(mutex_);
    waiting_.erase(sequence);
}

}  // namespace vistrel::watchkeep
