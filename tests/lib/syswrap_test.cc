#include "lib/syswrap.h"

#include "tests/capture.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <fcntl.h>
#include <functional>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>

// The sanitizer's allocator, where there is one, answers like the system's.
extern "C" const char *__asan_default_options() {
    return "allocator_may_return_null=1";
}

static std::string fmt(const char *format, ...) __attribute__((format(printf, 1, 2)));
static std::string fmt(const char *format, ...) {
    char text[512];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    return text;
}

// Runs `action` where the process may create nothing of the limited resource.
static long with_limit(__rlimit_resource resource, rlim_t limit, const std::function<long()> &action) {
    rlimit old;
    getrlimit(resource, &old);
    rlimit low = {limit, old.rlim_max};
    setrlimit(resource, &low);
    long rc = action();
    int err = errno;
    setrlimit(resource, &old);
    errno = err;
    return rc;
}

TEST(Syswrap, EachFailureTellsTheCallAndKeepsErrno) {
    LogCapture log;
    char buf[8] = "";
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    auto *sa = reinterpret_cast<sockaddr *>(&addr);
    const socklen_t salen = sizeof(addr);
    const void *p = buf, *ap = &addr;
    socklen_t len = 4;
    off_t offset = 7;
    int fds[2] = {-5, -6};
    // More than any address space holds, kept out of the compiler's sight.
    volatile size_t huge = SIZE_MAX / 2;
    int sock = socket(AF_UNIX, SOCK_STREAM, 0), pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    close(pair[1]);
    struct {
        std::function<long()> call;
        std::string record;
        int err;
        long result = -1;
    } cases[] = {
        {[&] { return W_close("me", 999); }, "close(fd999)", EBADF},
        {[&] { return W_lseek("me", 999, -3, SEEK_END); }, "lseek(999, -3, 2)", EBADF},
        {[&] { return W_unlink("me", "/none/x"); }, "unlink(/none/x)", ENOENT},
        {[&] { return W_ftruncate("me", 999, 12); }, "ftruncate(999, 12)", EBADF},
        {[&] { return W_open("me", "/none/x", O_WRONLY, 0); }, "open('/none/x', 1, 0x0)", ENOENT},
        {[&] { return W_open("me", "/none/x", O_RDONLY, 0600); }, "open('/none/x', 0, 0x180)", ENOENT},
        {[&] { return W_connect("me", 999, sa, salen); }, fmt("connect(999, %p, 16)", ap), EBADF},
        {[&] { return W_write_f("me", 999, p, 3, 0); }, fmt("write(999, %p, 3)", p), EBADF},
        {[&] { return W_read_f("me", 999, buf, 3, 0); }, fmt("read(999, %p, 3)", p), EBADF},
        {[&] { return W_pread_f("me", 999, buf, 3, 5, 0); }, fmt("pread(999, %p, 3, 5)", p), EBADF},
        {[&] { return W_socket("me", AF_UNIX, 77, 0); }, "socket(1, 77, 0)", EINVAL},
        {[&] { return W_getsockopt("me", 999, 1, 2, buf, &len); }, fmt("getsockopt(999, 1, 2, %p, 4)", p),
         EBADF},
        {[&] { return W_setsockopt("me", 999, 1, 2, buf, 4); }, fmt("setsockopt(999, 1, 2, %p, 4)", p),
         EBADF},
        {[&] { return W_bind("me", 999, sa, salen); }, fmt("bind(999, %p, 16):", ap), EBADF},
        {[&] { return W_listen("me", 999, 5); }, "listen(999, 5)", EBADF},
        {[&] { return W_select("me", -1, nullptr, nullptr, nullptr, nullptr); },
         fmt("select(-1, %p, %p, %p, %p)", nullptr, nullptr, nullptr, nullptr), EINVAL},
        {[&] { return W_accept("me", 999, sa, &len); }, fmt("accept(999, %p, 4)", ap), EBADF},
        {[&] { return W_accept("me", 999, nullptr, nullptr); }, fmt("accept(999, %p, 0)", nullptr), EBADF},
        {[&] {
             return with_limit(RLIMIT_NOFILE, 0, [] {
                 pollfd none{-1, 0, 0};
                 return W_poll("me", &none, 1, 0);
             });
         },
         "poll(", EINVAL},
        {[&] { return W_dup2("me", 999, 5); }, "dup2(999, 5)", EBADF},
        {[&] { return with_limit(RLIMIT_NOFILE, 0, [&] { return W_pipe("me", fds); }); }, "pipe([-5,-6])",
         EMFILE},
        {[&] { return W_kill("me", -999999, 0); }, "kill(-999999, 0)", ESRCH},
        {[&] { return W_sendto("me", sock, p, 1, MSG_NOSIGNAL, nullptr, 0); },
         fmt("sendto(%d, %p, 1, 16384, ...)", sock, p), ENOTCONN},
        {[&] { return W_recvfrom("me", sock, buf, 1, 0, nullptr, nullptr); },
         fmt("recvfrom(%d, %p, 1, 0, ...)", sock, p), EINVAL}};
    for (auto &c : cases) {
        errno = 0;
        EXPECT_EQ(c.call(), c.result) << c.record;
        EXPECT_EQ(errno, c.err) << c.record;
        std::string text = log.take(), tail = fmt(" ERROR(%d): %s\n", c.err, strerror(c.err));
        EXPECT_EQ(text.find("(ERR)  me: " + c.record), 0u) << c.record << " against " << text;
        EXPECT_NE(text.find(tail), std::string::npos) << text;
        if (c.record.back() == ')' || c.record.back() == ':') {
            EXPECT_EQ(text, "(ERR)  me: " + c.record + tail);
        }
    }
    EXPECT_EQ(W_sendfile_f("me", 998, 999, &offset, 3, 0), -1);
    EXPECT_EQ(log.take(), fmt("(ERR)  me: LNX sendfile(998<-999, 7, 3) ERROR(9): %s", strerror(EBADF)));
    EXPECT_EQ(W_calloc("me", huge, 4), nullptr);
    EXPECT_EQ(log.take(), fmt("(ERR)  me: calloc(%zu, 4) ERROR(12): %s\n", huge, strerror(ENOMEM)));
    EXPECT_EQ(W_realloc("me", nullptr, huge), nullptr);
    EXPECT_EQ(log.take(),
              fmt("(ERR)  me: realloc(%p, %zu) ERROR(12): %s\n", nullptr, huge, strerror(ENOMEM)));

    // The end of a stream is told like a failure, with whatever errno holds.
    errno = ENOTTY;
    EXPECT_EQ(W_recvfrom("me", pair[0], buf, 1, 0, nullptr, nullptr), 0);
    EXPECT_TRUE(log.has(fmt("(ERR)  me: recvfrom(%d, %p, 1, 0, ...) ERROR(25): ", pair[0], p)));
    log.take();

    // Of the resolver's failures only one is told.
    addrinfo hints{}, *found = nullptr;
    hints.ai_flags = AI_NUMERICHOST;
    EXPECT_EQ(W_getaddrinfo("me", "no number", "1", &hints, &found), EAI_NONAME);
    EXPECT_EQ(log.take(), "");
    hints.ai_flags = ~0;
    EXPECT_EQ(W_getaddrinfo("me", nullptr, "1", &hints, &found), -1);
    EXPECT_TRUE(log.has(fmt("(ERR)  me: getaddrinfo(-, 1, %p, %p): ERROR(-1:", static_cast<void *>(&hints),
                            static_cast<void *>(&found))));
    close(sock);
    close(pair[0]);
}

