#pragma once

#include <microhttpd.h>

#include <cstdio>
#include <string>

namespace vistrel::http {

// The regular file at `relative` below the static root (the working folder unless configured),
// opened for reading; null when it is missing, leads out of the root, is not a regular file or
// is the server's database or log.
FILE* open_static_file(const std::string& relative);

// Serves the file named by the URL (without its leading "/") below the static root; anything
// that cannot be served is the "File not found" page.
MHD_Result serve_static_file(MHD_Connection* connection, const std::string& url);

}  // namespace vistrel::http
