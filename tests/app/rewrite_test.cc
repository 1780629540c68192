#include "app/rewrite.h"

#include "tests/app/app_fixture.h"

namespace {

// Events over more items than are rewritten at once, the first one asked for last, and a live playlist.
class Rewrite : public App {
  protected:
    void SetUp() override {
        App::SetUp();
        g_cfg.refresh_pl_files = true;
        src = source();
        append(src, std::vector<float>(300, 2));
        ask("T1 LIV chan");
        for (int n = 0; n < COUNT; ++n)
            ask(request(n));
        ASSERT_EQ(src->tasks.len, COUNT + 1u);
        for (int n = 0; n < COUNT; ++n)
            event(n)->last_io_time -= n;
        append(src, {2});
    }
    static std::string request(int n) { return "T1 EVE chan " + std::to_string(1100 + 2 * n) + " 0"; }
    pl_task *event(int n) { return src_task(src, n + 1); }
    bool is_fresh(const pl_task *one) {
        return read_file(one->fpath).find(newest_item(src)->path) != std::string::npos;
    }
    // Passes of the loop until nothing waits.
    void work_off() {
        for (int pass = 0; get_timeout(TMO_REWRITE) > 0 && pass < 20000; ++pass) {
            rewrite_step();
            usleep(100);
        }
        EXPECT_EQ(get_timeout(TMO_REWRITE), 0);
    }

    static constexpr int COUNT = 100;
    pl_source *src = nullptr;
};

TEST_F(Rewrite, ShortOnesAtOnceLongOnesAskedForLastFirst) {
    EXPECT_TRUE(is_fresh(src_task(src, src->live_idx)));
    EXPECT_GT(get_timeout(TMO_REWRITE), 0) << "the loop would sleep";
    for (int n = 0; n < COUNT; ++n)
        ASSERT_FALSE(is_fresh(event(n))) << n;
    rewrite_step();
    EXPECT_TRUE(is_fresh(event(0)));
    for (int n = 1; n < COUNT; ++n)
        EXPECT_LE(is_fresh(event(n)), is_fresh(event(n - 1))) << n;
    append(src, {2});
    ask(request(COUNT - 1));
    EXPECT_TRUE(is_fresh(event(COUNT - 1))) << "an answer names no stale file";
    work_off();
    for (int n = 0; n < COUNT; ++n)
        EXPECT_TRUE(is_fresh(event(n))) << n;
}

TEST_F(Rewrite, TasksMayGoWhileTheyWait) {
    for (int n = 0; n < COUNT; n += 2)
        pprm_task(event(n));
    pprm_task(event(1));
    for (int n = 0; n < COUNT; n += 2)
        rm_task(event(n));
    ask("T1 VOD chan");
    ASSERT_EQ(src->vod_idx, 1) << "a slot that is named in the queue";
    pl_source *other = source("other");
    append(other, {2});
    work_off();
    EXPECT_FALSE(is_fresh(event(1))) << "it goes at the end of the pass";
    EXPECT_TRUE(is_fresh(event(3)));
    append(src, {2});
    xvlst_del(&g_ctx.sources, static_cast<size_t>(src->idx), rm_src_rec);
    rewrite_step();
    work_off();
}

} // namespace
