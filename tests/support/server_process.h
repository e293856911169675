#pragma once

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

#include "support/http_client.h"
#include "support/temp_dir.h"

namespace vistrel::testing {

// What a finished run of the program left behind.
struct ProgramRun {
    int exit_code = -1000;  // as the shell shows it: -1 reads 255
    std::string output;     // standard output and standard error
};

// The real `centralizedserver` binary in a sandbox of its own: temporary HOME, TMPDIR and
// QUELLWICK_ROOT (staged with the shipped config files), standard input a pipe, output
// captured to a file.
class ServerProcess {
  public:
    ServerProcess();
    // Stops the server (SIGTERM) if it still runs.
    ~ServerProcess() {
        if (pid_ > 0) stop();
    }
    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;

    // Environment added to (or replacing in) the sandbox's, e.g. TIDEWELL_SIM_CONFIG.
    void set_env(const std::string& name, const std::string& value) { env_[name] = value; }

    // Starts with `arguments` (default: --mode debug --host 127.0.0.1 --port <port()>) and
    // waits until GET /getStatus answers; false if the process ended or never answered.
    bool start(std::vector<std::string> arguments = {});
    // Starts without waiting for the HTTP server.
    void launch(std::vector<std::string> arguments);
    // Runs the program to its end (command-line checks); kills it after `timeout_seconds`.
    ProgramRun run(const std::vector<std::string>& arguments, int timeout_seconds = 60);

    // SIGTERM, then waits; returns the exit code (or -1000 if it had to be killed).
    int stop();
    // Waits for the process to end by itself; -1000 after the time-out (then it is killed).
    int wait_for_exit(int timeout_seconds = 30);
    bool running();
    // Writes bytes to the server's standard input ("press a key").
    void write_stdin(const std::string& bytes);
    void close_stdin();
    pid_t pid() const { return pid_; }

    int port() const { return port_; }
    std::string base_url() const { return "http://127.0.0.1:" + std::to_string(port_); }
    HttpClient client() const { return HttpClient(base_url()); }

    const TempDir& sandbox() const { return sandbox_; }
    std::string home() const { return sandbox_.file("home"); }
    std::string tmpdir() const { return sandbox_.file("tmp"); }
    std::string quellwick_root() const { return sandbox_.file("quellwick"); }
    std::string log_path() const { return tmpdir() + "/vistrelserveres.log"; }
    std::string log() const { return read_file(log_path()); }
    std::string output() const { return read_file(sandbox_.file("output.txt")); }
    // Waits (up to `timeout_seconds`) until the log contains `text`.
    bool wait_for_log(const std::string& text, int timeout_seconds = 20) const;

  private:
    std::vector<std::string> environment() const;

    TempDir sandbox_;
    std::map<std::string, std::string> env_;
    int port_;
    pid_t pid_ = -1;
    int stdin_fd_ = -1;
    int exit_code_ = -1000;
};

}  // namespace vistrel::testing
