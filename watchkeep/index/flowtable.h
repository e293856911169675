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
    // Hints for a lookup of `hash` a few packets later: start loading its index slot, and once
    // that is in, the flow it probably finds. Neither changes what the table holds.
    void prefetch_slot(uint64_t hash) const { __builtin_prefetch(&slots_[hash & mask_]); }
    void prefetch_flow(uint64_t hash) const;
    // Adds a zeroed flow with `key`; the table must not be full.
    Flow& insert(const FlowKey& key, uint64_t hash);
    // Removes the flow at `position` (0 <= position < size()); the last flow takes its place.
    void erase(uint32_t position);

    uint32_t size() const { return static_cast<uint32_t>(flows_.size()); }
    bool full() const { return flows_.size() >= capacity_; }
    Flow& at(uint32_t position) { return flows_[position]; }

  private:
    uint32_t slot_of(uint32_t position) const;
    static uint64_t tag_of(uint64_t hash) { return hash << 32; }
    static uint64_t entry(uint32_t position, uint64_t hash) {
        return tag_of(hash) | (position + 1u);
    }
    static uint32_t position_of(uint64_t entry) { return static_cast<uint32_t>(entry) - 1; }
    // The slot where probing for the entry's flow starts (the table has at most 2^32 slots).
    uint64_t home_of(uint64_t entry) const { return (entry >> 32) & mask_; }
    void grow();

    uint32_t capacity_;
    std::vector<Flow> flows_;
    // Low half: position + 1 (0 for an empty slot); high half: the hash's low half, so that
    // probing past other flows, moving entries and growing do not touch the flows' memory.
    std::vector<uint64_t> slots_;
    uint64_t mask_ = 0;
};

}  // namespace vistrel::watchkeep
