#include "lib/timeop.h"

#include "tests/capture.h"

#include <climits>

class Timeop : public testing::Test {
  protected:
    void SetUp() override { timeop_set_reporter(nullptr); }
    void TearDown() override {
        unsetenv("TZ");
        tzset();
        timeop_set_loop_clock(nullptr);
        timeop_set_reporter(nullptr);
    }
    void zone(const char *name) {
        setenv("TZ", name, 1);
        tzset();
    }
    timespec at(time_t sec, long nsec) { return {.tv_sec = sec, .tv_nsec = nsec}; }
};

static constexpr time_t T = 1709210096; // 2024-02-29 12:34:56 UTC

TEST_F(Timeop, FormatsAndSizes) {
    struct {
        const char *tz;
        time_t sec;
        long nsec;
        uint32_t flags;
        const char *text;
    } cases[] = {
        {"XST-2", T, 987654321, TF_LOCAL, "2024-02-29 14:34:56.987654 XST"},
        {"XST-2", T + 1, 999, TF_LOCAL | TF_NO_USEC, "2024-02-29 14:34:57 XST"},
        {"XST-2", T + 2, 999, TF_GMT, "2024-02-29 12:34:58.000000 XST"}, // the suffix stays the local zone's
        {"EST5EDT,M3.2.0,M11.1.0", T + 20000000, 1000, TF_LOCAL, "2024-10-17 20:08:16.000001 EDT"},
        {"UTC0", 0, 5000, TF_RAW, "0.000005"},
        {"UTC0", T, 999999999, TF_RAW | TF_NO_USEC, "1709210096.999999"}};
    for (auto &c : cases) {
        zone(c.tz);
        char buf[64];
        size_t len = strlen(c.text);
        ASSERT_EQ(mk_timestr(at(c.sec, c.nsec), c.flags, buf, len + 1), static_cast<int>(len)) << c.text;
        EXPECT_STREQ(buf, c.text);
        printed([&] { EXPECT_EQ(mk_timestr(at(c.sec, c.nsec), c.flags, buf, len), -1) << c.text; });
    }
}

TEST_F(Timeop, DeadlinesAtTheirBorders) {
    struct {
        timespec start, span, now;
        bool is_over;
    } cases[] = {{at(10, 0), at(3, 0), at(13, 0), false},
                 {at(10, 0), at(3, 0), at(13, 1), true},
                 {at(10, 999999999), at(0, 1), at(11, 0), false}, // nanoseconds carried
                 {at(10, 999999999), at(0, 1), at(11, 1), true},
                 {at(10, 5), at(0, 0), at(9, 999999999), false}};
    for (auto &c : cases) {
        EXPECT_EQ(timed_out_ext(c.start, c.span, c.now), c.is_over) << c.now.tv_sec << "." << c.now.tv_nsec;
        timeop_set_loop_clock(&c.now);
        EXPECT_EQ(timed_out(c.start, c.span), c.is_over) << c.now.tv_sec << "." << c.now.tv_nsec;
    }
    timespec ts;
    ms2timespec(3001, &ts);
    EXPECT_TRUE(ts.tv_sec == 3 && ts.tv_nsec == 1000000);
    ms2timespec(INT64_MIN, &ts);
    EXPECT_TRUE(ts.tv_sec == -1 && ts.tv_nsec == 0);
}

TEST_F(Timeop, EndOfTheLocalDay) {
    struct {
        const char *tz;
        time_t t, end;
    } cases[] = {{"UTC0", T, 1709251199},
                 {"UTC0", 1709251199, 1709251199}, // the last second still belongs to its day
                 {"UTC0", 1709251200, 1709251200 + 86399},
                 {"XST-14", T, 1709251199 - 14 * 3600 + 86400},
                 // Days of 23 and of 25 hours.
                 {"EST5EDT,M3.2.0,M11.1.0", 1710050400, 1710129599},
                 {"EST5EDT,M3.2.0,M11.1.0", 1730610000, 1730696399}};
    for (auto &c : cases) {
        zone(c.tz);
        EXPECT_EQ(get_endofday_utime(c.t), c.end) << c.tz << " " << c.t;
    }
    printed([] { EXPECT_EQ(get_endofday_utime(LONG_MAX), -1); });
}
