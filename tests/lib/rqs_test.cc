#include "lib/rqs.h"

#include "lib/sigflag.h"
#include "lib/timeop.h"
#include "tests/capture.h"

#include <climits>
#include <fcntl.h>
#include <functional>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <vector>

namespace {

// What the callbacks do; the loop's own table holds no state.
struct script {
    std::string trace; // one letter per callback
    std::function<int(const char *kind, long word, int err, void *udata)> on_event;
    std::function<int()> on_idle, on_post;
    timespec tmout{0, 0};
} g_script;

int event(const char *kind, long word, int err, void *udata, void *aux) {
    EXPECT_EQ(aux, nullptr);
    g_script.trace += kind[0];
    return g_script.on_event ? g_script.on_event(kind, word, err, udata) : 0;
}

const rqs_callbacks CALLBACKS = {
    .update_tmout =
        [](timespec *tmout) {
            g_script.trace += 'U';
            *tmout = g_script.tmout;
        },
    .on_idle =
        [] {
            g_script.trace += 'i';
            return g_script.on_idle ? g_script.on_idle() : -7;
        },
    .read = [](long w, int e, void *u, void *a) { return event("read", w, e, u, a); },
    .write = [](long w, int e, void *u, void *a) { return event("write", w, e, u, a); },
    .error = [](long w, int e, void *u, void *a) { return event("error", w, e, u, a); },
    .post_process =
        [] {
            g_script.trace += 'p';
            return g_script.on_post ? g_script.on_post() : 0;
        },
    .on_file_modified = [](long w, int e, void *u, void *a) { return event("file", w, e, u, a); },
    .time_out = [] { g_script.trace += 'T'; },
    .is_dormant = nullptr,
};

struct Pipe {
    int rd, wr;
    Pipe() {
        int fds[2];
        EXPECT_EQ(pipe(fds), 0);
        rd = fds[0];
        wr = fds[1];
    }
    Pipe(const Pipe &) = delete;
    Pipe &operator=(const Pipe &) = delete;
    ~Pipe() {
        close_wr();
        close(rd);
    }
    void fill() { EXPECT_EQ(write(wr, "x", 1), 1); }
    void close_wr() {
        if (wr >= 0)
            close(wr);
        wr = -1;
    }
};

class Rqs : public testing::Test {
  protected:
    void SetUp() override {
        g_script = {};
        descriptors = next_fd();
        start(0);
    }
    void TearDown() override {
        rqs_destroy();
        g_quit = 0;
        g_hup = 0;
        timeop_set_loop_clock(nullptr);
        EXPECT_EQ(next_fd(), descriptors);
    }
    void start(int quit_on_zero_fds, bool (*is_dormant)() = nullptr) {
        rqs_destroy();
        rqs_config config = {CALLBACKS, quit_on_zero_fds};
        config.cb.is_dormant = is_dormant;
        ASSERT_EQ(rqs_init(&config), 0);
    }
    // Runs `passes` passes unless something else ends the loop first.
    int run(int passes = 1) {
        g_script.trace.clear();
        g_script.on_idle = [passes]() mutable { return --passes > 0 ? 0 : -7; };
        return rqs_event_loop();
    }
    LogCapture log;
    int descriptors = 0;
};

TEST_F(Rqs, EventsOfDescriptorsAndTheirChanges) {
    Pipe a, b;
    int record;
    std::string seen;
    g_script.on_event = [&](const char *kind, long word, int err, void *udata) {
        if (udata == &record)
            seen += std::string(kind) + std::to_string(err) + " ";
        else
            seen += std::string(kind) + "#" + std::to_string(word) + " ";
        return 0;
    };
    auto expect = [&](const std::string &what) {
        seen.clear();
        EXPECT_EQ(run(), -7);
        EXPECT_EQ(seen, what);
    };
    ASSERT_EQ(rqs_add_reader(a.rd, &record), 0);
    EXPECT_EQ(rqs_add_reader(a.rd, &record), -1);
    EXPECT_TRUE(log.has("(ERR)  change_epoll: epoll_ctl("));
    EXPECT_EQ(rqs_fd_count(RQS_POLL_FDS), 1u);
    expect("");
    a.fill();
    expect("read0 ");
    expect("read0 "); // level-triggered
    EXPECT_EQ(rqs_mod(a.rd, &record, 0), 0);
    expect("");
    EXPECT_EQ(rqs_mod_reader(a.rd, nullptr), 0);
    expect("read#" + std::to_string(a.rd) + " ");
    EXPECT_EQ(rqs_mod(a.rd, &record, RQS_READ), 0);
    a.close_wr();
    expect("read2 "); // data and hang-up
    char c;
    ASSERT_EQ(read(a.rd, &c, 1), 1);
    expect("error2 ");
    EXPECT_EQ(rqs_mod(a.rd, &record, 0), 0);
    expect("error2 ");
    EXPECT_EQ(rqs_rm_fd(a.rd), 0);
    EXPECT_EQ(rqs_rm_fd(a.rd, 1, 2), -1);
    EXPECT_EQ(rqs_fd_count(RQS_POLL_FDS), 0u);

    ASSERT_EQ(rqs_add_writer(b.wr, &record), 0);
    expect("write0 ");
    close(b.rd);
    expect("write1 ");
    b.rd = dup(b.wr);
    EXPECT_EQ(rqs_rm_fd(b.wr), 0);
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    ASSERT_EQ(rqs_add_reader(pair[0], &record), 0);
    ASSERT_EQ(rqs_mod(pair[0], &record, RQS_READ | RQS_WRITE), 0);
    EXPECT_TRUE(log.has("rqs_mod: fd=" + std::to_string(pair[0]) + " RW\n"));
    expect("write0 ");
    ASSERT_EQ(write(pair[1], "x", 1), 1);
    expect("read0 "); // one callback per event
    rqs_rm_fd(pair[0]);
    close(pair[0]);
    close(pair[1]);
}

TEST_F(Rqs, StagesOfAPassAndWhatEndsIt) {
    Pipe pipes[3];
    for (Pipe &p : pipes) {
        ASSERT_EQ(rqs_add_reader(p.rd, &p), 0);
        p.fill();
    }
    ssize_t slot;
    rqs_add_nopoll_writer(99, &slot, nullptr);
    EXPECT_EQ(rqs_fd_count(RQS_ALL_FDS), 4u);
    // Once before the first pass, then: time-out, wait, time-outs, no-poll, events, post, idle, post.
    EXPECT_EQ(run(2), -7);
    EXPECT_EQ(g_script.trace, "UUTwrrrpipUTwrrrpi");
    struct {
        int failing, rc; // bits of the pipes whose callback fails
        const char *trace;
    } cases[] = {{2, 1, "UUTwrrrp"}, {5, 2, "UUTwrrrp"}, {7, 3, "UUTwrrrp"}};
    for (auto &c : cases) {
        g_script.on_event = [&](const char *, long, int, void *udata) {
            return udata && c.failing >> (static_cast<Pipe *>(udata) - pipes) & 1 ? -5 : 0;
        };
        EXPECT_EQ(run(2), c.rc);
        EXPECT_EQ(g_script.trace, c.trace);
    }
    g_script.on_event = nullptr;
    for (int failing : {1, 2}) { // after the events, after the idle work
        int calls = 0;
        g_script.on_post = [&] { return ++calls == failing ? 9 : 0; };
        EXPECT_EQ(run(2), 9);
        EXPECT_EQ(g_script.trace, failing == 1 ? "UUTwrrrp" : "UUTwrrrpip");
    }
    g_script.on_post = nullptr;
    g_script.on_event = [](const char *kind, long, int, void *) { return kind[0] == 'w' ? -3 : 0; };
    EXPECT_EQ(run(2), -3);
    EXPECT_EQ(g_script.trace, "UUTw"); // a failing no-poll record ends it at once
    EXPECT_TRUE(log.has("(ERR)  serve_nopoll: FAILED(-3)\n"));
}

TEST_F(Rqs, NopollRecordsAreServedWithoutWaiting) {
    ssize_t slots[4] = {};
    std::string seen;
    g_script.tmout = {-1, 0}; // the wait would not end
    g_script.on_event = [&](const char *kind, long word, int err, void *udata) {
        EXPECT_EQ(err, 0);
        seen += kind[0] + std::to_string(word);
        auto i = static_cast<ssize_t *>(udata) - slots;
        if (i == 0) { // defers its own removal and takes the next one out at once
            rqs_pprm_nopoll(slots[0]);
            EXPECT_EQ(slots[0], 0);
            rqs_rm_nopoll(slots[1]);
            EXPECT_EQ(slots[1], -1);
        }
        if (i == 2 && seen.size() < 10)
            rqs_add_nopoll_reader(13, &slots[3], &slots[3]); // grown while it is walked
        return 0;
    };
    for (long i = 0; i < 3; ++i)
        ASSERT_EQ((i == 2 ? rqs_add_nopoll_writer : rqs_add_nopoll_reader)(static_cast<int>(10 + i),
                                                                           &slots[i], &slots[i]),
                  0);
    EXPECT_EQ(slots[2], 2);
    EXPECT_EQ(run(2), -7);
    // The freed slot 1 is behind the walk when it is taken again.
    EXPECT_EQ(seen, "r10w12r13w12");
    EXPECT_EQ(g_script.trace, "Urwpiprwpi");
    EXPECT_EQ(slots[0], -1);
    EXPECT_EQ(slots[3], 1);
    EXPECT_EQ(rqs_fd_count(RQS_NOPOLL_FDS), 2u);
    // Deferred from post-processing: gone before the pass ends.
    g_script.on_event = nullptr;
    g_script.on_post = [&] {
        if (slots[2] >= 0 && g_script.trace.find('i') == std::string::npos)
            rqs_pprm_nopoll(slots[2]);
        return 0;
    };
    g_script.on_idle = [&] { return slots[2] == -1 ? -7 : -8; };
    g_script.trace.clear();
    EXPECT_EQ(rqs_event_loop(), -7);
    // Many of them.
    std::vector<ssize_t> many(100);
    for (ssize_t &slot : many)
        rqs_add_nopoll_reader(1, &slot, &slot);
    g_script.on_post = nullptr;
    g_script.on_event = [](const char *, long, int, void *udata) {
        rqs_pprm_nopoll(*static_cast<ssize_t *>(udata));
        return 0;
    };
    EXPECT_EQ(run(), -7);
    EXPECT_EQ(std::count(many.begin(), many.end(), -1), 100);
    EXPECT_EQ(rqs_fd_count(RQS_NOPOLL_FDS), 0u);
    EXPECT_DEATH(rqs_rm_nopoll(0), "");
    EXPECT_DEATH(rqs_fd_count(3), "");
}

TEST_F(Rqs, FileWatches) {
    TempDir dir;
    std::string path = dir / "watched", other = dir / "other";
    write_file(path, "1");
    write_file(other, "1");
    int records[2];
    int flags = 0, calls = 0;
    g_script.on_event = [&](const char *, long, int flag, void *udata) {
        EXPECT_EQ(udata, &records[0]);
        ++calls;
        flags |= flag;
        return 0;
    };
    EXPECT_EQ(rqs_add_file_watch(&records[0], (dir / "none").c_str()), -1);
    EXPECT_TRUE(log.has("ERROR(2)"));
    int wd = rqs_add_file_watch(&records[0], path.c_str());
    int wd2 = rqs_add_file_watch(&records[1], other.c_str());
    ASSERT_GT(wd, 0);
    ASSERT_GT(wd2, 0);
    EXPECT_EQ(rqs_fd_count(RQS_POLL_FDS), 1u);
    struct {
        std::function<void()> action;
        int flags;
    } cases[] = {{[&] { write_file(path, "22"); }, 0},
                 {[&] { chmod(path.c_str(), 0600); }, RQS_FILE_ATTRIB},
                 {[&] { rename(path.c_str(), (path + "2").c_str()); }, RQS_FILE_GONE | RQS_FILE_MOVED},
                 {[&] { unlink((path + "2").c_str()); }, RQS_FILE_ATTRIB | RQS_FILE_GONE | RQS_FILE_DELETED}};
    for (auto &c : cases) {
        flags = calls = 0;
        c.action();
        EXPECT_EQ(run(), -7);
        EXPECT_GT(calls, 0) << c.flags;
        EXPECT_EQ(flags, c.flags);
    }
    EXPECT_EQ(RQS_FILE_GONE | RQS_FILE_MOVED | RQS_FILE_DELETED | RQS_FILE_ATTRIB, 0x70004);
    EXPECT_TRUE(log.has("IN_IGNORED (0x8000)\n"));
    EXPECT_EQ(rqs_rm_file_watch(wd), -1); // the kernel dropped it with its file
    EXPECT_EQ(rqs_fd_count(RQS_POLL_FDS), 1u);
    EXPECT_EQ(rqs_rm_file_watch(wd2 + 7), -1);
    EXPECT_EQ(rqs_rm_file_watch(wd2), 0);
    EXPECT_EQ(rqs_fd_count(RQS_POLL_FDS), 0u);

    // A file has one watch.
    wd = rqs_add_file_watch(&records[0], other.c_str());
    ASSERT_GT(wd, 0);
    EXPECT_EQ(rqs_add_file_watch(&records[1], other.c_str()), -1);
    EXPECT_TRUE(log.has("key wfd=" + std::to_string(wd) + " is already taken ["));
}

TEST_F(Rqs, TimeOutsInMilliseconds) {
    struct {
        timespec tmout;
        int ms;
    } cases[] = {{{-1, 0}, -1},
                 {{0, -1}, -1},
                 {{0, 0}, 0},
                 {{0, 999999}, 0},
                 {{3, 1000000}, 3001},
                 {{INT_MAX / 1000, 647000000}, INT_MAX},
                 {{INT_MAX / 1000, 648000000}, INT_MAX},
                 {{LONG_MAX, 0}, INT_MAX}};
    for (auto &c : cases)
        EXPECT_EQ(rqs_tmout_ms(c.tmout), c.ms) << c.tmout.tv_sec << "." << c.tmout.tv_nsec;

    // With nothing registered the time-out alone drives the passes; the clock moves on with them.
    timespec before = rqs_now(), after;
    g_script.tmout = {0, 2000000};
    EXPECT_EQ(run(3), -7);
    EXPECT_EQ(g_script.trace, "UUTpipUTpipUTpi");
    rqs_set_now(&after);
    EXPECT_FALSE(timed_out(before, {60, 0}));
    EXPECT_TRUE(timed_out(before, {0, 4000000}));
    EXPECT_EQ(rqs_now_ref()->tv_nsec, after.tv_nsec);
}

TEST_F(Rqs, NothingToDo) {
    start(1);
    EXPECT_EQ(run(3), 0);
    EXPECT_EQ(g_script.trace, "U");
    EXPECT_TRUE(log.has("(CRI)  rqs_event_loop: no fd's, no activity, quitting now.\n"));
    ssize_t slot;
    rqs_add_nopoll_reader(5, &slot, nullptr);
    EXPECT_EQ(run(2), -7);
    rqs_rm_nopoll(slot);
    Pipe p;
    rqs_add_reader(p.rd, &p);
    EXPECT_EQ(run(2), -7);
    start(1, [] { return false; });
    EXPECT_EQ(run(2), -7);
}

TEST_F(Rqs, SignalsDuringTheWait) {
    struct sigaction hup {
    }, term{}, old_hup, old_term;
    hup.sa_handler = [](int) { g_hup = 1; };
    term.sa_handler = [](int) { g_quit = 1; };
    sigaction(SIGHUP, &hup, &old_hup);
    sigaction(SIGTERM, &term, &old_term);
    Pipe idle, busy;
    rqs_add_reader(idle.rd, &idle);
    g_script.tmout = {-1, 0};

    // Before the loop looked at the flags: the wait does not sleep.
    g_hup = 1;
    EXPECT_EQ(run(1), -7);
    g_hup = 0;
    // Raised in a callback: held back until the wait, which it interrupts and the loop survives.
    int passes = 0;
    g_script.on_idle = [&] {
        EXPECT_EQ(g_hup, passes);
        if (++passes == 2)
            return -7;
        raise(SIGHUP);
        EXPECT_EQ(g_hup, 0);
        return 0;
    };
    g_script.tmout = {0, 0};
    g_script.on_post = [] {
        g_script.tmout = {-1, 0};
        return 0;
    };
    EXPECT_EQ(rqs_event_loop(), -7);
    EXPECT_EQ(passes, 2);
    EXPECT_TRUE(log.has("wait4events interrupted, quit=0\n"));
    g_script.on_post = nullptr;

    // Events, then no-poll records, that never let the wait sleep.
    ssize_t slot;
    for (bool is_nopoll : {false, true}) {
        rqs_destroy();
        start(0);
        if (is_nopoll) {
            rqs_add_nopoll_reader(5, &slot, nullptr);
        } else {
            rqs_add_reader(busy.rd, &busy);
            busy.fill();
        }
        g_hup = 0;
        timespec begin = rqs_now();
        g_script.on_idle = [&] { return g_hup ? -7 : timed_out(begin, {10, 0}) ? -8 : 0; };
        sigset_t set, old;
        sigemptyset(&set);
        sigaddset(&set, SIGHUP);
        bool is_raised = false;
        g_script.on_event = [&](const char *, long, int, void *) {
            if (!is_raised)
                raise(SIGHUP);
            is_raised = true;
            return 0;
        };
        sigprocmask(SIG_UNBLOCK, &set, &old);
        EXPECT_EQ(rqs_event_loop(), -7) << "is_nopoll " << is_nopoll;
        g_script.on_event = nullptr;
    }
    g_hup = 0;

    // A quit signal ends it with 0, in the wait or before.
    g_script.tmout = {-1, 0};
    rqs_destroy();
    start(0);
    rqs_add_reader(busy.rd, &busy);
    g_script.on_event = [&](const char *, long, int, void *) {
        char c;
        EXPECT_EQ(read(busy.rd, &c, 1), 1);
        raise(SIGTERM);
        EXPECT_EQ(g_quit, 0);
        return 0;
    };
    g_script.on_idle = [] { return 0; };
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(g_quit, 1);
    g_script.trace.clear();
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_EQ(g_script.trace, "U");
    EXPECT_TRUE(log.has("Exiting event loop, 0 failed, rc=0, quit=1\n"));
    sigset_t left;
    sigprocmask(SIG_BLOCK, nullptr, &left);
    EXPECT_FALSE(sigismember(&left, SIGTERM));
    sigaction(SIGHUP, &old_hup, nullptr);
    sigaction(SIGTERM, &old_term, nullptr);
}

TEST_F(Rqs, AnyNumberAndAnyCountOfDescriptors) {
    rlimit old;
    getrlimit(RLIMIT_NOFILE, &old);
    rlimit high = {old.rlim_max, old.rlim_max};
    setrlimit(RLIMIT_NOFILE, &high);
    Pipe p;
    p.fill();
    std::vector<int> fds;
    size_t served = 0;
    g_script.on_event = [&](const char *, long word, int, void *) {
        served += word > 1024;
        return 0;
    };
    for (size_t count : {1, 15, 20, 2000}) {
        while (fds.size() < count) {
            fds.push_back(fcntl(p.rd, F_DUPFD, 1025));
            ASSERT_GT(fds.back(), 1024);
            ASSERT_EQ(rqs_add_reader(fds.back(), nullptr), 0);
        }
        served = 0;
        log.take();
        EXPECT_EQ(run(), -7);
        EXPECT_EQ(served, count);
        bool is_full = log.take().find("(WRN)  wait4events: all event slots populated") != std::string::npos;
        EXPECT_EQ(is_full, count >= 20) << count;
    }
    for (int fd : fds) {
        ASSERT_EQ(rqs_rm_fd(fd), 0);
        close(fd);
    }
    setrlimit(RLIMIT_NOFILE, &old);
}

TEST_F(Rqs, RemovedDescriptorsAreSilentThoughADuplicateLives) {
    Pipe p;
    int fd = dup(p.rd);
    ASSERT_EQ(rqs_add_reader(fd, &p), 0);
    EXPECT_EQ(rqs_rm_fd(fd), 0);
    close(fd);
    p.fill();
    EXPECT_EQ(run(2), -7);
    EXPECT_EQ(g_script.trace, "UUTpipUTpi");

    // Closed: removing is no failure, registering is a programming error; closing again is fine.
    rqs_add_reader(p.rd, &p);
    rqs_destroy();
    rqs_destroy();
    EXPECT_EQ(rqs_rm_fd(p.rd), 0);
    EXPECT_EQ(rqs_fd_count(RQS_ALL_FDS), 0u);
    EXPECT_DEATH(rqs_add_reader(p.rd, &p), "loopfd >= 0");
    EXPECT_DEATH(rqs_event_loop(), "loopfd >= 0");
    EXPECT_DEATH(rqs_init(nullptr), "config");
    start(0);
    EXPECT_EQ(rqs_fd_count(RQS_ALL_FDS), 0u);
}

} // namespace
