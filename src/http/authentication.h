#pragma once

#include <microhttpd.h>

#include <string>

#include "startup/securitysettings.h"

// Optional authentication of every request: HTTP basic, a bearer token, or both.
namespace vistrel::http {

// Compares in a time that depends only on the lengths, never on where the texts differ.
bool equal_in_constant_time(const std::string& given, const std::string& expected);

// Whether the "Authorization" header value satisfies the settings; always true when no
// authentication is configured.
bool authorization_accepted(const SecuritySettings& settings, const std::string& header);

// 401 "Authentication required" with a WWW-Authenticate header for each configured scheme.
MHD_Result send_unauthorized(MHD_Connection* connection, const SecuritySettings& settings);

}  // namespace vistrel::http
