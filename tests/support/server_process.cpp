#include "support/server_process.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <random>
#include <thread>

#include "host/processes.h"
#include "host/uniquefd.h"
#include "support/eventually.h"

extern char** environ;

namespace vistrel::testing {

namespace {

int exit_code_of(int status) {
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return -1000;
}

void stage_program_folder(const std::string& root) {
    namespace fs = std::filesystem;
    fs::create_directories(root + "/vistrel/centralizedserver");
    fs::create_directories(root + "/vistrel/watchkeep");
    fs::create_directories(root + "/tidewell/firmware");
    std::error_code ignored;
    fs::copy_file(std::string(VISTREL_SOURCE_DIR) + "/config/grafana_to_tshark.yaml",
                  root + "/vistrel/centralizedserver/grafana_to_tshark.yaml", ignored);
    fs::copy_file(std::string(VISTREL_SOURCE_DIR) + "/config/firmware.xml",
                  root + "/tidewell/firmware/firmware.xml", ignored);
}

// A free TCP port on 127.0.0.1 in the range the server accepts (1024..49151), below the
// kernel's ephemeral range, so outgoing connections do not take it meanwhile.
int free_loopback_port() {
    static std::mt19937 random(static_cast<unsigned>(
        std::chrono::steady_clock::now().time_since_epoch().count() ^ getpid()));
    std::uniform_int_distribution<int> range(20000, 32000);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    for (int attempt = 0; attempt < 1000; ++attempt) {
        address.sin_port = htons(static_cast<uint16_t>(range(random)));
        host::UniqueFd fd(socket(AF_INET, SOCK_STREAM, 0));
        if (bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0)
            return ntohs(address.sin_port);
    }
    return 0;
}

}  // namespace

ServerProcess::ServerProcess() : port_(free_loopback_port()) {
    std::filesystem::create_directories(home());
    std::filesystem::create_directories(tmpdir());
    stage_program_folder(quellwick_root());
}

std::vector<std::string> ServerProcess::environment() const {
    std::map<std::string, std::string> merged;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        std::string text = *entry;
        size_t equals = text.find('=');
        if (equals != std::string::npos) merged[text.substr(0, equals)] = text.substr(equals + 1);
    }
    merged["HOME"] = home();
    merged["TMPDIR"] = tmpdir();
    merged["QUELLWICK_ROOT"] = quellwick_root();
    merged.erase("TIDEWELL_SIM_CONFIG");
    for (const auto& [name, value] : env_) merged[name] = value;
    std::vector<std::string> result;
    for (const auto& [name, value] : merged) result.push_back(name + "=" + value);
    return result;
}

void ServerProcess::launch(std::vector<std::string> arguments) {
    // The server judges "an engine runs" by command name, machine-wide. An engine that a previous
    // test's server left finishing its graceful stop would make this server refuse captures and
    // uploads as busy, so wait for it, and say so when it does not end.
    if (!eventually([] { return !host::process_exists("watchkeep"); }, 20)) {
        std::fprintf(stderr, "A process named watchkeep from an earlier test is still running\n");
    }
    int input[2];
    if (pipe2(input, O_CLOEXEC) != 0) return;
    std::vector<std::string> env = environment();
    std::string output = sandbox_.file("output.txt");
    arguments.insert(arguments.begin(), CENTRALIZEDSERVER_PATH);
    // Built before the fork: the child of a threaded test may not allocate.
    std::vector<char*> argv;
    for (auto& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    std::vector<char*> envp;
    for (auto& entry : env) envp.push_back(entry.data());
    envp.push_back(nullptr);
    const std::string folder = sandbox_.path();
    pid_ = fork();
    if (pid_ == 0) {
        dup2(input[0], STDIN_FILENO);
        int out = open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        dup2(out, STDOUT_FILENO);
        dup2(out, STDERR_FILENO);
        // The server runs in the sandbox, so relative paths ("/img/...") resolve there.
        if (chdir(folder.c_str()) != 0) _exit(127);
        execve(argv[0], argv.data(), envp.data());
        _exit(127);
    }
    close(input[0]);
    stdin_fd_ = input[1];
    exit_code_ = -1000;
}

bool ServerProcess::start(std::vector<std::string> arguments) {
    if (arguments.empty()) {
        arguments = {"--mode", "debug", "--host", "127.0.0.1", "--port", std::to_string(port_)};
    }
    launch(std::move(arguments));
    HttpClient http = client();
    return eventually([&] { return !running() || http.get("/getStatus").status == 200; }, 30) &&
           running();
}

ProgramRun ServerProcess::run(const std::vector<std::string>& arguments, int timeout_seconds) {
    std::filesystem::remove(sandbox_.file("output.txt"));
    launch(arguments);
    ProgramRun result;
    result.exit_code = wait_for_exit(timeout_seconds);
    result.output = output();
    return result;
}

bool ServerProcess::running() {
    if (pid_ <= 0) return false;
    int status = 0;
    pid_t done = waitpid(pid_, &status, WNOHANG);
    if (done == pid_) {
        exit_code_ = exit_code_of(status);
        pid_ = -1;
        close_stdin();
        return false;
    }
    return true;
}

int ServerProcess::wait_for_exit(int timeout_seconds) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeout_seconds);
    while (running()) {
        if (std::chrono::steady_clock::now() > deadline) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
            pid_ = -1;
            close_stdin();
            return -1000;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return exit_code_;
}

int ServerProcess::stop() {
    if (pid_ > 0) kill(pid_, SIGTERM);
    return wait_for_exit(60);
}

void ServerProcess::write_stdin(const std::string& bytes) {
    if (stdin_fd_ >= 0) {
        ssize_t written = ::write(stdin_fd_, bytes.data(), bytes.size());
        (void)written;
    }
}

void ServerProcess::close_stdin() {
    if (stdin_fd_ >= 0) {
        close(stdin_fd_);
        stdin_fd_ = -1;
    }
}

bool ServerProcess::wait_for_log(const std::string& text, int timeout_seconds) const {
    return eventually([&] { return log().find(text) != std::string::npos; }, timeout_seconds);
}

}  // namespace vistrel::testing
