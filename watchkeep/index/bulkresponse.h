#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace vistrel::watchkeep {

// What a 2xx bulk answer says about the documents of the request.
struct BulkItems {
    size_t accepted = 0;
    size_t refused = 0;             // refused for good: logged, not sent again
    std::vector<size_t> throttled;  // positions (0-based) refused with 429: to send again
};

// Reads the answer to a request of `documents` documents. Per-item errors are logged with
// their type and reason (the first few of a request, then a count). An answer that cannot be
// read counts every document as accepted: the endpoint took the request.
BulkItems read_bulk_items(const std::string& answer, size_t documents);

// The documents (action and source line pairs) of an NDJSON body.
std::vector<std::string> split_documents(const std::string& body);

}  // namespace vistrel::watchkeep
