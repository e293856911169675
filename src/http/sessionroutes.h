#pragma once

#include "common/reply.h"
#include "http/routes.h"

// The session endpoints as the route tables call them: each fetches the server's session
// objects and hands over to the handler of sessionendpoints.h.
namespace vistrel::http::session_routes {

Reply get_devices(const QueryArguments&);
Reply cm_status(const QueryArguments&);
Reply stop_capture_all(const QueryArguments&);
Reply tidewell_firmwares(const QueryArguments&);
Reply tidewells(const QueryArguments&);
Reply availability(const QueryArguments&);
Reply last_session(const QueryArguments&);

Reply start_capture(const PostRequest& request);
// After the last chunk of an upload (its file closed): the analysis of request.record.upload.
Reply analyze_capture(const PostRequest& request);
Reply restart_tidewell(const PostRequest& request);
Reply save_tidewell(const PostRequest& request);
Reply set_device_time(const PostRequest& request);
Reply update_firmware(const PostRequest& request);
Reply firmware_update_status(const PostRequest& request);
Reply restore_tidewell(const PostRequest& request);

}  // namespace vistrel::http::session_routes
