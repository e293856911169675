#pragma once

#include <microhttpd.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "common/reply.h"

namespace vistrel::http {

struct ConnectionRecord;

// Looks up one GET argument of the request's query string; nullopt when absent.
using QueryArguments = std::function<std::optional<std::string>(const std::string& key)>;

struct GetRequest {
    MHD_Connection* connection;
    const std::string& url;
    const QueryArguments& arguments;
};

struct PostRequest {
    MHD_Connection* connection;
    const std::string& url;
    const std::string& body;
    ConnectionRecord& record;
    bool local_client;  // the client is this machine (for uploads)
};

// A GET handler queues its own response (downloads stream; most just send a Reply).
using GetHandler = std::function<MHD_Result(const GetRequest&)>;
using PostHandler = std::function<Reply(const PostRequest&)>;

struct GetRoute {
    std::string path;
    bool match_anywhere;  // the path may appear anywhere in the URL ("/img/")
    GetHandler handler;   // empty: not served yet, answered as an unknown request
};

struct PostRoute {
    std::string path;
    PostHandler handler;
};

// Adapts a handler that yields a Reply into a GET handler that sends it as text.
GetHandler reply_handler(std::function<Reply(const QueryArguments&)> handler);

}  // namespace vistrel::http
