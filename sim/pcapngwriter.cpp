#include "pcapngwriter.h"

#include <cstring>

namespace vistrel::sim {

namespace {

constexpr uint32_t kSectionHeader = 0x0A0D0D0A;
constexpr uint32_t kInterfaceDescription = 0x00000001;
constexpr uint32_t kEnhancedPacket = 0x00000006;
constexpr uint16_t kLinkTypeEthernet = 1;
constexpr uint32_t kSnapLength = 65535;

template <typename T>
void put(std::vector<uint8_t>& out, T value) {
    uint8_t bytes[sizeof(T)];
    std::memcpy(bytes, &value, sizeof(T));
    out.insert(out.end(), bytes, bytes + sizeof(T));
}

void pad(std::vector<uint8_t>& out) {
    while (out.size() % 4 != 0) out.push_back(0);
}

void put_option(std::vector<uint8_t>& out, uint16_t code, const void* value, uint16_t length) {
    put<uint16_t>(out, code);
    put<uint16_t>(out, length);
    const auto* bytes = static_cast<const uint8_t*>(value);
    if (length > 0) out.insert(out.end(), bytes, bytes + length);
    pad(out);
}

}  // namespace

PcapngWriter::~PcapngWriter() {
    close();
}

bool PcapngWriter::write_block(uint32_t type, const std::vector<uint8_t>& body) {
    const uint32_t total = static_cast<uint32_t>(body.size() + 12);
    std::vector<uint8_t> block;
    block.reserve(total);
    put(block, type);
    put(block, total);
    block.insert(block.end(), body.begin(), body.end());
    put(block, total);
    if (std::fwrite(block.data(), 1, block.size(), file_) != block.size()) return false;
    bytes_ += block.size();
    return true;
}

bool PcapngWriter::open(const std::string& path, const std::vector<std::string>& interface_names) {
    close();
    file_ = std::fopen(path.c_str(), "wb");
    if (file_ == nullptr) return false;
    bytes_ = 0;
    std::vector<uint8_t> section;
    put<uint32_t>(section, 0x1A2B3C4D);
    put<uint16_t>(section, 1);
    put<uint16_t>(section, 0);
    put<int64_t>(section, -1);
    const char application[] = "Tidewell device simulator";
    put_option(section, 4, application, sizeof(application) - 1);  // shb_userappl
    put_option(section, 0, nullptr, 0);
    bool ok = write_block(kSectionHeader, section);
    for (const auto& name : interface_names) {
        std::vector<uint8_t> interface;
        put<uint16_t>(interface, kLinkTypeEthernet);
        put<uint16_t>(interface, 0);
        put<uint32_t>(interface, kSnapLength);
        put_option(interface, 2, name.data(), static_cast<uint16_t>(name.size()));  // if_name
        const uint8_t resolution = 9;                                               // 10^-9 s
        put_option(interface, 9, &resolution, 1);                                   // if_tsresol
        put_option(interface, 0, nullptr, 0);
        ok = ok && write_block(kInterfaceDescription, interface);
    }
    if (!ok) close();
    return ok;
}

bool PcapngWriter::write_packet(uint32_t interface_id, uint64_t timestamp_ns, const uint8_t* data,
                                uint32_t length) {
    if (file_ == nullptr) return false;
    std::vector<uint8_t> body;
    body.reserve(20 + length + 4);
    put<uint32_t>(body, interface_id);
    put<uint32_t>(body, static_cast<uint32_t>(timestamp_ns >> 32));
    put<uint32_t>(body, static_cast<uint32_t>(timestamp_ns & 0xFFFFFFFFu));
    put<uint32_t>(body, length);
    put<uint32_t>(body, length);
    body.insert(body.end(), data, data + length);
    pad(body);
    return write_block(kEnhancedPacket, body);
}

bool PcapngWriter::flush() {
    return file_ != nullptr && std::fflush(file_) == 0;
}

void PcapngWriter::close() {
    if (file_ != nullptr) {
        std::fclose(file_);
        file_ = nullptr;
    }
}

}  // namespace vistrel::sim
