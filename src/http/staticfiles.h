#pragma once

#include <microhttpd.h>

#include <string>

namespace vistrel::http {

// Serves the file named by the URL (without its leading "/") relative to the working folder.
MHD_Result serve_static_file(MHD_Connection* connection, const std::string& url);

}  // namespace vistrel::http
