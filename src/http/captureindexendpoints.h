#pragma once

#include <string>

#include "common/reply.h"
#include "http/routes.h"

// The endpoints that keep the capture index and the search index in step with the files on
// disk, and the dashboard's search for this server's address.
namespace vistrel::http {

// GET "/addFile": registers a capture file written by the capture engine.
Reply handle_add_file(const QueryArguments& arguments);
// GET "/cleanup": deletes capture files (with filesystem=true) and their index rows.
Reply handle_cleanup(const QueryArguments& arguments);
// GET "/cleanupElasticsearch": deletes documents or whole indices on the search server.
Reply handle_cleanup_elasticsearch(const QueryArguments& arguments);
// POST "/search": the dashboard's search for "cs_address".
Reply handle_search(const std::string& body);

}  // namespace vistrel::http