TEST(Syswrap, ExpectedFailuresOfNonBlockingDescriptors) {
    for (int err : {EAGAIN, EPIPE, EINTR, ECONNRESET, EBADF, 0}) {
        EXPECT_EQ(no_fault(err, 0), err != EBADF && err != 0) << err;
        EXPECT_FALSE(no_fault(err, 1)) << err;
        EXPECT_EQ(is_eagain(err), err == EAGAIN) << err;
    }
    LogCapture log;
    int empty[2], broken[2];
    char buf[8];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, empty), 0);
    ASSERT_EQ(pipe(broken), 0);
    close(broken[0]);
    auto handler = signal(SIGPIPE, SIG_IGN);
    for (int flags : {0, 1}) {
        EXPECT_EQ(W_read_f("me", empty[0], buf, 1, flags), -1);
        EXPECT_EQ(errno, EAGAIN);
        EXPECT_EQ(log.take().empty(), flags == 0);
        EXPECT_EQ(W_write_f("me", broken[1], buf, 1, flags), -1);
        EXPECT_EQ(errno, EPIPE);
        EXPECT_EQ(log.take().empty(), flags == 0);
    }
    signal(SIGPIPE, handler);
    close(broken[1]);

    TempDir dir;
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    strcpy(addr.sun_path, (dir / "s").c_str());
    int srv = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
    ASSERT_EQ(bind(srv, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)), 0);
    ASSERT_EQ(listen(srv, 1), 0);
    EXPECT_EQ(W_accept("me", srv, nullptr, nullptr), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(log.take(), "");

    pollfd fds{empty[0], POLLIN, 0};
    EXPECT_EQ(W_poll("me", &fds, 1, 3), 0);
    EXPECT_EQ(log.take(), "(WRN)  me: poll() has timed out after 3 ms\n");

    // A connection under way is no failure. The address leads nowhere.
    sockaddr_in in{};
    in.sin_family = AF_INET;
    in.sin_port = htons(9);
    in.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int tcp = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0), full = socket(AF_INET, SOCK_STREAM, 0);
    socklen_t len = sizeof(in);
    in.sin_port = 0;
    ASSERT_EQ(bind(full, reinterpret_cast<sockaddr *>(&in), len), 0);
    ASSERT_EQ(getsockname(full, reinterpret_cast<sockaddr *>(&in), &len), 0);
    ASSERT_EQ(listen(full, 1), 0);
    EXPECT_EQ(W_connect("me", tcp, reinterpret_cast<sockaddr *>(&in), len), -1);
    EXPECT_EQ(errno, EINPROGRESS);
    EXPECT_EQ(log.take(), fmt("(INF)  W_connect: non-blocking connect in progress for fd%d\n", tcp));
    for (int fd : {empty[0], empty[1], srv, tcp, full})
        close(fd);
}

