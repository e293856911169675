#pragma once

// Installs the stand-in capture engine into a temporary program folder and reads back what it
// recorded. The stand-in is found by command name "watchkeep", so every test that starts it
// must run alone among such tests (CTest RESOURCE_LOCK "watchkeep").

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#ifndef WATCHKEEP_STANDIN_PATH
#error "WATCHKEEP_STANDIN_PATH must name the built stand-in engine"
#endif

namespace vistrel::testing {

class StandinEngine {
  public:
    // `root` becomes the program folder ($QUELLWICK_ROOT); the stand-in lands in
    // root/vistrel/watchkeep/watchkeep.
    explicit StandinEngine(const std::filesystem::path& root)
        : folder_(root / "vistrel" / "watchkeep") {
        std::filesystem::create_directories(folder_);
        std::filesystem::copy_file(WATCHKEEP_STANDIN_PATH, folder_ / "watchkeep",
                                   std::filesystem::copy_options::overwrite_existing);
        clear();
    }

    const std::filesystem::path& folder() const { return folder_; }

    // "" (wait for the stop line), "ignore", "exit" (status 1) or "done" (status 0).
    void set_mode(const std::string& mode) const {
        std::ofstream(folder_ / "mode", std::ios::trunc) << mode;
    }

    // Forgets what an earlier run recorded.
    void clear() const {
        std::filesystem::remove(folder_ / "arguments.txt");
        std::filesystem::remove(folder_ / "stopped.txt");
    }

    bool started() const { return std::filesystem::exists(folder_ / "arguments.txt"); }

    // argv of the last run, argv[0] included.
    std::vector<std::string> arguments() const {
        std::ifstream file(folder_ / "arguments.txt");
        std::vector<std::string> lines;
        for (std::string line; std::getline(file, line);) lines.push_back(line);
        return lines;
    }

    // A VISTREL_* variable of the last run's environment ("" when unset).
    std::string environment(const std::string& name) const {
        std::ifstream file(folder_ / "environment.txt");
        for (std::string line; std::getline(file, line);) {
            if (line.rfind(name + "=", 0) == 0) return line.substr(name.size() + 1);
        }
        return "";
    }

    // What arrived on standard input before the stand-in ended on the stop line.
    std::string stop_input() const {
        std::ifstream file(folder_ / "stopped.txt", std::ios::binary);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }

  private:
    std::filesystem::path folder_;
};

}  // namespace vistrel::testing
