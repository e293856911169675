#include "index/flowtable.h"

#include <sys/mman.h>

#include <cstring>

namespace vistrel::watchkeep {

namespace {

// Huge pages for the parts of a large array that cover whole ones: lookups land anywhere in
// the table, and with small pages nearly every one would also miss the TLB. Only a hint.
void ask_huge_pages(const void* begin, size_t bytes) {
    constexpr uintptr_t kHuge = 2u << 20;
    auto first = (reinterpret_cast<uintptr_t>(begin) + kHuge - 1) & ~(kHuge - 1);
    auto last = (reinterpret_cast<uintptr_t>(begin) + bytes) & ~(kHuge - 1);
    if (last > first) madvise(reinterpret_cast<void*>(first), last - first, MADV_HUGEPAGE);
}

}  // namespace

FlowTable::FlowTable(uint32_t capacity) : capacity_(capacity > 0 ? capacity : 1) {
    flows_.reserve(capacity_);
    ask_huge_pages(flows_.data(), capacity_ * sizeof(Flow));
    slots_.assign(1024, 0);
    mask_ = slots_.size() - 1;
}

void FlowTable::prefetch_flow(uint64_t hash) const {
    const uint64_t tag = tag_of(hash);
    for (uint64_t slot = hash & mask_;; slot = (slot + 1) & mask_) {
        uint64_t entry = slots_[slot];
        if (entry == 0) return;
        if ((entry & 0xffffffff00000000ULL) != tag) continue;
        const char* flow = reinterpret_cast<const char*>(flows_.data() + position_of(entry));
        __builtin_prefetch(flow);
        __builtin_prefetch(flow + 64);
        return;
    }
}

Flow* FlowTable::find(const FlowKey& key, uint64_t hash) {
    const uint64_t tag = tag_of(hash);
    for (uint64_t slot = hash & mask_;; slot = (slot + 1) & mask_) {
        uint64_t entry = slots_[slot];
        if (entry == 0) return nullptr;
        if ((entry & 0xffffffff00000000ULL) != tag) continue;
        Flow& flow = flows_[position_of(entry)];
        if (flow.hash == hash && flow.key == key) return &flow;
    }
}

Flow& FlowTable::insert(const FlowKey& key, uint64_t hash) {
    // At most half full keeps probe sequences short.
    if ((flows_.size() + 1) * 2 > slots_.size()) grow();
    Flow& flow = flows_.emplace_back();
    std::memset(&flow, 0, sizeof flow);
    flow.key = key;
    flow.hash = hash;
    uint64_t slot = hash & mask_;
    while (slots_[slot] != 0) slot = (slot + 1) & mask_;
    slots_[slot] = entry(static_cast<uint32_t>(flows_.size() - 1), hash);
    return flow;
}

uint32_t FlowTable::slot_of(uint32_t position) const {
    uint64_t slot = flows_[position].hash & mask_;
    while (static_cast<uint32_t>(slots_[slot]) != position + 1) slot = (slot + 1) & mask_;
    return static_cast<uint32_t>(slot);
}

void FlowTable::erase(uint32_t position) {
    // Backward-shift deletion: later entries of the probe run move up, so no tombstones.
    uint64_t hole = slot_of(position);
    for (uint64_t next = (hole + 1) & mask_; slots_[next] != 0; next = (next + 1) & mask_) {
        uint64_t home = home_of(slots_[next]);
        // The entry may fill the hole if its home is not cyclically within (hole, next].
        bool stays = hole <= next ? (home > hole && home <= next) : (home > hole || home <= next);
        if (!stays) {
            slots_[hole] = slots_[next];
            hole = next;
        }
    }
    slots_[hole] = 0;
    auto last = static_cast<uint32_t>(flows_.size() - 1);
    if (position != last) {
        slots_[slot_of(last)] = entry(position, flows_[last].hash);
        flows_[position] = flows_[last];
    }
    flows_.pop_back();
}

void FlowTable::grow() {
    std::vector<uint64_t> larger;
    larger.reserve(slots_.size() * 2);
    ask_huge_pages(larger.data(), larger.capacity() * sizeof(uint64_t));
    larger.resize(slots_.size() * 2, 0);
    slots_.swap(larger);
    mask_ = slots_.size() - 1;
    for (uint64_t old : larger) {
        if (old == 0) continue;
        uint64_t slot = home_of(old);
        while (slots_[slot] != 0) slot = (slot + 1) & mask_;
        slots_[slot] = old;
    }
}

}  // namespace vistrel::watchkeep
