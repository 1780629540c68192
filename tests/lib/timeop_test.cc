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

TEST_F(Timeop, FormatsSizesAndTheWayBack) {
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
        {"XST-2", T, 0, TF_GMT | TF_NO_USEC, "2024-02-29 12:34:56 XST"},
        {"EST5EDT,M3.2.0,M11.1.0", T + 20000000, 1000, TF_LOCAL, "2024-10-17 20:08:16.000001 EDT"},
        {"UTC0", 0, 0, TF_GMT, "1970-01-01 00:00:00.000000 UTC"},
        {"UTC0", 0, 5000, TF_RAW, "0.000005"},
        {"UTC0", T, 999999999, TF_RAW | TF_NO_USEC, "1709210096.999999"}};
    for (auto &c : cases) {
        zone(c.tz);
        char buf[64];
        size_t len = strlen(c.text);
        ASSERT_EQ(mk_timestr(at(c.sec, c.nsec), c.flags, buf, len + 1), static_cast<int>(len)) << c.text;
        EXPECT_STREQ(buf, c.text);
        std::string complaint =
            printed([&] { EXPECT_EQ(mk_timestr(at(c.sec, c.nsec), c.flags, buf, len), -1) << c.text; });
        if (!(c.flags & TF_RAW)) {
            EXPECT_EQ(complaint, "mk_timestr: timestamp buffer needs " + std::to_string(len) +
                                     " bytes, only " + std::to_string(len) + " provided\n");
        }
        std::string line = std::string(c.text) + " (ERR)";
        timespec back{};
        size_t stamp = c.flags & TF_RAW ? len + 1 : line.find(' ', 11) + 1;
        ASSERT_EQ(scan_log_time(line.c_str(), c.flags, &back), static_cast<int>(stamp)) << line;
        EXPECT_EQ(back.tv_sec, c.sec) << line;
        bool has_usec = c.flags & TF_RAW || !(c.flags & TF_NO_USEC);
        EXPECT_EQ(back.tv_nsec, has_usec ? c.nsec / 1000 * 1000 : 0) << line;
    }
    std::string complaint = printed([&] {
        char buf[64];
        EXPECT_EQ(mk_timestr(at(LONG_MAX, 0), TF_GMT, buf, sizeof(buf)), -1);
    });
    EXPECT_EQ(complaint.find("gmtime_r/localtime_r: "), 0u) << complaint;
}

static std::string g_reported;

TEST_F(Timeop, TextsThatAreNoTime) {
    zone("UTC0");
    timeop_set_reporter([](const char *message) { g_reported += message; });
    struct {
        const char *text;
        uint32_t flags;
    } cases[] = {{"", TF_RAW},
                 {"12 ", TF_RAW},
                 {"12.", TF_RAW},
                 {"x.000001 ", TF_RAW},
                 {"2024-02-29 12:34 ", TF_GMT},
                 {"2024-02-29 12:34:56 ", TF_GMT},
                 {"2024-02-29 12:34:56.", TF_GMT},
                 {"2024-02-29 12:34:56", TF_GMT | TF_NO_USEC},
                 {"2024-02-29 12:34:56.000001 ", TF_GMT | TF_NO_USEC},
                 {"1969-12-31 23:59:59 ", TF_GMT | TF_NO_USEC}};
    for (auto &c : cases) {
        g_reported.clear();
        timespec ts = at(7, 7);
        EXPECT_EQ(scan_log_time(c.text, c.flags, &ts), -1) << c.text;
        EXPECT_EQ(ts.tv_sec, 7) << c.text;
    }
    EXPECT_EQ(g_reported, "scan_log_time: cannot make time from [1969-12-31 23:59:59 ]\n");
}

TEST_F(Timeop, DeadlinesAtTheirBorders) {
    struct {
        timespec start, span, now;
        bool is_over;
    } cases[] = {{at(10, 0), at(3, 0), at(13, 0), false},
                 {at(10, 0), at(3, 0), at(13, 1), true},
                 {at(10, 999999999), at(0, 1), at(11, 0), false}, // nanoseconds carried
                 {at(10, 999999999), at(0, 1), at(11, 1), true},
                 {at(10, 600000000), at(2, 600000000), at(13, 199999999), false},
                 {at(10, 600000000), at(2, 600000000), at(13, 200000001), true},
                 {at(10, 5), at(0, 0), at(9, 999999999), false},
                 {at(10, 5), at(0, 0), at(11, 0), true}};
    for (auto &c : cases) {
        EXPECT_EQ(timed_out_ext(c.start, c.span, c.now), c.is_over) << c.now.tv_sec << "." << c.now.tv_nsec;
        timeop_set_loop_clock(&c.now);
        EXPECT_EQ(timed_out(c.start, c.span), c.is_over) << c.now.tv_sec << "." << c.now.tv_nsec;
        tspan start{.mode = TSPAN_TIME, .time = c.start}, span{.mode = TSPAN_TIME, .time = c.span},
            now{.mode = TSPAN_TIME, .time = c.now};
        EXPECT_EQ(tspan_timed_out(start, span, now), c.is_over);
    }
    timeop_set_loop_clock(nullptr);
    timespec real, mono;
    set_real_now(&real);
    set_clk_now(&mono, CLOCK_MONOTONIC);
    EXPECT_TRUE(timed_out_real(at(real.tv_sec - 5, 0), at(4, 0)));
    EXPECT_FALSE(timed_out_real(real, at(3600, 0)));
    EXPECT_TRUE(timed_out(at(mono.tv_sec - 5, 0), at(4, 0)));
    EXPECT_FALSE(timed_out(mono, at(3600, 0)));
}

