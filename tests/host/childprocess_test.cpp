#include "host/childprocess.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace vistrel::host {
namespace {

using Stream = ChildProcess::Stream;

std::string read_all(int fd) {
    std::string text;
    char buffer[256];
    ssize_t got;
    while ((got = ::read(fd, buffer, sizeof buffer)) > 0) text.append(buffer, size_t(got));
    return text;
}

ChildProcess::Options piped() {
    ChildProcess::Options options;
    options.input = Stream::kPipe;
    options.output = Stream::kPipe;
    return options;
}

TEST(ChildProcessTest, PipesCarryDataBothWaysAndEndAtExit) {
    ChildProcess child;
    ASSERT_TRUE(child.start({"/bin/cat"}, piped()));
    EXPECT_GT(child.pid(), 0);
    EXPECT_TRUE(child.running());
    EXPECT_FALSE(child.exit_status());
    ASSERT_EQ(::write(child.input().get(), "hello", 5), 5);
    child.input().reset();
    // The parent holds no copy of the child's write end, so the output reaches its end.
    EXPECT_EQ(read_all(child.output().get()), "hello");
    EXPECT_EQ(child.wait(), 0);
    EXPECT_EQ(child.exit_status(), 0);
    EXPECT_FALSE(child.running());
}

TEST(ChildProcessTest, ExitCodesSignalsAndEnvironment) {
    ChildProcess::Options options = piped();
    options.search_path = true;
    options.environment = {{"VISTREL_CHILD_TEST", "a value"}, {"HOME", "/nowhere"}};
    ChildProcess child;
    ASSERT_TRUE(child.start(
        {"sh", "-c", "printf '%s|%s' \"$VISTREL_CHILD_TEST\" \"$HOME\"; exit 3"}, options));
    EXPECT_EQ(read_all(child.output().get()), "a value|/nowhere");
    EXPECT_EQ(child.wait(), 3);

    ChildProcess killed;
    ASSERT_TRUE(killed.start({"/bin/sleep", "60"}, {}));
    killed.kill(SIGKILL);
    EXPECT_EQ(killed.wait(), 128 + SIGKILL);
}

// What the parent does with its own signals never reaches the child.
TEST(ChildProcessTest, ChildGetsDefaultSignalsAndItsOwnGroup) {
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    sigset_t previous;
    pthread_sigmask(SIG_BLOCK, &blocked, &previous);
    auto old_handler = ::signal(SIGINT, SIG_IGN);

    ChildProcess::Options options;
    options.new_process_group = true;
    ChildProcess child;
    const bool started =
        child.start({"/bin/sh", "-c", "kill -TERM $$; kill -INT $$; exit 0"}, options);
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    ::signal(SIGINT, old_handler);
    ASSERT_TRUE(started);
    EXPECT_EQ(::getpgid(child.pid()), child.pid());
    EXPECT_EQ(child.wait(), 128 + SIGTERM);
}

TEST(ChildProcessTest, FailuresAndCleanup) {
    ChildProcess missing;
    EXPECT_FALSE(missing.start({"/nonexistent/program"}, piped()));
    EXPECT_EQ(missing.failure(), ChildProcess::Failure::kSpawn);
    EXPECT_EQ(missing.error(), ENOENT);
    EXPECT_FALSE(missing.input());
    EXPECT_FALSE(missing.running());

    ChildProcess empty;
    EXPECT_FALSE(empty.start({}, {}));

    // A running child is killed and reaped with its owner: no process, no zombie.
    pid_t pid;
    {
        ChildProcess child;
        ASSERT_TRUE(child.start({"/bin/sleep", "60"}, {}));
        pid = child.pid();
    }
    EXPECT_EQ(::kill(pid, 0), -1);
    EXPECT_EQ(errno, ESRCH);
}

}  // namespace
}  // namespace vistrel::host
