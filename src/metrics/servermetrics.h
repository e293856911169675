#pragma once

#include <string>

#include "metrics/registry.h"

// The server's own metrics, counted where the work happens. Families are made on first use in
// the process-wide registry, so a subsystem that never runs adds nothing but its zero values.
namespace vistrel::metrics {

// Makes every family and its known label values, so that a scrape shows zeros rather than
// nothing before the first event.
void initialise_server_metrics();

// Requests by method, endpoint (the route that answered, "other" for unknown URLs) and status.
void count_request(const std::string& method, const std::string& endpoint, int status,
                   double seconds);

// /getCapture: what left the server, per path ("direct" or "filtered").
Counter& download_bytes(const std::string& path);
Counter& download_packets(const std::string& path);
Gauge& downloads_in_flight();

Gauge& uploads_in_flight();
// /addFile requests whose file entered the capture index.
Counter& files_registered();
// Clean-ups per target ("files" or "elasticsearch") and their errors (files that could not be
// deleted, requests the search index refused).
Counter& cleanups(const std::string& target);
Counter& cleanup_errors(const std::string& target);

}  // namespace vistrel::metrics
