#pragma once

#include <microhttpd.h>

#include <string>

namespace vistrel::http {

// Sends a text reply as it is (no content type). An empty text or a status below 1 becomes
// 500 "Sorry! Internal Server Error. Please retry later". `cors` adds the CORS headers; every
// endpoint passes false today, so replies carry none.
MHD_Result send_text(MHD_Connection* connection, const std::string& body, int status,
                     bool cors = false);

// Wraps `message` in a minimal HTML page, with a 1-second refresh when `refresh` is set.
MHD_Result send_html_page(MHD_Connection* connection, const std::string& message, bool refresh,
                          int status);

// The product-styled error page the dashboard shows for a failed download.
MHD_Result send_styled_error_page(MHD_Connection* connection, const std::string& title,
                                  const std::string& message, int status);

// The styled page's HTML, for tests and for callers that build their own response.
std::string styled_error_page(const std::string& title, const std::string& message);

}  // namespace vistrel::http
