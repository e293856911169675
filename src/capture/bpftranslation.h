#pragma once

#include <string>
#include <string_view>

namespace vistrel::capture {

// A display filter rewritten as a libpcap filter expression, or why it cannot be. Only terms
// whose meaning is the same in both languages on plain traffic are rewritten (addresses,
// ports, MAC addresses, EtherType, IP protocol and TTL, TCP flags, ARP, ICMP, joined with
// &&, || and !); anything else is left to tshark.
struct BpfTranslation {
    std::string bpf;
    std::string reason;  // empty when `bpf` is usable

    bool usable() const { return reason.empty(); }
};

BpfTranslation translate_to_bpf(std::string_view display_filter);

}  // namespace vistrel::capture