TEST(Syswrap, InterruptedSelectIsToldToThoseWhoWatch) {
    LogCapture log;
    struct sigaction action {
    }, old;
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, &old);
    for (int level : {LL_INFO, LL_DEBUG}) {
        g_mod_ll[LOG_MOD_SYSWRAP] = static_cast<signed char>(level);
        itimerval soon{{0, 1000}, {0, 1000}}, off{}; // repeats until the wait has begun
        setitimer(ITIMER_REAL, &soon, nullptr);
        timeval limit{60, 0};
        EXPECT_EQ(W_select("me", 0, nullptr, nullptr, nullptr, &limit), -1);
        EXPECT_EQ(errno, EINTR);
        setitimer(ITIMER_REAL, &off, nullptr);
        EXPECT_EQ(!log.take().empty(), level == LL_DEBUG);
    }
    sigaction(SIGALRM, &old, nullptr);
}

TEST(Syswrap, SuccessesAreToldAtTheModulesDebugLevel) {
    LogCapture log;
    TempDir dir;
    for (int level : {LL_INFO, LL_DEBUG}) {
        g_mod_ll[LOG_MOD_SYSWRAP] = static_cast<signed char>(level);
        int fd = W_socket("me", AF_UNIX, SOCK_STREAM, 0);
        std::string opened = fmt("(DBG)  me opened socket fd=%d (1, 1, 0)\n", fd);
        errno = ENOTTY;
        EXPECT_EQ(W_close("me", fd), 0);
        EXPECT_EQ(errno, ENOTTY);
        EXPECT_EQ(log.take(), level == LL_DEBUG ? opened + fmt("(DBG)  me: CLOSED(fd%d)\n", fd) : "");
        fd = W_open("me", (dir / "f").c_str(), O_CREAT | O_RDWR, level == LL_DEBUG ? 0600 : 0);
        fd_guard guard(fd);
        struct stat st;
        mode_t mask = umask(0);
        umask(mask);
        ASSERT_EQ(fstat(fd, &st), 0);
        EXPECT_EQ(st.st_mode & 0777, (level == LL_DEBUG ? 0600 : 0644) & ~mask);
        unlink((dir / "f").c_str());
        EXPECT_EQ(W_unlink("me", "/none"), -1);
        EXPECT_EQ(log.take().find("(ERR)  me: unlink(/none) ERROR(2)"), 0u); // failures at any level
    }
    int fd = next_fd();
    { fd_guard guard(dup(0)); }
    EXPECT_EQ(next_fd(), fd);
    fd_guard guard(dup(0));
    EXPECT_EQ(guard.release(), fd);
    EXPECT_EQ(guard.fd, -1);
    close(fd);
}
