#include "lib/fdio.h"

#include "lib/sigflag.h"
#include "tests/capture.h"

#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/time.h>
#include <unistd.h>
#include <vector>

static int g_pipe[2];
static int g_ticks;

static void on_tick_feed(int) {
    if (++g_ticks == 3 && write(g_pipe[1], "x", 1) != 1)
        abort();
}

static void on_tick_quit(int) {
    if (++g_ticks == 3)
        g_quit = 1;
}

// A pipe, the log in memory, and a timer whose signal interrupts system calls.
class Fdio : public ::testing::Test {
  protected:
    void SetUp() override {
        g_mod_ll[LOG_MOD_SYSWRAP] = LL_NORM;
        first_free = next_fd();
        ASSERT_EQ(pipe(g_pipe), 0);
        g_ticks = 0;
    }
    void TearDown() override {
        const itimerval off{};
        setitimer(ITIMER_REAL, &off, nullptr);
        signal(SIGALRM, SIG_DFL);
        g_quit = 0;
        close(g_pipe[0]);
        close_writer();
        EXPECT_EQ(next_fd(), first_free) << "a descriptor leaked";
    }
    static void close_writer() {
        if (g_pipe[1] >= 0)
            close(g_pipe[1]);
        g_pipe[1] = -1;
    }
    static void start_ticks(void (*handler)(int)) {
        struct sigaction action {};
        action.sa_handler = handler;
        sigaction(SIGALRM, &action, nullptr);
        const itimerval every_ms{.it_interval = {0, 1000}, .it_value = {0, 1000}};
        setitimer(ITIMER_REAL, &every_ms, nullptr);
    }
    static void fill_pipe() {
        const std::vector<char> page(4096);
        fcntl(g_pipe[1], F_SETFL, O_NONBLOCK);
        while (write(g_pipe[1], page.data(), page.size()) > 0)
            ;
        fcntl(g_pipe[1], F_SETFL, 0);
    }

    LogCapture log;
    int first_free = -1;
};

TEST_F(Fdio, InterruptedCallsGoOnUntilToldToQuit) {
    char c = 0;
    start_ticks(on_tick_feed);
    EXPECT_EQ(nread(g_pipe[0], &c, 1, 1), 1);
    EXPECT_EQ(c, 'x');
    EXPECT_GE(g_ticks, 3);
    start_ticks(on_tick_quit);
    g_ticks = 0;
    EXPECT_EQ(nread(g_pipe[0], &c, 1, 0), -1);
    EXPECT_EQ(errno, EINTR);
    fill_pipe();
    g_quit = g_ticks = 0;
    EXPECT_EQ(nwrite(g_pipe[1], "y", 1, 0), -1);
    EXPECT_EQ(errno, EINTR);
}

TEST_F(Fdio, Readiness) {
    char buf[4096];
    EXPECT_EQ(wait_to_read(g_pipe[0], 0), 1);
    EXPECT_EQ(wait_to_write(g_pipe[1], 0), 0);
    fill_pipe();
    EXPECT_EQ(wait_to_write(g_pipe[1], 0), 1);
    close_writer();
    EXPECT_EQ(wait_to_read(g_pipe[0], -1), 0) << "what was sent before the hang-up can be read";
    while (nread(g_pipe[0], buf, sizeof(buf), 1) > 0)
        ;
    EXPECT_EQ(wait_to_read(g_pipe[0], -1), -1);
    EXPECT_EQ(wait_to_read(100000, -1), -1) << "no such descriptor";
    EXPECT_EQ(npread(g_pipe[0], buf, 1, 0, 0), -1);
    EXPECT_EQ(errno, ESPIPE);
}
