#include "trafficgenerator.h"

#include <cstring>
#include <iterator>
#include <string>

namespace vistrel::sim {

namespace {

void put16(std::vector<uint8_t>& out, uint16_t value) {
    out.push_back(static_cast<uint8_t>(value >> 8));
    out.push_back(static_cast<uint8_t>(value & 0xFF));
}

void put32(std::vector<uint8_t>& out, uint32_t value) {
    put16(out, static_cast<uint16_t>(value >> 16));
    put16(out, static_cast<uint16_t>(value & 0xFFFF));
}

void set16(std::vector<uint8_t>& out, size_t at, uint16_t value) {
    out[at] = static_cast<uint8_t>(value >> 8);
    out[at + 1] = static_cast<uint8_t>(value & 0xFF);
}

uint32_t sum_words(const uint8_t* data, size_t length, uint32_t sum = 0) {
    for (size_t i = 0; i + 1 < length; i += 2) {
        sum += static_cast<uint32_t>(data[i] << 8 | data[i + 1]);
    }
    if (length % 2 != 0) sum += static_cast<uint32_t>(data[length - 1] << 8);
    return sum;
}

uint16_t fold(uint32_t sum) {
    while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<uint16_t>(~sum & 0xFFFF);
}

// Services whose payloads are made to match (HTTP, DNS, NTP); the others carry opaque bytes on
// ports without a dissector of their own.
constexpr uint16_t kTcpServices[] = {80, 80, 8080, 40000};
constexpr uint16_t kUdpServices[] = {53, 53, 123, 40001};

}  // namespace

TrafficGenerator::TrafficGenerator(uint64_t seed) : random_(seed) {
    for (uint8_t index = 1; index <= 8; ++index) {
        Host host{};
        const uint8_t mac[6] = {0x02, 0x54, 0x57, static_cast<uint8_t>(seed & 0xFF), 0x00, index};
        std::memcpy(host.mac, mac, 6);
        const uint8_t ipv4[4] = {10, 20, static_cast<uint8_t>(seed & 0x3F), index};
        std::memcpy(host.ipv4, ipv4, 4);
        host.ipv6[0] = 0xfd;
        host.ipv6[7] = static_cast<uint8_t>(seed & 0xFF);
        host.ipv6[15] = index;
        hosts_.push_back(host);
    }
}

std::vector<uint8_t> TrafficGenerator::next_frame(uint32_t& port) {
    port = static_cast<uint32_t>(random_() % 2);
    const uint64_t pick = random_() % 100;
    if (pick < 5) return arp_frame();
    if (pick < 50) return ip_frame(false, true);
    if (pick < 75) return ip_frame(false, false);
    if (pick < 90) return ip_frame(true, true);
    return ip_frame(true, false);
}

std::vector<uint8_t> TrafficGenerator::arp_frame() {
    const size_t a = random_() % hosts_.size();
    const size_t b = (a + 1 + random_() % (hosts_.size() - 1)) % hosts_.size();
    const Host& asker = hosts_[a];
    const Host& target = hosts_[b];
    const bool reply = random_() % 2 == 0;
    const Host& sender = reply ? target : asker;
    const Host& receiver = reply ? asker : target;
    static constexpr uint8_t kBroadcast[6] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
    static constexpr uint8_t kUnknown[6] = {};
    std::vector<uint8_t> frame;
    const uint8_t* destination = reply ? receiver.mac : kBroadcast;
    frame.insert(frame.end(), destination, destination + 6);
    frame.insert(frame.end(), sender.mac, sender.mac + 6);
    put16(frame, 0x0806);
    put16(frame, 1);       // Ethernet
    put16(frame, 0x0800);  // IPv4
    frame.push_back(6);
    frame.push_back(4);
    put16(frame, reply ? 2 : 1);
    frame.insert(frame.end(), sender.mac, sender.mac + 6);
    frame.insert(frame.end(), sender.ipv4, sender.ipv4 + 4);
    const uint8_t* target_mac = reply ? receiver.mac : kUnknown;
    frame.insert(frame.end(), target_mac, target_mac + 6);
    frame.insert(frame.end(), receiver.ipv4, receiver.ipv4 + 4);
    frame.resize(60, 0);  // minimum Ethernet frame without FCS
    return frame;
}

std::vector<uint8_t> TrafficGenerator::make_payload(uint16_t service, bool to_server, bool tcp) {
    std::vector<uint8_t> payload;
    if (tcp && (service == 80 || service == 8080)) {
        if (random_() % 3 == 0) return payload;  // a bare segment of the handshake or an ACK
        std::string text;
        if (to_server) {
            text = "GET /page" + std::to_string(random_() % 100) +
                   ".html HTTP/1.1\r\nHost: intranet.example\r\nUser-Agent: tidewell-sim\r\n\r\n";
        } else {
            const size_t length = random_() % 800;
            text = "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: " +
                   std::to_string(length) + "\r\n\r\n";
            for (size_t i = 0; i < length; ++i)
                text.push_back(static_cast<char>('a' + random_() % 26));
        }
        payload.assign(text.begin(), text.end());
        return payload;
    }
    if (!tcp && service == 53) return dns_message(!to_server);
    if (!tcp && service == 123) {
        payload.resize(48, 0);
        payload[0] = to_server ? 0x23 : 0x24;  // version 4, client or server
        payload[1] = to_server ? 0 : 2;        // stratum
        payload[2] = 6;                        // poll
        payload[3] = 0xEC;                     // precision
        for (size_t i = 40; i < 48; ++i) payload[i] = static_cast<uint8_t>(random_());
        if (!to_server) {
            for (size_t i = 16; i < 40; ++i) payload[i] = static_cast<uint8_t>(random_());
            payload[16] = 0xE9;  // reference time in this era
            payload[24] = 0xE9;
            payload[32] = 0xE9;
        }
        payload[40] = 0xE9;
        return payload;
    }
    // Opaque application data. Text with a fixed tag, so that no heuristic dissector takes it
    // for its own protocol.
    const size_t length = random_() % 4 == 0 ? 0 : random_() % 1200;
    if (length == 0) return payload;
    static constexpr char kTag[] = "TWSIM ";
    payload.assign(kTag, kTag + sizeof(kTag) - 1);
    for (size_t i = 0; i < length; ++i)
        payload.push_back(static_cast<uint8_t>('a' + random_() % 26));
    return payload;
}

std::vector<uint8_t> TrafficGenerator::dns_message(bool response) {
    std::vector<uint8_t> message;
    const bool ipv6 = random_() % 3 == 0;
    put16(message, static_cast<uint16_t>(random_()));
    put16(message, response ? 0x8180 : 0x0100);
    put16(message, 1);                 // questions
    put16(message, response ? 1 : 0);  // answers
    put16(message, 0);
    put16(message, 0);
    const std::string host = "host" + std::to_string(random_() % 50);
    for (const std::string& label : {host, std::string("example"), std::string("test")}) {
        message.push_back(static_cast<uint8_t>(label.size()));
        message.insert(message.end(), label.begin(), label.end());
    }
    message.push_back(0);
    put16(message, ipv6 ? 28 : 1);  // AAAA or A
    put16(message, 1);              // IN
    if (response) {
        put16(message, 0xC00C);  // the question's name
        put16(message, ipv6 ? 28 : 1);
        put16(message, 1);
        put32(message, 300);
        const Host& answer = hosts_[random_() % hosts_.size()];
        put16(message, ipv6 ? 16 : 4);
        if (ipv6) {
            message.insert(message.end(), answer.ipv6, answer.ipv6 + 16);
        } else {
            message.insert(message.end(), answer.ipv4, answer.ipv4 + 4);
        }
    }
    return message;
}

std::vector<uint8_t> TrafficGenerator::ip_frame(bool ipv6, bool tcp) {
    const size_t a = random_() % hosts_.size();
    const size_t b = (a + 1 + random_() % (hosts_.size() - 1)) % hosts_.size();
    const Host& source = hosts_[a];
    const Host& destination = hosts_[b];
    const uint16_t service = tcp ? kTcpServices[random_() % std::size(kTcpServices)]
                                 : kUdpServices[random_() % std::size(kUdpServices)];
    // Client ports stay below ports that some dissectors claim (54328 and up).
    const uint16_t ephemeral = static_cast<uint16_t>(49152 + random_() % 4000);
    const bool to_server = random_() % 2 == 0;
    const uint16_t source_port = to_server ? ephemeral : service;
    const uint16_t destination_port = to_server ? service : ephemeral;
    const std::vector<uint8_t> payload = make_payload(service, to_server, tcp);

    std::vector<uint8_t> transport;
    put16(transport, source_port);
    put16(transport, destination_port);
    if (tcp) {
        tcp_sequence_ += static_cast<uint32_t>(payload.size() + 1);
        put32(transport, tcp_sequence_);
        put32(transport, static_cast<uint32_t>(random_()));
        transport.push_back(0x50);  // 20-byte header
        static constexpr uint8_t kFlags[] = {0x02, 0x12, 0x10, 0x11, 0x14};
        transport.push_back(!payload.empty() ? 0x18 : kFlags[random_() % std::size(kFlags)]);
        put16(transport, 64240);
        put16(transport, 0);  // checksum
        put16(transport, 0);  // urgent pointer
    } else {
        put16(transport, static_cast<uint16_t>(8 + payload.size()));
        put16(transport, 0);  // checksum
    }
    transport.insert(transport.end(), payload.begin(), payload.end());
    const uint8_t protocol = tcp ? 6 : 17;

    // Transport checksum over the pseudo header.
    uint32_t sum = 0;
    if (ipv6) {
        sum = sum_words(source.ipv6, 16, sum);
        sum = sum_words(destination.ipv6, 16, sum);
    } else {
        sum = sum_words(source.ipv4, 4, sum);
        sum = sum_words(destination.ipv4, 4, sum);
    }
    sum += protocol;
    sum += static_cast<uint32_t>(transport.size());
    sum = sum_words(transport.data(), transport.size(), sum);
    uint16_t checksum = fold(sum);
    if (!tcp && checksum == 0) checksum = 0xFFFF;
    set16(transport, tcp ? 16 : 6, checksum);

    std::vector<uint8_t> frame;
    frame.insert(frame.end(), destination.mac, destination.mac + 6);
    frame.insert(frame.end(), source.mac, source.mac + 6);
    if (ipv6) {
        put16(frame, 0x86DD);
        put32(frame, 0x60000000);
        put16(frame, static_cast<uint16_t>(transport.size()));
        frame.push_back(protocol);
        frame.push_back(64);
        frame.insert(frame.end(), source.ipv6, source.ipv6 + 16);
        frame.insert(frame.end(), destination.ipv6, destination.ipv6 + 16);
    } else {
        const size_t header = frame.size() + 2;
        put16(frame, 0x0800);
        put16(frame, 0x4500);
        put16(frame, static_cast<uint16_t>(20 + transport.size()));
        put16(frame, static_cast<uint16_t>(random_()));
        put16(frame, 0x4000);  // don't fragment
        frame.push_back(64);
        frame.push_back(protocol);
        put16(frame, 0);
        frame.insert(frame.end(), source.ipv4, source.ipv4 + 4);
        frame.insert(frame.end(), destination.ipv4, destination.ipv4 + 4);
        set16(frame, header + 10, fold(sum_words(frame.data() + header, 20)));
    }
    frame.insert(frame.end(), transport.begin(), transport.end());
    if (frame.size() < 60) frame.resize(60, 0);
    return frame;
}

}  // namespace vistrel::sim
