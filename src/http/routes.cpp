#include "http/routes.h"

#include "host/disk.h"
#include "host/interfaces.h"
#include "http/pages.h"
#include "http/staticfiles.h"
#include "startup/configuration.h"

// Endpoint handlers of the other subsystems; each file wires its own lines below.
#include "http/capturedownload.h"
#include "http/captureindexendpoints.h"
#include "http/connectionrecord.h"
#include "http/httpserver.h"
#include "http/uploadendpoint.h"
#include "session/sessionendpoints.h"
#include "http/metricsendpoint.h"

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

// A handler that needs no query argument.
GetHandler replying(std::function<Reply()> handler) {
    return reply_handler(
        [handler = std::move(handler)](const QueryArguments&) { return handler(); });
}

MHD_Result static_file(const GetRequest& request) {
    return serve_static_file(request.connection, request.url);
}

}  // namespace

// Searched in this order; the first match wins. An entry without a handler is answered as an
// unknown request until its subsystem serves it.
std::vector<GetRoute> HttpServer::make_get_routes() {
    return {
        {"/getDevices", false, replying([this] { return session::handle_get_devices(*session_); })},
        {"/getInterfaces", false, reply_handler(interfaces)},
        {"/getCMStatus", false, replying(session::handle_cm_status)},
        {"/img/", true, static_file},
        {"/getStatus", false, reply_handler(alive)},
        {"/", false, reply_handler(alive)},
        {"/getDiskSpace", false, reply_handler(disk_space)},
        {"/stopCaptureAll", false,
         replying([this] { return session::handle_stop_capture_all(*session_); })},
        {"/getCapture", false, handle_capture_download},
        {"/addFile", false, reply_handler(handle_add_file)},
        {"/cleanup", false, reply_handler(handle_cleanup)},
        {"/cleanupElasticsearch", false, reply_handler(handle_cleanup_elasticsearch)},
        {"/getTidewellFirmwares", false,
         replying([this] { return session::handle_tidewell_firmwares(*session_); })},
        {"/getTidewells", false,
         replying([this] { return session::handle_get_tidewells(*session_); })},
        {"/getAvailability", false, replying(session::handle_availability)},
        {"/getLastSession", false,
         replying([this] { return session::handle_last_session(*session_); })},
        {"/metrics", false,
         [this](const GetRequest& request) { return handle_metrics(request, *firmware_updater_); }},
    };
}

std::vector<PostRoute> HttpServer::make_post_routes() {
    // The device commands all take the session, the updater and the body.
    auto device_command = [this](Reply (*handler)(const session::VistrelSession&,
                                                  devices::TidewellFirmwareUpdater&,
                                                  const std::string&)) -> PostHandler {
        return [this, handler](const PostRequest& request) {
            return handler(*session_, *firmware_updater_, request.body);
        };
    };
    return {
        {"/search", [](const PostRequest& request) { return handle_search(request.body); }},
        {"/startCapture",
         [this](const PostRequest& request) {
             return session::handle_start_capture(*session_, request.body);
         }},
        {"/analyzeCapture",
         [this](const PostRequest& request) {
             return handle_analyze_capture(*session_, request.record.upload, request.local_client);
         }},
        {"/restartTidewell", device_command(session::handle_restart_tidewell)},
        {"/saveTidewell", device_command(session::handle_save_tidewell)},
        {"/setDeviceTime", device_command(session::handle_set_device_time)},
        {"/updateTidewellFirmware", device_command(session::handle_update_firmware)},
        {"/getTidewellFirmwareUpdateStatus",
         device_command(session::handle_firmware_update_status)},
        {"/restoreTidewell", device_command(session::handle_restore_tidewell)},
    };
}

}  // namespace vistrel::http
