#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Ethernet frames built header by header, for tests that compare libpcap's and tshark's
// reading of the same packets.
namespace vistrel::testing {

// Traffic where libpcap's and tshark's readings of the filterable fields agree.
std::vector<std::string> plain_traffic();
// Each a few frames that tshark reads deeper than libpcap (name, frames).
struct TrapTraffic {
    std::string name;
    std::vector<std::string> frames;
    bool truncated = false;  // the frames are cut to 40 bytes when written
};
std::vector<TrapTraffic> trap_traffic();

// The addresses and ports the generated traffic uses, for filters that match some of it.
inline const std::string kHostA = "10.1.0.1";
inline const std::string kHostB = "10.1.0.2";
inline const std::string kHostC = "192.168.7.7";
inline const std::string kHost6A = "2001:db8::1";
inline const std::string kHost6B = "2001:db8::2";
inline const std::string kMacA = "00:1b:c5:00:00:0a";
inline const std::string kMacB = "00:1b:c5:00:00:0b";

}  // namespace vistrel::testing
