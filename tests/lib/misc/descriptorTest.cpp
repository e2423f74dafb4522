#include "lib/misc/descriptor.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace {

bool isOpen(int fd) { return ::fcntl(fd, F_GETFD) != -1; }

// A child that leads its own group, with a grandchild in it; both hold the write end of a
// pipe and wait to be killed. The read end is returned: it reads end-of-file once both are gone.
pid_t startFamily(misc::Descriptor& lastGone) {
    int ends[2];
    if (::pipe(ends) != 0)
        return -1;
    const pid_t child = ::fork();
    if (child == 0) {
        ::setpgid(0, 0);
        ::close(ends[0]);
        ::fork();
        for (;;)
            ::pause();
    }
    ::setpgid(child, child);
    ::close(ends[1]);
    lastGone.reset(ends[0]);
    return child;
}

bool endOfFileWithin(const misc::Descriptor& readEnd, int milliseconds) {
    pollfd watch{readEnd.get(), POLLIN, 0};
    char byte;
    return ::poll(&watch, 1, milliseconds) == 1 && ::read(readEnd.get(), &byte, 1) == 0;
}

} // namespace

TEST(Descriptor, ClosesOnceWhenDestroyedResetOrMovedOnto) {
    int first = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    int second = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    {
        misc::Descriptor a(first);
        misc::Descriptor b(second);
        b = std::move(a); // second is closed, first changes owner
        EXPECT_FALSE(isOpen(second));
        EXPECT_TRUE(isOpen(first));
        const int taken = b.release();
        EXPECT_EQ(taken, first);
        b.reset(taken);
    }
    EXPECT_FALSE(isOpen(first));
}

TEST(ChildProcess, AnOwnerGoingFirstKillsTheGroupAndReapsTheChild) {
    misc::Descriptor lastGone;
    const pid_t child = startFamily(lastGone);
    ASSERT_GT(child, 0);
    { misc::ChildProcess owner(child); }
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, WNOHANG), -1) << "the owner reaped it";
    EXPECT_EQ(errno, ECHILD);
    EXPECT_TRUE(endOfFileWithin(lastGone, 10000)) << "what the child started goes with it";
}

TEST(ChildProcess, AChildThatEndedIsReapedOnceWithItsStatus) {
    const pid_t child = ::fork();
    if (child == 0)
        ::_exit(3);
    misc::ChildProcess owner(child);
    int status = 0;
    bool failed = false;
    while (!owner.reapIfEnded(status, failed))
        ASSERT_FALSE(failed);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 3);
    EXPECT_EQ(owner.killAndReap(), 0) << "nothing left to kill";
}
