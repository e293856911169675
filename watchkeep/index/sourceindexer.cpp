#include <string>

#include "index/applicationparsers.h"
#include "index/dailyindex.h"
#include "index/flowtracker.h"
#include "index/indexer.h"
#include "index/packetdecoder.h"
#include "index/records.h"

namespace vistrel::watchkeep {

namespace {
constexpr uint8_t kProtoTcp = 6;
constexpr uint8_t kProtoUdp = 17;
constexpr uint16_t kDnsPort = 53;
}  // namespace

class SourceIndexerImpl {
  public:
    SourceIndexerImpl(const IndexSettings& settings, BulkSender& sender, std::string source)
        : settings_(settings),
          sender_(sender),
          source_(std::move(source)),
          flows_index_(settings.flows_index),
          http_index_(settings.http_index),
          tracker_(settings.flow_idle_timeout_s, settings.flow_active_timeout_s, settings.max_flows,
                   [this](const Flow& flow, FlowEnd reason) {
                       flow_record(record_, flow, reason, source_);
                       sender_.enqueue(flows_index_.name(flow.last_ns), record_);
                   }) {}

    void packet(uint32_t link_type, uint64_t timestamp_ns, const uint8_t* data,
                uint32_t captured_length, uint32_t original_length) {
        if (period_start_ns_ == 0) period_start_ns_ = timestamp_ns;
        if (timestamp_ns > latest_ns_) latest_ns_ = timestamp_ns;
        ++statistics_.packets;
        statistics_.bytes += original_length;
        if (!decode_packet(link_type, data, captured_length, decoded_)) {
            ++statistics_.other;
            return;
        }
        if (decoded_.arp != nullptr) {
            ++statistics_.other;
            if (settings_.arp_records) {
                Pending& pending = queue_packet();
                arp_record(pending.record, decoded_, timestamp_ns, source_);
                pending.record_index = &flows_index_;
                pending.record_ns = timestamp_ns;
            }
            return;
        }
        if (decoded_.ip_version == 0) {
            ++statistics_.other;
            return;
        }
        ++(decoded_.ip_version == 4 ? statistics_.ipv4 : statistics_.ipv6);
        ++(decoded_.protocol == kProtoTcp   ? statistics_.tcp
           : decoded_.protocol == kProtoUdp ? statistics_.udp
                                            : statistics_.other);
        Pending& pending = queue_packet();
        pending.ip = true;
        tracker_.prepare(decoded_, timestamp_ns, original_length, pending.flow);
        if (decoded_.payload_length > 0) application(timestamp_ns, pending);
    }

    void drops(uint64_t kernel, uint64_t engine) {
        statistics_.kernel_drops += kernel;
        statistics_.engine_drops += engine;
    }

    void tick(uint64_t now_ns) {
        flush();
        if (period_start_ns_ == 0) period_start_ns_ = now_ns;
        if (now_ns > latest_ns_) latest_ns_ = now_ns;
        // Flows are scanned once a second at most, however often the caller ticks.
        if (now_ns >= last_scan_ns_ + 1'000'000'000ULL) {
            last_scan_ns_ = now_ns;
            tracker_.expire(now_ns);
        }
        if (now_ns >= period_start_ns_ + settings_.statistics_period_s * 1'000'000'000ULL) {
            emit_statistics(now_ns);
        }
    }

    void finish() {
        flush();
        tracker_.finish();
        if (statistics_.packets > 0 || statistics_.kernel_drops > 0 ||
            statistics_.engine_drops > 0) {
            emit_statistics(latest_ns_ > period_start_ns_ ? latest_ns_ : period_start_ns_);
        }
    }

  private:
    // A packet whose flow update, and the record it makes, wait until its flow is in cache.
    // Packets leave in their order, so records keep theirs.
    struct Pending {
        bool ip = false;
        FlowPacket flow;
        std::string record;  // empty: none; keeps its storage from packet to packet
        DailyIndex* record_index = nullptr;
        uint64_t record_ns = 0;
    };
    // Packets held back: the older half have their flows being loaded, the newer half their
    // index slots. Two packets' work between asking and using hides a miss even on a busy machine.
    static constexpr uint32_t kHeld = 4;
    static constexpr uint32_t kSlotsLoading = kHeld / 2;

