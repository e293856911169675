#pragma once

#include <functional>
#include <optional>
#include <string>

namespace vistrel::http {

// What every endpoint handler yields: a text and an HTTP status. An empty text or a status
// below 1 is sent as 500 "Sorry! Internal Server Error. Please retry later".
struct Reply {
    std::string text;
    int status = 200;
};

// Looks up one GET argument of the request's query string; nullopt when absent.
using QueryArguments = std::function<std::optional<std::string>(const std::string& key)>;

}  // namespace vistrel::http
