#include "index/flowtable.h"

#include <cstring>

namespace vistrel::watchkeep {

FlowTable::FlowTable(uint32_t capacity) : capacity_(capacity > 0 ? capacity : 1) {
    flows_.reserve(capacity_);
    slots_.assign(1024, 0);
    mask_ = slots_.size() - 1;
}

Flow* FlowTable::find(const FlowKey& key, uint64_t hash) {
    const uint64_t tag = hash & 0xffffffff00000000ULL;
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
        uint64_t home = flows_[position_of(slots_[next])].hash & mask_;
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
    slots_.assign(slots_.size() * 2, 0);
    mask_ = slots_.size() - 1;
    for (uint32_t position = 0; position < flows_.size(); ++position) {
        uint64_t slot = flows_[position].hash & mask_;
        while (slots_[slot] != 0) slot = (slot + 1) & mask_;
        slots_[slot] = entry(position, flows_[position].hash);
    }
}

}  // namespace vistrel::watchkeep
