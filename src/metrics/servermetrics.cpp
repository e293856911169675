#include "metrics/servermetrics.h"

namespace vistrel::metrics {

namespace {

Registry& registry() {
    return Registry::instance();
}

CounterFamily& requests() {
    static CounterFamily& family = registry().counter(
        "vistrel_http_requests_total",
        "HTTP requests answered, by method, endpoint and status (0: closed without a reply)",
        {"method", "endpoint", "status"});
    return family;
}

HistogramFamily& durations() {
    // Downloads run for as long as the client reads, hence the long tail.
    static HistogramFamily& family = registry().histogram(
        "vistrel_http_request_duration_seconds",
        "Time from the first byte of a request to the end of its reply, by endpoint", {"endpoint"},
        {0.001, 0.005, 0.025, 0.1, 0.5, 2.5, 10, 60, 300});
    return family;
}

}  // namespace

void count_request(const std::string& method, const std::string& endpoint, int status,
                   double seconds) {
    requests().with({method, endpoint, std::to_string(status)}).add();
    durations().with({endpoint}).observe(seconds);
}

void initialise_server_metrics() {
    requests();
    durations();
    for (const char* path : {"direct", "filtered"}) {
        download_bytes(path);
        download_packets(path);
    }
    downloads_in_flight();
    uploads_in_flight();
    files_registered();
    for (const char* target : {"files", "elasticsearch"}) {
        cleanups(target);
        cleanup_errors(target);
    }
}

Counter& download_bytes(const std::string& path) {
    static CounterFamily& family =
        registry().counter("vistrel_download_bytes_total",
                           "Bytes of pcapng streamed by /getCapture, by path", {"path"});
    return family.with({path});
}

Counter& download_packets(const std::string& path) {
    static CounterFamily& family = registry().counter(
        "vistrel_download_packets_total", "Packets streamed by /getCapture, by path", {"path"});
    return family.with({path});
}

Gauge& downloads_in_flight() {
    static Gauge& gauge =
        registry().gauge("vistrel_downloads_in_flight", "/getCapture streams being sent").with();
    return gauge;
}

Gauge& uploads_in_flight() {
    static Gauge& gauge = registry()
                              .gauge("vistrel_uploads_in_flight",
                                     "Multipart uploads to /analyzeCapture being received")
                              .with();
    return gauge;
}

Counter& files_registered() {
    static Counter& counter =
        registry()
            .counter("vistrel_capture_files_registered_total",
                     "Capture files that /addFile entered into the capture index")
            .with();
    return counter;
}

Counter& cleanups(const std::string& target) {
    static CounterFamily& family =
        registry().counter("vistrel_cleanups_total", "Clean-up requests, by target", {"target"});
    return family.with({target});
}

Counter& cleanup_errors(const std::string& target) {
    static CounterFamily& family = registry().counter(
        "vistrel_cleanup_errors_total",
        "Clean-up failures: files that could not be deleted, search-index requests refused",
        {"target"});
    return family.with({target});
}

}  // namespace vistrel::metrics
