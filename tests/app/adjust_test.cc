#include "app/adjust.h"

#include "app/pl.h"
#include "tests/app/app_fixture.h"

namespace {

using Adjust = App;

TEST_F(Adjust, LiveWindow) {
    g_cfg.max_live_items = 5;
    pl_source *src = source();
    append(src, std::vector<float>(20, 10));
    pl_task *made = task_of(src, ask("T1 LIV chan"));
    ASSERT_TRUE(made);
    EXPECT_EQ(made->ifirst->mseq, 14u);
    EXPECT_EQ(made->ilast->mseq, 19u);
    append(src, {10, 10, 10});
    EXPECT_EQ(made->ifirst->mseq, 17u);
    EXPECT_EQ(made->ilast->mseq, 22u);
    // From one item on it grows to the limit; a marker, which has its predecessor's number, moves nothing on.
    g_cfg.max_live_items = 6;
    src = source("grow");
    append(src, {10});
    made = task_of(src, ask("T1 LIV grow"));
    for (int n = 0; n < 30; ++n) {
        const pl_item *first = made->ifirst;
        const size_t numbers = made->ilast->mseq - made->ifirst->mseq + 1;
        const bool is_marker = n % 10 == 9;
        append(src, {is_marker ? MARKER : 10.0f});
        EXPECT_EQ(made->ilast, newest_item(src));
        EXPECT_EQ(made->ifirst, numbers + !is_marker > 6 ? newer_item(first) : first) << n;
        EXPECT_LE(made->ilast->mseq - made->ifirst->mseq + 1, n < 9 ? 6u : 7u) << n;
    }
}

TEST_F(Adjust, ANewItemDetachesTheVodTask) {
    pl_source *src = source();
    append(src, {10, 10});
    const std::string before = ask("T1 VOD chan");
    pl_task *made = task_of(src, before);
    const pl_item *last = made->ilast;
    EXPECT_EQ(src->vod_idx, made->idx);
    append(src, {10});
    EXPECT_EQ(src->vod_idx, -1);
    EXPECT_EQ(made->ilast, last);
    EXPECT_EQ(made->pprm_idx, -1);
    EXPECT_NE(ask("T1 VOD chan"), before);
}

// All kinds at once over a list that keeps losing its oldest items, with a playlist written at every step.
TEST_F(Adjust, NoWindowOutlivesItsItems) {
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
    const bool stays[] = {true, false, true, true, true, true, true, false};
    for (size_t n = 0; n < files.size(); ++n)
        EXPECT_EQ(fs::exists(files[n]), stays[n]) << n;
    // Finished ones keep what they wrote, and are found again.
    for (const size_t n : {5u, 6u}) {
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
    EXPECT_EQ(tasks_of(src).size(), 3u) << "the finished ones";
    EXPECT_EQ(ask("T1 LIV chan"), "T1 ERROR HTTP:404 - no items\n");
    append(src, {10});
    EXPECT_TRUE(task_of(src, ask("T1 LIV chan")));
}

TEST_F(Adjust, WhichTasksGoWithTheOldestItem) {
    const struct {
        const char *what;
        uint32_t tag;
        bool is_live;
        long start_time;
        const char *peer;
        bool is_eot;
        size_t first; // before and after
        size_t last;
        ssize_t first_after; // -1 = listed for removal, -2 = without a window
        size_t last_after;
    } cases[] = {
        {"live", PL_LIV, true, 0, nullptr, false, 0, 3, 1, 4},
        {"vod", PL_VOD, false, 0, nullptr, false, 0, 3, -1, 0},
        {"vod behind the oldest", PL_VOD, false, 0, nullptr, false, 1, 3, 1, 3},
        {"event", PL_EVE, false, 1000, nullptr, false, 0, 3, -1, 0},
        {"event behind the oldest", PL_EVE, false, 1000, nullptr, false, 1, 3, 1, 4},
        {"shared shift at the top", PL_EVE, true, 1000, nullptr, false, 0, 3, 1, 4},
        {"shared shift below it", PL_EVE, true, 1000, nullptr, false, 1, 3, 1, 4},
        {"bound, short", PL_EVE, true, 1000, "p", false, 0, 3, 1, 4},
        {"bound, longer than a live window", PL_EVE, true, 1000, "p", false, 1, 3, 2, 4},
        {"bound, below the top", PL_EVE, true, 1000, "p", false, 2, 3, 2, 4},
        {"finished", PL_EVE, true, 1000, nullptr, true, 0, 2, -2, 0},
        {"finished, behind the oldest", PL_EVE, true, 1000, nullptr, true, 1, 2, 1, 2},
    };
    g_cfg.max_live_items = 3;
    for (const auto &one : cases) {
        SCOPED_TRACE(one.what);
        pl_source *src = source("c" + std::to_string(g_ctx.sources.len), "max_sec=100");
        append(src, {20, 20, 20, 20});
        pl_task *made = task(src, one.tag, one.is_live, item(src, one.first), item(src, one.last));
        made->start_time = one.start_time;
        made->is_eot = one.is_eot;
        made->peer_tag = one.peer ? strdup(one.peer) : nullptr;
        append(src, {30}); // s0 goes
        EXPECT_EQ(list_of(src), "s1.ts s2.ts s3.ts s4.ts ");
        EXPECT_EQ(made->pprm_idx >= 0, one.first_after == -1);
        EXPECT_EQ(made->ifirst != nullptr, one.first_after >= 0);
        if (one.first_after >= 0) {
            EXPECT_EQ(made->ifirst->mseq, static_cast<size_t>(one.first_after));
            EXPECT_EQ(made->ilast->mseq, one.last_after);
        }
    }
}

} // namespace
