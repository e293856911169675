#pragma once

#include <microhttpd.h>

#include <chrono>
#include <memory>
#include <string>

#include "http/uploadendpoint.h"

namespace vistrel::http {

// One per HTTP request, kept in libmicrohttpd's per-connection slot from the first call of the
// access handler until the completion callback.
struct ConnectionRecord {
    enum class Type { kGet = 0, kPost = 1 };

    Type type = Type::kGet;
    MHD_PostProcessor* post_processor = nullptr;  // "/analyzeCapture" uploads only
    std::string body;                             // JSON POST bodies, collected whole
    bool body_too_large = false;                  // the body passed the limit and was dropped
    UploadState upload;  // "/analyzeCapture": the post processor's closure (upload_iterator)
    // For the request metrics: labels bounded by the route tables, and the first call's time.
    std::string method_label;
    std::string endpoint_label;
    std::chrono::steady_clock::time_point started;
};

}  // namespace vistrel::http
