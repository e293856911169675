#pragma once

#include <cstdint>
#include <vector>

#include "index/flow.h"

namespace vistrel::watchkeep {

// The flows of one source: an open-addressing index (linear probing) over a dense array, so a
// lookup touches one cache line of the index and one flow, and a scan of every flow is a walk
// over contiguous memory. The array is reserved for `capacity` flows up front; pages are only
// made resident as flows fill them, so memory follows the flows actually live.
class FlowTable {
  public:
    explicit FlowTable(uint32_t capacity);

    // The flow with `key`, or null.
    Flow* find(const FlowKey& key, uint64_t hash);
    // Adds a zeroed flow with `key`; the table must not be full.
    Flow& insert(const FlowKey& key, uint64_t hash);
    // Removes the flow at `position` (0 <= position < size()); the last flow takes its place.
    void erase(uint32_t position);

    uint32_t size() const { return static_cast<uint32_t>(flows_.size()); }
    bool full() const { return flows_.size() >= capacity_; }
    Flow& at(uint32_t position) { return flows_[position]; }

  private:
    uint32_t slot_of(uint32_t position) const;
    static uint64_t entry(uint32_t position, uint64_t hash) {
        return (hash & 0xffffffff00000000ULL) | (position + 1u);
    }
    static uint32_t position_of(uint64_t entry) { return static_cast<uint32_t>(entry) - 1; }
    void grow();

    uint32_t capacity_;
    std::vector<Flow> flows_;
    // Low half: position + 1 (0 for an empty slot); high half: the hash's high half, so that
    // probing past other flows does not touch their memory.
    std::vector<uint64_t> slots_;
    uint64_t mask_ = 0;
};

}  // namespace vistrel::watchkeep
