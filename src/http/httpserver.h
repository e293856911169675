#pragma once

#include <microhttpd.h>

#include <memory>

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

private:
    MHD_Daemon* daemon_ = nullptr;
};

}  // namespace vistrel::http
