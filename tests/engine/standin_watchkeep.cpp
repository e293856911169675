// Stands in for the capture engine in tests. Built as a program named "watchkeep" and copied
// into a temporary program folder. It writes its arguments, one per line, to arguments.txt
// beside itself, the engine's environment variables to environment.txt, and then behaves as the
// file "mode" beside itself says:
//   (none)  run until "STOP\r\n" arrives on standard input, then write stopped.txt and end;
//   ignore  never end by itself (neither on the stop line nor on an interrupt);
//   exit    end at once with status 1 (an engine that never shows up);
//   done    end at once with status 0 (a short analysis).
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

int main(int argc, char** argv) {
    const std::string folder = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    std::string mode;
    std::ifstream(folder + "/mode") >> mode;
    {
        std::ofstream arguments(folder + "/arguments.txt", std::ios::trunc);
        for (int i = 0; i < argc; ++i) arguments << argv[i] << "\n";
        std::ofstream environment(folder + "/environment.txt", std::ios::trunc);
        for (const char* name : {"VISTREL_SERVER_URL", "VISTREL_CAPTURE_PATH"}) {
            const char* value = std::getenv(name);
            environment << name << "=" << (value != nullptr ? value : "") << "\n";
        }
    }
    if (mode == "exit") return 1;
    if (mode == "done") return 0;
    if (mode == "ignore") {
        signal(SIGINT, SIG_IGN);
        for (;;) pause();
    }
    std::string received;
    char buffer[64];
    for (;;) {
        ssize_t count = read(STDIN_FILENO, buffer, sizeof(buffer));
        if (count <= 0) break;
        received.append(buffer, static_cast<size_t>(count));
        if (received.find("STOP\r\n") != std::string::npos) {
            std::ofstream(folder + "/stopped.txt") << received;
            return 0;
        }
    }
    // Input closed without the stop line: keep running, only a kill ends us now.
    for (;;) pause();
}
