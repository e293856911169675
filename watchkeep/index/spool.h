#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <set>
#include <string>

namespace vistrel::watchkeep {

// Bulk request bodies waiting on disk, one file per batch named by its sequence number
// ("<16 digits>.ndjson"), so that the oldest goes first, also in a later run. Files are
// written under a temporary name and renamed, so a file is either whole or absent.
// Thread-safe.
class Spool {
  public:
    explicit Spool(std::string folder);

    // The sequence number after the highest waiting (1 for an empty spool).
    uint64_t next_sequence() const;
    bool empty() const;
    // The lowest waiting sequence number; only when not empty.
    uint64_t oldest() const;
    size_t files() const;

    // Stores one batch; false (logged, with the reason) when it cannot be written.
    bool store(uint64_t sequence, const std::string& body);
    // The body of a waiting batch; nullopt (logged) when it cannot be read.
    std::optional<std::string> load(uint64_t sequence) const;
    void remove(uint64_t sequence);

    const std::string& folder() const { return folder_; }

  private:
    std::string path(uint64_t sequence) const;

    std::string folder_;
    mutable std::mutex mutex_;
    std::set<uint64_t> waiting_;
    bool failing_ = false;  // the last write failed (logged once until one succeeds)
};

}  // namespace vistrel::watchkeep
