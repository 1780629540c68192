#include "app/pl_event.h"

#include "app/pl.h"
#include "tests/app/app_fixture.h"

#include <cerrno>
#include <random>

namespace {

using PlEvent = App;

TEST_F(PlEvent, ItemAtATime) {
    pl_source *src = source();
    append(src, {10, MARKER, 9.5f, 9.5f, MARKER}); // at 1000, 1010, 1020; the end is rounded up
    const struct {
        long utime;
        const char *path;
    } cases[] = {{999, nullptr},  {1000, "s0.ts"}, {1009, "s0.ts"}, {1010, "s1.ts"},
                 {1019, "s1.ts"}, {1020, "s2.ts"}, {1021, "s2.ts"}, {1030, "s2.ts"},
                 {1031, nullptr}, {0, nullptr},    {-5, nullptr},   {INT64_MAX, nullptr}};
    for (const auto &one : cases) {
        const pl_item *found = get_event_item(src, one.utime);
        ASSERT_EQ(found != nullptr, one.path != nullptr) << one.utime;
        EXPECT_TRUE(!found || !strcmp(found->path, one.path)) << one.utime << ": " << found->path;
    }
    EXPECT_EQ(get_event_item(source("empty"), 1000), nullptr);
}

TEST_F(PlEvent, Steps) {
    pl_source *src = source();
    append(src, {10, 10, MARKER, 10, 10, 10}); // six items
    const size_t depths[] = {0, 1, 2, 2, 1, 0};
    for (size_t n = 0; n < std::size(depths); ++n) {
        EXPECT_EQ(calc_depth(item(src, n), EVENT_DEPTH), depths[n]) << n;
        EXPECT_EQ(calc_depth(item(src, n), 1), depths[n] ? 1u : 0u) << n;
    }
    EXPECT_EQ(step_from(true, item(src, 1), 3), item(src, 4));
    EXPECT_EQ(step_from(false, item(src, 4), 3), item(src, 1));
    EXPECT_EQ(step_from(true, item(src, 4), 9), newest_item(src));
    EXPECT_EQ(step_from(false, item(src, 4), 9), oldest_item(src));
    EXPECT_EQ(step_from(true, item(src, 4), 0), item(src, 4));
}

TEST_F(PlEvent, Stretches) {
    pl_source *src = source();
    append(src, {50, 10, MARKER, 10, 2.5f, 10}); // the first one's own length does not count
    const struct {
        double max_sec;
        size_t reached;
    } cases[] = {{0, 0},    {9.9, 0},  {10, 1},   {10.1, 2}, {20, 3},
                 {22.4, 3}, {22.5, 4}, {32.5, 5}, {1e9, 5},  {-1, 0}};
    for (const auto &one : cases)
        EXPECT_EQ(shift_from(oldest_item(src), one.max_sec), item(src, one.reached)) << one.max_sec;
}

// Measuring on from the last stop finds what measuring anew finds, while the window moves over a list that
// grows at one end and shrinks at the other.
TEST_F(PlEvent, MeasuringOnEqualsMeasuringAnew) {
    std::mt19937 random(7);
    pl_source *src = source("chan", "max_sec=300");
    append(src, {10});
    pl_task *made = task(src, PL_EVE, true, oldest_item(src), newest_item(src));
    made->start_time = 1000;
    made->end_time = 1; // always in reach
    made->duration = 120;
    for (int n = 0; n < 3000; ++n) {
        append(src, {random() % 6 == 0 ? MARKER : static_cast<float>(1 + random() % 200000 * 1e-4)});
        ASSERT_EQ(made->ilast, shift_from(made->ifirst, static_cast<double>(made->duration))) << n;
        ASSERT_EQ(reach_end(made), made->ilast);
        if (random() % 4 == 0 && made->ifirst != newest_item(src)) { // a jump from outside
            made->ifirst = newer_item(made->ifirst);
            made->ilast = reach_end(made);
            ASSERT_EQ(made->ilast, shift_from(made->ifirst, static_cast<double>(made->duration))) << n;
        }
        expect_windows_in_list(src);
    }
}

TEST_F(PlEvent, EndInReach) {
    const struct {
        std::vector<float> durations;
        time_t end;
        bool is_reachable;
    } cases[] = {{{}, 0, false},
                 {{10, 10}, 1019, true},
                 {{10, 10}, 1020, true},
                 {{10, 10}, 1021, false},
                 {{10, 9.5f}, 1020, true},
                 {{10, 9.5f}, 1021, false},
                 {{10, MARKER}, 1010, true},
                 {{10, MARKER}, 1011, false},
                 {{10, 10}, INT64_MAX, false}};
    for (const auto &one : cases) {
        pl_source *src = source("c" + std::to_string(g_ctx.sources.len));
        start = 1000;
        append(src, one.durations);
        EXPECT_EQ(is_eot_reachable(src, one.end), one.is_reachable) << one.end;
    }
}

TEST_F(PlEvent, WindowOfANewTask) {
    pl_source *src = source();
    append(src, std::vector<float>(9, 10)); // 1000..1090
    const struct {
        const char *request;
        ssize_t first; // -1 = no data
        size_t last;
        bool is_eot;
    } cases[] = {
        {"T1 EVE chan 1040 0", 1, 7, false},
        {"T1 EVE chan 1070 0", 6, 8, false},
        {"T1 EVE chan 1080 0", 8, 8, false},
        {"T1 EVE chan 1000 0", 0, 3, false},
        {"T1 EVE chan 1045 -1", 1, 7, false},
        {"T1 EVE chan 1010 500", 1, 4, false},
        {"T1 EVE chan 1010 500 peer=p", 1, 4, false},
        {"T1 EVE chan 1000 20", 0, 8, true},
        {"T1 EVE chan 999 0", -1, 0, false},
        {"T1 EVE chan 1091 0", -1, 0, false},
        {"T1 EVE chan 0 0", -1, 0, false},
        {"T1 EVE chan", -1, 0, false},
        {"T1 EVE chan 9223372036854775807 9223372036854775807", -1, 0, false},
    };
    for (const auto &one : cases) {
        SCOPED_TRACE(one.request);
        const std::string response = ask(one.request);
        const pl_task *made = task_of(src, response);
        ASSERT_EQ(made != nullptr, one.first >= 0) << response;
        if (!made) {
            EXPECT_EQ(response, "T1 ERROR HTTP:404 - no data for the event\n");
            continue;
        }
        EXPECT_EQ(response, "T1 text/M3U " + std::string(made->fpath) + " \n");
        EXPECT_EQ(made->ifirst->mseq, static_cast<size_t>(one.first));
        EXPECT_EQ(made->ilast->mseq, one.last);
        EXPECT_EQ(made->is_eot, one.is_eot);
        while (!tasks_of(src).empty())
            rm_task(tasks_of(src)[0]);
        EXPECT_EQ(skht_count(src->ev_ht), 0u);
    }
    EXPECT_EQ(ask("T1 EVE none 1000 0"), "T1 ERROR HTTP:404 - source not found\n");
}

TEST_F(PlEvent, WhoSharesATask) {
    start = time(nullptr) - 300;
    const std::string at = "T1 EVE chan " + std::to_string(start + 100) + " ";
    pl_source *src = source();
    append(src, std::vector<float>(30, 10));
    const struct {
        std::string first;
        std::string second;
        bool is_same;
    } cases[] = {
        {at + "0", at + "0", true},
        {at + "0", at + "-1", true},
        {at + "0 peer=a", at + "0 peer=a", true},
        {at + "0 peer=a", at + "0 peer=b", false},
        {at + "0 peer=a", at + "0", false},
        {at + "0", at + "0 peer=a", false},
        {at + "50 peer=a", at + "50 peer=b", true}, // its end is in the list: bound to nobody
        {at + "0", at + "50", false},
        {"T1 EVE chan -100 0", "T1 EVE chan -100 0", true},
        {"T1 EVE chan -100 60", "T1 EVE chan -100 0", true}, // a shift has no duration
        {"T1 EVE chan -100 0", "T1 EVE chan -100 0 peer=a", false},
        {"T1 EVE chan -100 0 peer=a", "T1 EVE chan -120 0 peer=a", false},
    };
    for (const auto &one : cases) {
        const std::string first = ask(one.first);
        ASSERT_TRUE(task_of(src, first)) << one.first << ": " << first;
        EXPECT_EQ(ask(one.second) == first, one.is_same) << one.first << " / " << one.second;
        append(src, {10}); // found by their key also after they have moved on
        EXPECT_EQ(ask(one.first), first) << one.first;
        while (!tasks_of(src).empty())
            rm_task(tasks_of(src)[0]);
        EXPECT_EQ(skht_count(src->ev_ht), 0u);
    }
}

TEST_F(PlEvent, KeysAreStoredCutAndOwnedOnce) {
    pl_source *src = source();
    append(src, std::vector<float>(9, 10));
    const std::string line = "T1 EVE chan 1040 0 peer="; // "1040:0/" takes 7 characters
    const struct {
        size_t length; // of the peer's name
        bool is_found_again;
    } cases[] = {{22, true}, {23, true}, {24, false}, {48, false}};
    for (const auto &one : cases) {
        const std::string request = line + std::string(one.length, 'p');
        const std::string first = ask(request);
        EXPECT_EQ(ask(request) == first, one.is_found_again) << one.length;
        EXPECT_EQ(skht_count(src->ev_ht), 1u);
        // Whoever came second goes without a key, and takes nobody's with it.
        while (!tasks_of(src).empty()) {
            rm_task(tasks_of(src).back());
            EXPECT_EQ(skht_count(src->ev_ht), tasks_of(src).empty() ? 0u : 1u);
        }
    }
    // A task that is about to go is not handed out, and its key is not taken over.
    const std::string old = ask(line + "q");
    pprm_task(task_of(src, old));
    const std::string next = ask(line + "q");
    EXPECT_NE(next, old);
    pprm_task_cleanup();
    EXPECT_TRUE(task_of(src, next));
    EXPECT_EQ(skht_count(src->ev_ht), 0u);
    EXPECT_EQ(assoc_utime(task_of(src, next), 1040, "q"), 0);
    EXPECT_EQ(assoc_utime(task_of(src, next), 1040, "q"), 0) << "its own key is no failure";
    EXPECT_EQ(task_of(src, next)->utms.len, 1u);
    EXPECT_EQ(get_assoc_task(src->ev_ht, 1040, 0, "q"), task_of(src, next));
    // A key that another task holds stays where it is.
    pl_task *other = task(src, PL_EVE, true, oldest_item(src), newest_item(src));
    EXPECT_EQ(assoc_utime(other, 1040, "q"), 0);
    EXPECT_EQ(other->utms.len, 0u);
    EXPECT_EQ(get_assoc_task(src->ev_ht, 1040, 0, "q"), task_of(src, next));
}

TEST_F(PlEvent, MatchingTasks) {
    pl_source *src = source();
    append(src, {10, 10});
    pl_task *made = task(src, PL_EVE, true, oldest_item(src), newest_item(src));
    made->end_time = 5;
    char peer[] = "p";
    const struct {
        pl_tspec key;
        char *peer_tag;
        ssize_t pprm_idx;
        int is_match;
    } cases[] = {{{{.num = PL_EVE}, made->ifirst, 5}, nullptr, -1, 1},
                 {{{.num = PL_LIV}, made->ifirst, 5}, nullptr, -1, 0},
                 {{{.num = PL_EVE}, made->ilast, 5}, nullptr, -1, 0},
                 {{{.num = PL_EVE}, made->ifirst, 0}, nullptr, -1, 0},
                 {{{.num = PL_EVE}, made->ifirst, 5}, peer, -1, 0},
                 {{{.num = PL_EVE}, made->ifirst, 5}, nullptr, 0, 0}};
    for (auto one : cases) {
        made->peer_tag = one.peer_tag;
        made->pprm_idx = one.pprm_idx;
        EXPECT_EQ(match_task(src->tasks.data, 0, &one.key), one.is_match);
    }
    made->peer_tag = nullptr;
    made->pprm_idx = -1;
}

} // namespace
