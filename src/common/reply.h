#pragma once

#include <string>

namespace vistrel {

// What every endpoint handler yields: a text and an HTTP status. An empty text or a status
// below 1 is sent as 500 "Sorry! Internal Server Error. Please retry later". The session
// produces it and the HTTP server sends it, so it lives below both.
struct Reply {
    std::string text;
    int status = 200;
};

}  // namespace vistrel
