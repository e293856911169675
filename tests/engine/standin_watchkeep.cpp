// Stands in for the capture engine in tests. Built as a program named "watchkeep" and copied
// into a temporary program folder. It writes its arguments, one per line, to arguments.txt
// beside itself and then behaves as the file "mode" beside itself says:
//   (none)  run until "STOP\r\n" arrives on standard input, then write stopped.txt and end;
//   ignore  never end by itself (neither on the stop line nor on an interrupt);
//   exit    end at once (an engine that never shows up).
#include <signal.h>
#include <unistd.h>

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
    }
    if (mode == "exit") return 0;
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
