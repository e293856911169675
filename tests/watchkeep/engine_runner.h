#pragma once

#include <unistd.h>

#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "host/childprocess.h"
#include "support/temp_dir.h"

#ifndef WATCHKEEP_PATH
#error "WATCHKEEP_PATH must name the built engine"
#endif

namespace vistrel::testing {

// The real engine as the server runs it: a pipe on its standard input, its environment set
// by the test, its standard error kept in a file.
class EngineRunner {
  public:
    using Environment = std::vector<std::pair<std::string, std::string>>;

    explicit EngineRunner(const TempDir& folder) : error_path_(folder.file("engine.err")) {}

    // `wrapper` runs the engine (e.g. with fewer privileges) when given.
    void start(const std::vector<std::string>& arguments, Environment environment,
               const std::vector<std::string>& wrapper = {}) {
        std::vector<std::string> command = {"/bin/sh", "-c", "exec \"$@\" 2>\"$ENGINE_ERR\"", "sh"};
        command.insert(command.end(), wrapper.begin(), wrapper.end());
        command.push_back(WATCHKEEP_PATH);
        command.insert(command.end(), arguments.begin(), arguments.end());
        environment.emplace_back("ENGINE_ERR", error_path_);
        host::ChildProcess::Options options;
        options.input = host::ChildProcess::Stream::kPipe;
        options.output = host::ChildProcess::Stream::kNull;
        options.environment = std::move(environment);
        started_ = child_.start(command, options);
    }

    void write_input(const std::string& text) {
        [[maybe_unused]] ssize_t written = write(child_.input().get(), text.data(), text.size());
    }
    void close_input() { child_.input().reset(); }

    // The exit code, or nothing when still running after `limit`.
    std::optional<int> wait(std::chrono::milliseconds limit) {
        const auto until = std::chrono::steady_clock::now() + limit;
        while (std::chrono::steady_clock::now() < until) {
            if (auto status = child_.exit_status()) return status;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return child_.exit_status();
    }

    bool started() const { return started_; }
    std::string error_output() const { return read_file(error_path_); }

  private:
    std::string error_path_;
    host::ChildProcess child_;
    bool started_ = false;
};

}  // namespace vistrel::testing
