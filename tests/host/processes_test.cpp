#include "host/processes.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>

#include "host/childprocess.h"
#include "support/eventually.h"
#include "support/temp_dir.h"

namespace vistrel::host {
namespace {

// Starts a copy of sleep named `name`, unique to this test so that nothing else on the machine
// matches; a deaf one ignores the interrupt (an ignored signal stays ignored across the exec).
void start_named(ChildProcess& child, const testing::TempDir& dir, const std::string& name,
                 bool deaf) {
    const std::string program = dir.file(name);
    std::filesystem::copy_file("/bin/sleep", program);
    const std::string script = (deaf ? "trap '' INT; exec " : "exec ") + program + " 60";
    ASSERT_TRUE(child.start({"/bin/sh", "-c", script}, {}));
    // Wait until the exec has replaced the shell's name.
    EXPECT_TRUE(testing::eventually([&] { return process_exists(name); }, 5));
}

TEST(Processes, FoundByExactNameAndEndedByCaseInsensitivePartOrKilled) {
    testing::TempDir dir;
    // The dash keeps the name longer than its first four letters whatever the process id.
    std::string name = "vtp-" + std::to_string(getpid());
    ChildProcess child;
    start_named(child, dir, name, false);
    ASSERT_TRUE(process_exists(name));
    EXPECT_FALSE(process_exists(name.substr(0, 4)));
    EXPECT_TRUE(end_process_by_name("VTP-" + std::to_string(getpid()).substr(0, 2)));
    EXPECT_EQ(child.wait(), 128 + SIGINT);  // it ended on the interrupt, before the kill
    EXPECT_FALSE(process_exists(name));

    // A program that ignores the interrupt is killed.
    name = "vtq-" + std::to_string(getpid());
    ChildProcess deaf;
    start_named(deaf, dir, name, true);
    EXPECT_TRUE(end_process_by_name(name));
    EXPECT_EQ(deaf.wait(), 128 + SIGKILL);
    EXPECT_TRUE(end_process_by_name("no-such-program-name"));
}

}  // namespace
}  // namespace vistrel::host