    // Room for the next packet: the oldest held one is done first, and the flow of the one
    // whose slot has had time to arrive is asked for.
    Pending& queue_packet() {
        if (held_ == kHeld) {
            done(pending_[oldest_]);
            oldest_ = (oldest_ + 1) % kHeld;
            --held_;
        }
        if (held_ >= kSlotsLoading) {
            const Pending& slot_in = pending_[(oldest_ + held_ - kSlotsLoading) % kHeld];
            if (slot_in.ip) tracker_.prefetch(slot_in.flow);
        }
        Pending& next = pending_[(oldest_ + held_) % kHeld];
        ++held_;
        next.ip = false;
        next.record.clear();
        return next;
    }

    void done(Pending& pending) {
        if (pending.ip) tracker_.add(pending.flow);
        if (!pending.record.empty()) {
            sender_.enqueue(pending.record_index->name(pending.record_ns), pending.record);
        }
    }

    void flush() {
        for (; held_ > 0; --held_) {
            done(pending_[oldest_]);
            oldest_ = (oldest_ + 1) % kHeld;
        }
    }

    void application(uint64_t timestamp_ns, Pending& pending) {
        if (!decoded_.has_ports) return;
        if (settings_.dns_records &&
            (decoded_.src_port == kDnsPort || decoded_.dst_port == kDnsPort)) {
            const uint8_t* message = decoded_.payload;
            uint32_t length = decoded_.payload_length;
            // DNS over TCP starts with a two-byte length.
            if (decoded_.protocol == kProtoTcp) {
                message += length >= 2 ? 2 : length;
                length -= length >= 2 ? 2 : length;
            }
            if (parse_dns_question(message, length, question_)) {
                dns_record(pending.record, decoded_, question_, timestamp_ns, source_);
                pending.record_index = &flows_index_;
                pending.record_ns = timestamp_ns;
            }
            return;
        }
        if (!settings_.http_index.empty() && decoded_.protocol == kProtoTcp) {
            HttpRequest request;
            if (parse_http_request(decoded_.payload, decoded_.payload_length, request)) {
                http_record(pending.record, decoded_, request, timestamp_ns, source_);
                pending.record_index = &http_index_;
                pending.record_ns = timestamp_ns;
            }
        }
    }

    void emit_statistics(uint64_t now_ns) {
        if (settings_.packet_statistics) {
            statistics_record(record_, statistics_, now_ns - period_start_ns_,
                              tracker_.active_flows(), now_ns, source_);
            sender_.enqueue(flows_index_.name(now_ns), record_);
        }
        statistics_ = PacketStatistics{};
        period_start_ns_ = now_ns;
    }

    const IndexSettings settings_;
    BulkSender& sender_;
    std::string source_;
    DailyIndex flows_index_;
    DailyIndex http_index_;
    FlowTracker tracker_;
    DecodedPacket decoded_;
    DnsQuestion question_;
    PacketStatistics statistics_;
    std::string record_;  // flow and statistics records, written one at a time
    uint64_t period_start_ns_ = 0;
    uint64_t last_scan_ns_ = 0;
    uint64_t latest_ns_ = 0;
    Pending pending_[kHeld];
    uint32_t oldest_ = 0;
    uint32_t held_ = 0;
};

SourceIndexer::SourceIndexer(const IndexSettings& settings, BulkSender& sender,
                             std::string source_name)
    : impl_(std::make_unique<SourceIndexerImpl>(settings, sender, std::move(source_name))) {}

SourceIndexer::~SourceIndexer() = default;

void SourceIndexer::packet(uint32_t link_type, uint64_t timestamp_ns, const uint8_t* data,
                           uint32_t captured_length, uint32_t original_length) {
    impl_->packet(link_type, timestamp_ns, data, captured_length, original_length);
}

void SourceIndexer::drops(uint64_t kernel, uint64_t engine) {
    impl_->drops(kernel, engine);
}

void SourceIndexer::tick(uint64_t now_ns) {
    impl_->tick(now_ns);
}

void SourceIndexer::finish() {
    impl_->finish();
}

}  // namespace vistrel::watchkeep
