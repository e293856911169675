#pragma once

#include <list>
#include <memory>
#include <string>

#include "capture/packetselector.h"
#include "capture/capturefilerecord.h"

namespace vistrel::capture {

// How a display filter is applied: by libpcap inside the extraction (a selector), or by
// tshark for the reason given. When in doubt, tshark.
struct FilterChoice {
    std::unique_ptr<PacketSelector> selector;
    std::string reason;
};

// The choice for a filter alone. A non-empty `tshark_reason` (the configuration, a raw display
// filter) decides for tshark at once.
FilterChoice choose_filter(const std::string& display_filter, const std::string& tshark_reason);

// The fast path also needs plain traffic: false as soon as a packet of the files' range
// [start, end) is one that tshark could read differently from libpcap.
bool range_is_plain(const PacketSelector& selector,
                    const std::list<CaptureFileRecord>& files, uint64_t start,
                    uint64_t end);

}  // namespace vistrel::capture
