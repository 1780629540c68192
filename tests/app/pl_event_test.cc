#include "app/pl_event.h"

#include "app/pl.h"
#include "tests/app/app_fixture.h"

#include <random>

namespace {

using PlEvent = App;

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
        }
        expect_windows_in_list(src);
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
        {"T1 EVE chan 1090 0", 8, 8, false},
        {"T1 EVE chan 1000 0", 0, 3, false},
        {"T1 EVE chan 1045 -1", 1, 7, false},
        {"T1 EVE chan 1010 500", 1, 4, false},
        {"T1 EVE chan 1000 20", 0, 8, true},
        {"T1 EVE chan 999 0", -1, 0, false},
        {"T1 EVE chan 1091 0", -1, 0, false},
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
        EXPECT_EQ(made->ifirst->mseq, static_cast<size_t>(one.first));
        EXPECT_EQ(made->ilast->mseq, one.last);
        EXPECT_EQ(made->is_eot, one.is_eot);
        while (!tasks_of(src).empty())
            rm_task(tasks_of(src)[0]);
        EXPECT_EQ(skht_count(src->ev_ht), 0u);
    }
}

TEST_F(PlEvent, WhoSharesATask) {
    start = time(nullptr) - 300;
    const std::string at = "T1 EVE chan " + std::to_string(start + 100) + " ";
    pl_source *src = source();
    append(src, std::vector<float>(30, 10));
    const std::tuple<std::string, std::string, bool> cases[] = {
        {at + "0", at + "0", true},
        {at + "0", at + "-1", true},
        {at + "0 peer=a", at + "0 peer=b", false},
        {at + "0 peer=a", at + "0", false},
        {at + "0 peer=a", at + "0 x=1&peer=a&y=2", true},
        {at + "50 peer=a", at + "50 peer=b", true}, // its end is in the list: bound to nobody
        {at + "0", at + "50", false},
        {"T1 EVE chan -100 60", "T1 EVE chan -100 0", true}, // a shift has no duration
        {"T1 EVE chan -100 0 peer=a", "T1 EVE chan -120 0 peer=a", false},
    };
    for (const auto &[one, other, is_same] : cases) {
        const std::string first = ask(one);
        ASSERT_TRUE(task_of(src, first)) << one << ": " << first;
        EXPECT_EQ(ask(other) == first, is_same) << one << " / " << other;
        while (!tasks_of(src).empty())
            rm_task(tasks_of(src)[0]);
        EXPECT_EQ(skht_count(src->ev_ht), 0u);
    }
}

TEST_F(PlEvent, KeysAreStoredCutAndOwnedOnce) {
    pl_source *src = source();
    append(src, std::vector<float>(9, 10));
    const std::string line = "T1 EVE chan 1040 0 peer="; // "1040:0/" takes 7 characters
    for (const size_t length : {23u, 24u, 48u}) {
        const std::string request = line + std::string(length, 'p');
        const std::string first = ask(request);
        EXPECT_EQ(ask(request) == first, length <= 23) << length;
        EXPECT_EQ(skht_count(src->ev_ht), 1u);
        // Whoever came second goes without a key, and takes nobody's with it.
        while (!tasks_of(src).empty()) {
            rm_task(tasks_of(src).back());
            EXPECT_EQ(skht_count(src->ev_ht), tasks_of(src).empty() ? 0u : 1u);
        }
    }
    // A task that is about to go is not handed out, and its key goes to the next one.
    const std::string old = ask(line + "q");
    pprm_task(task_of(src, old));
    const std::string next = ask(line + "q");
    EXPECT_NE(next, old);
    pprm_task_cleanup();
    EXPECT_EQ(ask(line + "q"), next);
    EXPECT_EQ(assoc_utime(task_of(src, next), 1040, "q"), 0) << "its own key is no failure";
    // A key that another task holds stays where it is.
    pl_task *other = task(src, PL_EVE, true, oldest_item(src), newest_item(src));
    EXPECT_EQ(assoc_utime(other, 1040, "q"), 0);
    EXPECT_EQ(get_assoc_task(src->ev_ht, 1040, 0, "q"), task_of(src, next));
}

} // namespace
