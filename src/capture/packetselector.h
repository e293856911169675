#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "capture/bpfprogram.h"

namespace vistrel::capture {

// The fast filtered path's judge of single Enhanced Packet Blocks: the user's filter as a
// BPF program, and a second program that recognises plain traffic, where that filter means
// exactly what tshark's display filter means (no tunnel, VLAN tag, ICMP error, fragment,
// truncated or inconsistent header that tshark would read differently).
class PacketSelector {
  public:
    // Both programs compiled for `link_type`, or nothing with libpcap's reason in `error`.
    static std::unique_ptr<PacketSelector> create(const std::string& expression, int link_type,
                                                  std::string& error);

    bool plain(const uint8_t* epb) const;
    bool selects(const uint8_t* epb) const;

    const std::string& expression() const { return expression_; }

    PacketSelector(std::string expression, std::unique_ptr<BpfProgram> filter,
                   std::unique_ptr<BpfProgram> plain);

  private:
    std::string expression_;
    std::unique_ptr<BpfProgram> filter_;
    std::unique_ptr<BpfProgram> plain_;
};

// The libpcap expression of plain traffic.
const std::string& plain_traffic_bpf();

// The link type of the extracts' interfaces, the one filters are compiled for.
int extract_link_type();

}  // namespace vistrel::capture
