#include "lib/syswrap.h"

#include "tests/capture.h"

#include <cerrno>
#include <cstdarg>
#include <fcntl.h>
#include <functional>

static std::string fmt(const char *format, ...) __attribute__((format(printf, 1, 2)));
static std::string fmt(const char *format, ...) {
    char text[512];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    return text;
}

TEST(Syswrap, EachFailureTellsTheCallAndKeepsErrno) {
    LogCapture log;
    char buf[8] = "";
    const void *p = buf;
    socklen_t len = 4;
    struct {
        std::function<long()> call;
        std::string record;
        int err;
    } cases[] = {
        {[&] { return W_close("me", 999); }, "close(fd999)", EBADF},
        {[&] { return W_open("me", "/none/x", O_RDONLY, 0600); }, "open('/none/x', 0, 0x180)", ENOENT},
        {[&] { return W_pread_f("me", 999, buf, 3, 5, 0); }, fmt("pread(999, %p, 3, 5)", p), EBADF},
        {[&] { return W_getsockopt("me", 999, 1, 2, buf, &len); }, fmt("getsockopt(999, 1, 2, %p, 4)", p),
         EBADF},
        {[&] { return W_bind("me", 999, nullptr, 16); }, fmt("bind(999, %p, 16):", nullptr), EBADF},
        {[&] { return W_accept("me", 999, nullptr, nullptr); }, fmt("accept(999, %p, 0)", nullptr), EBADF},
        {[&] { return W_kill("me", -999999, 0); }, "kill(-999999, 0)", ESRCH}};
    for (auto &c : cases) {
        errno = 0;
        EXPECT_EQ(c.call(), -1) << c.record;
        EXPECT_EQ(errno, c.err) << c.record;
        EXPECT_EQ(log.take(), fmt("(ERR)  me: %s ERROR(%d): %s\n", c.record.c_str(), c.err, strerror(c.err)));
    }
}

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
    pollfd fds{empty[0], POLLIN, 0};
    EXPECT_EQ(W_poll("me", &fds, 1, 3), 0);
    EXPECT_EQ(log.take(), "(WRN)  me: poll() has timed out after 3 ms\n");

    close(empty[0]);
    close(empty[1]);
}
