#pragma once

#include <microhttpd.h>

#include <memory>
#include <string>

#include "devices/tidewellfirmwareupdater.h"
#include "engine/watchkeepprocess.h"
#include "session/vistrelsession.h"
#include "startup/securitysettings.h"

namespace vistrel::http {

// The one HTTP server of the process: the libmicrohttpd daemon (epoll, a pool of threads) and
// the long-lived objects the endpoints share.
class HttpServer {
  public:
    // Start results.
    static constexpr int kListening = 0;
    static constexpr int kAlreadyRunning = 1;
    static constexpr int kDaemonFailed = 2;

    HttpServer();
    // Stops the daemon and releases the device library.
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    // Binds as the configuration says and starts listening.
    int start();
    // Stops listening; the server object stays.
    void stop_daemon();
    bool running() const { return daemon_ != nullptr; }

    // The process-wide server, created on first use; destroy() ends it at shut-down.
    static HttpServer& instance();
    static void destroy();

    // The long-lived objects of the session endpoints, alive as long as the server.
    devices::TidewellFirmwareUpdater& firmware_updater() { return *firmware_updater_; }
    engine::WatchkeepProcess& engine() { return *engine_; }
    session::VistrelSession& session() { return *session_; }

  private:
    // Reads the PEM files of the configuration; false (logged) when one cannot be read.
    bool read_tls_files(const SecuritySettings& security);

    MHD_Daemon* daemon_ = nullptr;
    // The PEM texts libmicrohttpd was given; kept while the daemon runs.
    std::string tls_certificate_;
    std::string tls_key_;
    std::unique_ptr<devices::TidewellFirmwareUpdater> firmware_updater_;
    std::unique_ptr<engine::WatchkeepProcess> engine_;
    std::unique_ptr<session::VistrelSession> session_;
};

}  // namespace vistrel::http