TEST_F(Timeop, CountedSpans) {
    struct {
        uint32_t start, span, now;
        bool is_over;
    } cases[] = {{1, 10, 10, false}, {1, 10, 11, true},         {0, 10, 0, true},
                 {5, 0, 5, true},    {UINT32_MAX, 3, 1, false}, {UINT32_MAX, 3, 2, true}};
    for (auto &c : cases) {
        tspan start, span, now;
        set_tspan(&start, TSPAN_COUNT, c.start);
        set_tspan(&span, TSPAN_COUNT, c.span);
        set_tspan(&now, TSPAN_COUNT, c.now);
        EXPECT_EQ(tspan_timed_out(start, span, now), c.is_over) << c.start << " " << c.now;
    }
    tspan span;
    set_tspan(&span, TSPAN_TIME, 1500);
    EXPECT_EQ(span.time.tv_sec, 1);
    EXPECT_EQ(span.time.tv_nsec, 500000000);
    EXPECT_DEATH(set_tspan(&span, 0, 1), "mode == TSPAN_TIME");
}

TEST_F(Timeop, Conversions) {
    struct {
        int64_t ms;
        timespec ts;
    } spans[] = {{0, {0, 0}},          {999, {0, 999000000}}, {1000, {1, 0}},
                 {3001, {3, 1000000}}, {-1, {-1, 0}},         {INT64_MIN, {-1, 0}}};
    for (auto &c : spans) {
        timespec ts, copy;
        ms2timespec(c.ms, &ts);
        cpy_timespec(&ts, &copy);
        EXPECT_EQ(copy.tv_sec, c.ts.tv_sec) << c.ms;
        EXPECT_EQ(copy.tv_nsec, c.ts.tv_nsec) << c.ms;
    }
    timespec out;
    calc_timespan(at(1, 999999999), at(3, 0), &out);
    EXPECT_EQ(out.tv_sec, 1);
    EXPECT_EQ(out.tv_nsec, 1);
    calc_timespan(at(3, 0), at(1, 1), &out);
    EXPECT_EQ(out.tv_sec, -2);
    EXPECT_EQ(out.tv_nsec, 1);

    struct {
        long seconds;
        const char *text;
    } texts[] = {{0, "00h:00m:00s"},
                 {86399, "23h:59m:59s"},
                 {86400, "01d 00h:00m:00s"},
                 {100L * 86400 + 3661, "100d 01h:01m:01s"}};
    for (auto &c : texts)
        for (size_t size : {2, 5, 12, 32}) {
            char buf[32] = "";
            EXPECT_EQ(mk_timespan(c.seconds, buf, size), static_cast<int>(strlen(c.text))) << size;
            EXPECT_EQ(std::string(c.text).substr(0, size - 1), buf);
        }

    char date[16];
    EXPECT_EQ(mk_gmt_date(T, date, 11), 0);
    EXPECT_STREQ(date, "2024-02-29");
    std::string complaint = printed([&] { EXPECT_EQ(mk_gmt_date(T, date, 10), -1); });
    EXPECT_EQ(complaint, "mk_gmt_date: timestamp buffer needs 10 bytes, only 10 provided\n");
}

TEST_F(Timeop, EndOfTheLocalDay) {
    struct {
        const char *tz;
        time_t t, end;
    } cases[] = {{"UTC0", T, 1709251199},
                 {"UTC0", 1709251199, 1709251199}, // the last second still belongs to its day
                 {"UTC0", 1709251200, 1709251200 + 86399},
                 {"XST-2", T, 1709251199 - 7200},
                 {"XST-14", T, 1709251199 - 14 * 3600 + 86400},
                 // Days of 23 and of 25 hours.
                 {"EST5EDT,M3.2.0,M11.1.0", 1710050400, 1710129599},
                 {"EST5EDT,M3.2.0,M11.1.0", 1730610000, 1730696399}};
    for (auto &c : cases) {
        zone(c.tz);
        EXPECT_EQ(get_endofday_utime(c.t), c.end) << c.tz << " " << c.t;
    }
    std::string complaint = printed([] { EXPECT_EQ(get_endofday_utime(LONG_MAX), -1); });
    EXPECT_EQ(complaint, "get_endofday_utime: localtime_r() FAILED\n");
    char zone_text[16];
    EXPECT_STREQ(get_timezone(LONG_MAX, zone_text, sizeof(zone_text)), "#ERR#");
}
