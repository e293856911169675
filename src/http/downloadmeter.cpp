#include "http/downloadmeter.h"

#include "metrics/servermetrics.h"

namespace vistrel::http {

DownloadMeter::DownloadMeter(std::string path)
    : bytes_(metrics::download_bytes(path)), packet_counter_(metrics::download_packets(path)) {
    metrics::downloads_in_flight().add(1);
}

DownloadMeter::~DownloadMeter() {
    metrics::downloads_in_flight().add(-1);
}

void DownloadMeter::sent(const char* block, ssize_t result) {
    if (result <= 0) return;
    bytes_.add(static_cast<uint64_t>(result));
    packets_.feed(reinterpret_cast<const uint8_t*>(block), static_cast<size_t>(result));
    if (packets_.packets() > counted_packets_) {
        packet_counter_.add(packets_.packets() - counted_packets_);
        counted_packets_ = packets_.packets();
    }
}

}  // namespace vistrel::http
