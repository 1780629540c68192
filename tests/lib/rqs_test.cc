#include "lib/rqs.h"

#include "lib/sigflag.h"
#include "lib/timeop.h"
#include "tests/capture.h"

#include <functional>
#include <utility>

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
    void close_wr() { close(std::exchange(wr, -1)); }
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
    void start(int quit_on_zero_fds) {
        rqs_destroy();
        rqs_config config = {CALLBACKS, quit_on_zero_fds};
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
        seen += udata == &record ? kind + std::to_string(err) + " "
                                 : std::string(kind) + "#" + std::to_string(word) + " ";
        return 0;
    };
    auto expect = [&](const std::string &what) {
        seen.clear();
        EXPECT_EQ(run(), -7);
        EXPECT_EQ(seen, what);
    };
    ASSERT_EQ(rqs_add_reader(a.rd, &record), 0);
    EXPECT_EQ(rqs_add_reader(a.rd, &record), -1);
    EXPECT_EQ(rqs_fd_count(RQS_POLL_FDS), 1u);
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
    EXPECT_EQ(rqs_mod(a.rd, &record, 0), 0);
    expect("error2 ");
    EXPECT_EQ(rqs_rm_fd(a.rd), 0);
    EXPECT_EQ(rqs_fd_count(RQS_POLL_FDS), 0u);
    ASSERT_EQ(rqs_add_writer(b.wr, &record), 0);
    expect("write0 ");
    EXPECT_EQ(rqs_rm_fd(b.wr), 0);
    // With nothing registered the wait still has room for an event.
    expect("");
}

TEST_F(Rqs, StagesOfAPassAndWhatEndsIt) {
    Pipe pipes[3];
    for (Pipe &p : pipes) {
        ASSERT_EQ(rqs_add_reader(p.rd, &p), 0);
        p.fill();
    }
    // Once before the first pass, then: time-out, wait, time-outs, events, post, idle, post.
    EXPECT_EQ(run(2), -7);
    EXPECT_EQ(g_script.trace, "UUTrrrpipUTrrrpi");
    for (const auto &[failing, rc] : {std::pair(2, 1), {5, 2}, {7, 3}}) { // bits of the pipes that fail
        g_script.on_event = [&](const char *, long, int, void *udata) {
            return failing >> (static_cast<Pipe *>(udata) - pipes) & 1 ? -5 : 0;
        };
        EXPECT_EQ(run(2), rc);
        EXPECT_EQ(g_script.trace, "UUTrrrp");
    }
    g_script.on_event = nullptr;
    g_script.on_post = [] { return g_script.trace.ends_with("ip") ? 9 : 0; };
    EXPECT_EQ(run(2), 9);
    g_script.on_post = nullptr;
    start(1);
    EXPECT_EQ(run(3), 0) << "told to quit with nothing left to do";
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
    g_script.on_post = nullptr;

    // Events that never let the wait sleep.
    start(0);
    rqs_add_reader(busy.rd, &busy);
    busy.fill();
    g_hup = 0;
    timespec begin = rqs_now();
    bool is_raised = false;
    g_script.on_idle = [&] { return g_hup ? -7 : timed_out(begin, {10, 0}) ? -8 : 0; };
    g_script.on_event = [&](const char *, long, int, void *) {
        return is_raised ? 0 : (is_raised = true, raise(SIGHUP));
    };
    EXPECT_EQ(rqs_event_loop(), -7);
    g_hup = 0;

    // A quit signal ends it with 0.
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
    sigset_t left;
    sigprocmask(SIG_BLOCK, nullptr, &left);
    EXPECT_FALSE(sigismember(&left, SIGTERM));
    sigaction(SIGHUP, &old_hup, nullptr);
    sigaction(SIGTERM, &old_term, nullptr);
}

} // namespace
