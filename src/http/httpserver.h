#pragma once

#include <microhttpd.h>

#include <memory>

#include "devices/tidewellfirmwareupdater.h"
#include "engine/watchkeepprocess.h"
#include "session/vistrelsession.h"

namespace vistrel::http {

// The one HTTP server of the process: the libmicrohttpd daemon (a thread per connection) and
// the long-lived objects the endpoints share.
class HttpServer {
  public:
    // Start results.
    static constexpr int kListening = 0;
    static constexpr int kAlreadyRunning = 1;
    static constexpr int kDaemonFailed = 2;

    HttpServer();
    // Stops the daemon and frees the long-lived objects; the device library is left as it is.
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    // Binds as the configuration says and starts listening.
    int start();
    // Stops listening; the server object stays.
    void stop_daemon();
    bool running() const { return daemon_ != nullptr; }

    // The process-wide server, created on first use; destroy() ends it at shut-down and also
    // releases the device library, discard() frees it on an early exit without any shut-down
    // step.
    static HttpServer& instance();
    static void destroy();
    static void discard();

    // The long-lived objects of the session endpoints, alive as long as the server.
    devices::TidewellFirmwareUpdater& firmware_updater() { return *firmware_updater_; }
    engine::WatchkeepProcess& engine() { return *engine_; }
    session::VistrelSession& session() { return *session_; }

  private:
    // The shut-down steps before destruction: the log line, the firmware updater, the library.
    void finish();

    MHD_Daemon* daemon_ = nullptr;
    std::unique_ptr<devices::TidewellFirmwareUpdater> firmware_updater_;
    std::unique_ptr<engine::WatchkeepProcess> engine_;
    std::unique_ptr<session::VistrelSession> session_;
};

}  // namespace vistrel::http
