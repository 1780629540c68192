#include "app/adjust.h"

#include "app/pl.h"
#include "tests/app/app_fixture.h"

namespace {

// Strict or not: a live window that is long enough holds the same items, and no kind's may outlive them.
class Adjust : public App, public ::testing::WithParamInterface<bool> {
    void SetUp() override {
        App::SetUp();
        g_cfg.strict_hls = GetParam();
    }
};
INSTANTIATE_TEST_SUITE_P(Styles, Adjust, ::testing::Bool());

TEST_P(Adjust, LiveWindow) {
    // From one item on it grows to the limit; a marker, which has its predecessor's number, moves nothing on.
    g_cfg.max_live_items = 6;
    pl_source *src = source();
    append(src, {10});
    pl_task *made = task_of(src, ask("T1 LIV chan"));
    for (int n = 0; n < 30; ++n) {
        const pl_item *first = made->ifirst;
        const size_t numbers = made->ilast->mseq - made->ifirst->mseq + 1;
        const bool is_marker = n % 10 == 9;
        append(src, {is_marker ? MARKER : 10.0f});
        EXPECT_EQ(made->ilast, newest_item(src));
        EXPECT_EQ(made->ifirst, numbers + !is_marker > 6 ? newer_item(first) : first) << n;
    }
}

// All kinds at once over a list that keeps losing its oldest items, with a playlist written at every step.
TEST_P(Adjust, NoWindowOutlivesItsItems) {
    g_cfg.refresh_pl_files = true;
    pl_source *src = source("chan", "max_sec=100");
    append(src, std::vector<float>(10, 10));
    const char *const lines[] = {
        "T1 LIV chan",                 // moves on
        "T1 VOD chan",                 // goes
        "T1 EVE chan 1000 0",          // shared: moves on from the top
        "T1 EVE chan 1040 0 peer=p",   // rolls
        "T1 EVE chan 1000 150 peer=q", // rolls until its end comes into reach
        "T1 EVE chan 1000 40",         // ends within the list
        "T1 EVE chan 1050 70",         // ends later
    };
    std::vector<std::string> files;
    for (const char *line : lines) {
        const std::string response = ask(line);
        ASSERT_TRUE(task_of(src, response)) << line << ": " << response;
        files.push_back(task_of(src, response)->fpath);
    }
    // Event tasks of the other sort, over all items.
    pl_task *fixed = task(src, PL_EVE, false, oldest_item(src), newest_item(src));
    ASSERT_EQ(mk_playlist(fixed), 0);
    files.push_back(fixed->fpath);
    for (int n = 0; n < 40; ++n) {
        append(src, {n % 4 == 3 ? MARKER : n % 7 == 5 ? 35.5f : 10.0f});
        expect_windows_in_list(src);
        if (n % 9 == 8)
            pprm_task_cleanup();
    }
    pprm_task_cleanup();
    const bool has_done = !GetParam(); // strict ones go with their first segment
    const bool stays[] = {true, false, true, true, has_done, has_done, has_done, false};
    for (size_t n = 0; n < files.size(); ++n)
        EXPECT_EQ(fs::exists(files[n]), stays[n]) << n;
    // Finished ones keep what they wrote, and are found again.
    for (size_t n = 5; has_done && n < 7; ++n) {
        pl_task *done = task_of(src, files[n]);
        ASSERT_TRUE(done && done->is_eot);
        EXPECT_TRUE(!done->ifirst && !done->ilast);
        EXPECT_NE(read_file(files[n]).find("#EXT-X-ENDLIST\n"), std::string::npos);
        EXPECT_NE(ask(lines[n]).find(files[n]), std::string::npos);
    }
    // One segment longer than the playback depth leaves nothing to list.
    append(src, {1.1e-10f, 101}); // sums that rounding would leave a rest of
    EXPECT_EQ(dlep_count(src->items), 0u);
    EXPECT_EQ(src->total_sec, 0);
    EXPECT_EQ(src->live_idx, -1);
    expect_windows_in_list(src);
    pprm_task_cleanup();
    EXPECT_EQ(tasks_of(src).size(), has_done ? 3u : 0u) << "the finished ones";
    EXPECT_EQ(ask("T1 LIV chan"), "T1 ERROR HTTP:404 - no items\n");
    append(src, {10});
    EXPECT_TRUE(task_of(src, ask("T1 LIV chan")));
}

} // namespace
