#include "lib/syswrap.h"

#include "tests/capture.h"

#include <cerrno>
#include <sys/socket.h>

TEST(Syswrap, ExpectedFailuresOfNonBlockingDescriptors) {
    for (int err : {EAGAIN, EPIPE, EINTR, ECONNRESET, EBADF, 0}) {
        EXPECT_EQ(no_fault(err, 0), err != EBADF && err != 0) << err;
        EXPECT_FALSE(no_fault(err, 1)) << err;
    }
    LogCapture log;
    int empty[2];
    char buf[8];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, empty), 0);
    for (int flags : {0, 1}) {
        EXPECT_EQ(W_read_f("me", empty[0], buf, 1, flags), -1);
        EXPECT_EQ(errno, EAGAIN);
        EXPECT_EQ(log.take().empty(), flags == 0);
    }
    close(empty[0]);
    close(empty[1]);
}
