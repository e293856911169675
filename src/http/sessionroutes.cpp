#include "http/sessionroutes.h"

#include "http/connectionrecord.h"
#include "http/httpserver.h"
#include "http/sessionendpoints.h"
#include "http/uploadendpoint.h"

namespace vistrel::http::session_routes {

namespace {

session::VistrelSession& session() {
    return HttpServer::instance().session();
}
devices::TidewellFirmwareUpdater& updater() {
    return HttpServer::instance().firmware_updater();
}

}  // namespace

Reply get_devices(const QueryArguments&) {
    return handle_get_devices(session());
}
Reply cm_status(const QueryArguments&) {
    return handle_cm_status();
}
Reply stop_capture_all(const QueryArguments&) {
    return handle_stop_capture_all(session());
}
Reply tidewell_firmwares(const QueryArguments&) {
    return handle_tidewell_firmwares(session());
}
Reply tidewells(const QueryArguments&) {
    return handle_get_tidewells(session());
}
Reply availability(const QueryArguments&) {
    return handle_availability();
}
Reply last_session(const QueryArguments&) {
    return handle_last_session(session());
}

Reply start_capture(const PostRequest& request) {
    return handle_start_capture(session(), request.body);
}
Reply analyze_capture(const PostRequest& request) {
    return handle_analyze_capture(session(), request.record.upload, request.local_client);
}
Reply restart_tidewell(const PostRequest& request) {
    return handle_restart_tidewell(session(), updater(), request.body);
}
Reply save_tidewell(const PostRequest& request) {
    return handle_save_tidewell(session(), updater(), request.body);
}
Reply set_device_time(const PostRequest& request) {
    return handle_set_device_time(session(), updater(), request.body);
}
Reply update_firmware(const PostRequest& request) {
    return handle_update_firmware(session(), updater(), request.body);
}
Reply firmware_update_status(const PostRequest& request) {
    return handle_firmware_update_status(session(), updater(), request.body);
}
Reply restore_tidewell(const PostRequest& request) {
    return handle_restore_tidewell(session(), updater(), request.body);
}

}  // namespace vistrel::http::session_routes
