#include "http/routes.h"

#include "host/disk.h"
#include "host/interfaces.h"
#include "http/pages.h"
#include "http/staticfiles.h"
#include "startup/configuration.h"

// Endpoint handlers of the other subsystems; each file wires its own lines below.
#include "http/captureindexendpoints.h"

namespace vistrel::http {

GetHandler reply_handler(std::function<Reply(const QueryArguments&)> handler) {
    return [handler = std::move(handler)](const GetRequest& request) {
        Reply reply = handler(request.arguments);
        return send_text(request.connection, reply.text, reply.status);
    };
}

namespace {

Reply alive(const QueryArguments&) { return {"Centralized Server Alive", 200}; }

Reply interfaces(const QueryArguments&) { return {host::interfaces_document(), 200}; }

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
        {"/getDevices", false, nullptr},
        {"/getInterfaces", false, reply_handler(interfaces)},
        {"/getCMStatus", false, nullptr},
        {"/img/", true, static_file},
        {"/getStatus", false, reply_handler(alive)},
        {"/", false, reply_handler(alive)},
        {"/getDiskSpace", false, reply_handler(disk_space)},
        {"/stopCaptureAll", false, nullptr},
        {"/getCapture", false, nullptr},
        {"/addFile", false, reply_handler(handle_add_file)},
        {"/cleanup", false, reply_handler(handle_cleanup)},
        {"/cleanupElasticsearch", false, reply_handler(handle_cleanup_elasticsearch)},
        {"/getTidewellFirmwares", false, nullptr},
        {"/getTidewells", false, nullptr},
        {"/getAvailability", false, nullptr},
        {"/getLastSession", false, nullptr},
    };
    return routes;
}

const std::vector<PostRoute>& post_routes() {
    static const std::vector<PostRoute> routes = {
        {"/search", [](const PostRequest& request) { return handle_search(request.body); }},
        {"/startCapture", nullptr},
        {"/analyzeCapture", nullptr},
        {"/restartTidewell", nullptr},
        {"/saveTidewell", nullptr},
        {"/setDeviceTime", nullptr},
        {"/updateTidewellFirmware", nullptr},
        {"/getTidewellFirmwareUpdateStatus", nullptr},
        {"/restoreTidewell", nullptr},
    };
    return routes;
}

}  // namespace vistrel::http
