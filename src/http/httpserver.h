#pragma once

#include <microhttpd.h>

#include <memory>
#include <string>
#include <vector>

#include "devices/tidewellfirmwareupdater.h"
#include "engine/watchkeepprocess.h"
#include "http/routes.h"
#include "session/vistrelsession.h"
#include "startup/securitysettings.h"

namespace vistrel::http {

// The one HTTP server of the process: the libmicrohttpd daemon (epoll, a pool of threads), the
// long-lived objects the endpoints share and the route tables that hand requests to them.
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

    // The tables in the order they are searched; the first match wins.
    const std::vector<GetRoute>& get_routes() const { return get_routes_; }
    const std::vector<PostRoute>& post_routes() const { return post_routes_; }

  private:
    // Adding an endpoint is one line here and one handler in the subsystem doing the work.
    std::vector<GetRoute> make_get_routes();
    std::vector<PostRoute> make_post_routes();
    // The shut-down steps before destruction: the log line, the firmware updater, the library.
    void finish();
    // Reads the PEM files of the configuration; false (logged) when one cannot be read.
    bool read_tls_files(const SecuritySettings& security);

    MHD_Daemon* daemon_ = nullptr;
    // The PEM texts libmicrohttpd was given; kept while the daemon runs.
    std::string tls_certificate_;
    std::string tls_key_;
    std::unique_ptr<devices::TidewellFirmwareUpdater> firmware_updater_;
    std::unique_ptr<engine::WatchkeepProcess> engine_;
    std::unique_ptr<session::VistrelSession> session_;
    std::vector<GetRoute> get_routes_;
    std::vector<PostRoute> post_routes_;
};

}  // namespace vistrel::http
