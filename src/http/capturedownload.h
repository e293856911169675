#pragma once

#include <microhttpd.h>

#include <optional>
#include <string>

#include "capture/capturequery.h"
#include "http/routes.h"

namespace vistrel::http {

// GET "/getCapture": the traffic of the dashboard's time range as one pcapng attachment,
// streamed in 102,400-byte blocks, narrowed by tshark when the dashboard set filters.
MHD_Result handle_capture_download(const GetRequest& request);

// True for the dashboard's ways of switching "var-bidirectionalfilter" on.
bool bidirectional_flag(const std::optional<std::string>& value);

// "attachment; filename=capture_<start>_<end>.pcapng"
std::string capture_disposition(const capture::CaptureQuery& query);

}  // namespace vistrel::http
