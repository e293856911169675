#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

// What the engine makes of the packets it sees: flow, DNS, ARP, HTTP and packet-statistics
// records, sent to Elasticsearch as bulk requests. The capture side (live interfaces, device
// folders, analysed files) only feeds packets in and asks for a clean finish.
namespace vistrel::watchkeep {

// Where records go and which kinds are made; read from the engine's command line and
// environment.
struct IndexSettings {
    std::string bulk_url;            // "http://host:port/_bulk"
    std::string flows_index;         // daily indices "<flows_index>-YYYY.MM.DD"
    std::string http_index;          // empty: no HTTP request records
    bool dns_records = false;        // "--dns-mode 1"
    bool arp_records = false;        // "--arp-es"
    bool packet_statistics = false;  // "--pkt-stats-es"
    std::string spool_folder;        // "<capture path>/.watchkeep-spool"

    // Tuning; the defaults suit a capture, tests shorten them.
    uint32_t flow_idle_timeout_s = 30;     // a flow without packets this long is reported, ended
    uint32_t flow_active_timeout_s = 120;  // a longer flow is reported every this often
    uint32_t statistics_period_s = 10;
    uint32_t max_flows = 1u << 20;        // per source; more evicts (reports) flows in turn
    size_t batch_documents = 5000;        // a bulk request holds at most this many records
    size_t batch_bytes = 5u << 20;        // ... and at most about this many bytes
    uint32_t request_timeout_ms = 30000;  // a bulk request not answered by then has failed
    uint32_t retry_attempts = 5;          // tries of a 429/5xx batch before it waits on disk
    uint32_t retry_base_ms = 250;         // first back-off, doubled at each try (at most 8 s)
    uint32_t probe_interval_ms = 5000;    // how often an unreachable endpoint is tried again
};

// What a BulkSender did so far.
struct BulkStatistics {
    uint64_t documents_sent = 0;     // accepted by the endpoint
    uint64_t documents_failed = 0;   // refused one by one (logged with their reason)
    uint64_t documents_spooled = 0;  // written to the spool folder
    uint64_t documents_lost = 0;     // neither sent nor spooled (spool unwritable)
    uint64_t requests = 0;
    uint64_t retries = 0;  // 429/5xx/413 answers and failed transfers
};

class BulkSenderImpl;

// Ships records in order, in bounded batches; what cannot be sent waits in the spool folder
// and goes out first when the endpoint answers again, also in a later run. Thread-safe; one
// per engine run, shared by every source.
class BulkSender {
  public:
    explicit BulkSender(const IndexSettings& settings);
    ~BulkSender();
    BulkSender(const BulkSender&) = delete;
    BulkSender& operator=(const BulkSender&) = delete;

    // Queues one record: `index` is the daily index name, `document` one JSON object.
    void enqueue(std::string_view index, std::string_view document);
    // Sends what is queued, or spools what cannot be sent, within `budget`. True when nothing
    // queued was lost (sent or safely on disk).
    bool finish(std::chrono::milliseconds budget);

    BulkStatistics statistics() const;

  private:
    std::unique_ptr<BulkSenderImpl> impl_;
};

class SourceIndexerImpl;

// Turns the packets of one source (an interface, a device, an analysed file) into records.
// Used from one thread.
class SourceIndexer {
  public:
    SourceIndexer(const IndexSettings& settings, BulkSender& sender, std::string source_name);
    ~SourceIndexer();
    SourceIndexer(const SourceIndexer&) = delete;
    SourceIndexer& operator=(const SourceIndexer&) = delete;

    // One frame; `link_type` is a pcap LINKTYPE_* value.
    void packet(uint32_t link_type, uint64_t timestamp_ns, const uint8_t* data,
                uint32_t captured_length, uint32_t original_length);
    // Packets dropped since the previous call: by the kernel and by the engine itself.
    void drops(uint64_t kernel, uint64_t engine);
    // Expires idle flows, reports long ones and emits periodic statistics; called at least once
    // a second with the current time (packet time for a file, wall time for live capture).
    void tick(uint64_t now_ns);
    // Ends every flow and emits what remains.
    void finish();

  private:
    std::unique_ptr<SourceIndexerImpl> impl_;
};

}  // namespace vistrel::watchkeep
