#include "host/processes.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "support/eventually.h"
#include "support/temp_dir.h"

namespace vistrel::host {
namespace {

// A child whose command name is unique to this test, so nothing else on the machine matches.
class NamedChild {
  public:
    NamedChild(const testing::TempDir& dir, const std::string& name, bool ignore_interrupt) {
        std::string program = dir.file(name);
        std::filesystem::copy_file("/bin/sleep", program);
        pid_ = fork();
        if (pid_ == 0) {
            if (ignore_interrupt) signal(SIGINT, SIG_IGN);
            execl(program.c_str(), program.c_str(), "60", nullptr);
            _exit(127);
        }
        // Wait until the exec has replaced the forked image's name.
        testing::eventually([&] { return process_exists(name); }, 5);
    }
    ~NamedChild() {
        // Never kill(-1): that would signal every process of the user.
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    // The kill leaves a zombie until it is collected.
    int collect() {
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return status;
    }

  private:
    pid_t pid_;
};

TEST(Processes, FoundByExactNameAndEndedByCaseInsensitivePartOrKilled) {
    testing::TempDir dir;
    // The dash keeps the name longer than its first four letters whatever the process id.
    std::string name = "vtp-" + std::to_string(getpid());
    NamedChild child(dir, name, false);
    ASSERT_TRUE(process_exists(name));
    EXPECT_FALSE(process_exists(name.substr(0, 4)));
    std::string upper_part = "VTP-" + std::to_string(getpid()).substr(0, 2);
    EXPECT_TRUE(end_process_by_name(upper_part));
    int status = child.collect();
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGINT);  // it ended on the interrupt, before the kill
    EXPECT_FALSE(process_exists(name));

    // A program that ignores the interrupt is killed.
    name = "vtq-" + std::to_string(getpid());
    NamedChild deaf(dir, name, true);
    EXPECT_TRUE(end_process_by_name(name));
    status = deaf.collect();
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
    EXPECT_TRUE(end_process_by_name("no-such-program-name"));
}

}  // namespace
}  // namespace vistrel::host
