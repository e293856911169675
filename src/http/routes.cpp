#include "http/routes.h"

#include "host/disk.h"
#include "host/interfaces.h"
#include "http/pages.h"
#include "http/staticfiles.h"
#include "startup/configuration.h"

// Endpoint handlers of the other subsystems; each file wires its own lines below.
#include "http/capturedownload.h"
#include "http/captureindexendpoints.h"
#include "http/httpserver.h"
#include "http/metricsendpoint.h"
#include "http/sessionroutes.h"

namespace vistrel::http {

GetHandler reply_handler(std::function<Reply(const QueryArguments&)> handler) {
    return [handler = std::move(handler)](const GetRequest& request) {
        Reply reply = handler(request.arguments);
        return send_text(request.connection, reply.text, reply.status);
    };
}

namespace {

Reply alive(const QueryArguments&) {
    return {"Centralized Server Alive", 200};
}

Reply interfaces(const QueryArguments&) {
    return {host::interfaces_document(), 200};
}

Reply disk_space(const QueryArguments&) {
    std::string document = host::disk_space_document(configuration().capture_path, "GB");
    return {document, document.empty() ? 500 : 200};
}

MHD_Result static_file(const GetRequest& request) {
    return serve_static_file(request.connection, request.url);
}

}  // namespace

// Searched in this order; the first match wins. An entry without a handler is answered as an
// unknown request until its subsystem serves it.
const std::vector<GetRoute>& get_routes() {
    static const std::vector<GetRoute> routes = {
        {"/getDevices", false, reply_handler(session_routes::get_devices)},
        {"/getInterfaces", false, reply_handler(interfaces)},
        {"/getCMStatus", false, reply_handler(session_routes::cm_status)},
        {"/img/", true, static_file},
        {"/getStatus", false, reply_handler(alive)},
        {"/", false, reply_handler(alive)},
        {"/getDiskSpace", false, reply_handler(disk_space)},
        {"/stopCaptureAll", false, reply_handler(session_routes::stop_capture_all)},
        {"/getCapture", false, handle_capture_download},
        {"/addFile", false, reply_handler(handle_add_file)},
        {"/cleanup", false, reply_handler(handle_cleanup)},
        {"/cleanupElasticsearch", false, reply_handler(handle_cleanup_elasticsearch)},
        {"/getTidewellFirmwares", false, reply_handler(session_routes::tidewell_firmwares)},
        {"/getTidewells", false, reply_handler(session_routes::tidewells)},
        {"/getAvailability", false, reply_handler(session_routes::availability)},
        {"/getLastSession", false, reply_handler(session_routes::last_session)},
        {"/metrics", false,
         [](const GetRequest& request) {
             return handle_metrics(request, HttpServer::instance().firmware_updater());
         }},
    };
    return routes;
}

const std::vector<PostRoute>& post_routes() {
    static const std::vector<PostRoute> routes = {
        {"/search", [](const PostRequest& request) { return handle_search(request.body); }},
        {"/startCapture", session_routes::start_capture},
        {"/analyzeCapture", session_routes::analyze_capture},
        {"/restartTidewell", session_routes::restart_tidewell},
        {"/saveTidewell", session_routes::save_tidewell},
        {"/setDeviceTime", session_routes::set_device_time},
        {"/updateTidewellFirmware", session_routes::update_firmware},
        {"/getTidewellFirmwareUpdateStatus", session_routes::firmware_update_status},
        {"/restoreTidewell", session_routes::restore_tidewell},
    };
    return routes;
}

}  // namespace vistrel::http
