#pragma once

#include <pcap/pcap.h>

#include <cstdint>
#include <memory>
#include <string>

namespace vistrel::capture {

// A libpcap filter expression compiled once for a link type and run on packets in memory.
class BpfProgram {
  public:
    // The program, or nothing with libpcap's reason in `error`.
    static std::unique_ptr<BpfProgram> compile(const std::string& expression, int link_type,
                                               std::string& error);
    ~BpfProgram();
    BpfProgram(const BpfProgram&) = delete;
    BpfProgram& operator=(const BpfProgram&) = delete;

    bool matches(const uint8_t* data, uint32_t captured_length, uint32_t original_length) const;

  private:
    struct Compiled {};  // only compile() makes programs

  public:
    explicit BpfProgram(Compiled) {}

  private:
    bpf_program program_{};
};

}  // namespace vistrel::capture
