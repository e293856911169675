#pragma once

#include <optional>
#include <string>
#include <vector>

// The few requests the server makes to the Elasticsearch server: a health check before a
// capture, and the deletions of the dashboard cleanup. Each call is synchronous and uses its
// own libcurl easy handle. Only the transfer result counts: any HTTP status, 4xx and 5xx
// included, is an answer and so a success.
namespace vistrel::searchindex {

// Basic-authentication user and password; both empty means none.
struct Credentials {
    std::string user;
    std::string password;
};

// Delete-by-query selection; an absent field is not given.
struct DeleteByQueryRequest {
    std::optional<std::string> index;
    std::optional<std::string> start;
    std::optional<std::string> end;
    std::optional<std::string> interface;  // the engine's "INTERFACE" field
};

// "http://" host ":" port.
std::string base_address(const std::string& host, const std::string& port);
// base_address + "/_bulk": where the capture engine sends its documents.
std::string bulk_address(const std::string& host, const std::string& port);

// GET <address>/_cluster/health. True when the server answered, or when no check could be
// made (no address, no easy handle); false when the transfer failed.
bool check_health(const Credentials& credentials, const std::string& address);

// DELETE <address>/<index>; `index` may be a pattern such as "vistrel*".
bool delete_index(const Credentials& credentials, const std::string& address,
                  const std::string& index);

// POST <address>/<index>/_delete_by_query with a body chosen from the request. False without a
// request when the request has neither an interface nor both times.
bool delete_by_query(const Credentials& credentials, const std::string& address,
                     const DeleteByQueryRequest& request);

// The body delete_by_query sends; nullopt when it sends nothing.
std::optional<std::string> delete_by_query_body(const DeleteByQueryRequest& request);
// The request headers delete_by_query sends to `address`, in order.
std::vector<std::string> delete_by_query_headers(const std::string& address);

}  // namespace vistrel::searchindex
