#include "app/expiry.h"

#include "app/retry.h"
#include "lib/tmout.h"
#include "tests/app/app_fixture.h"

#include <sys/stat.h>

namespace {

using Expiry = App;

void touch(const pl_task *task, time_t mtime) {
    const timespec times[2] = {{mtime, 0}, {mtime, 0}};
    ASSERT_EQ(futimens(task->lkfd, times), 0);
}

TEST_F(Expiry, LockFileAge) {
    pl_source *src = source();
    append(src, {10, 10});
    const std::pair<long, bool> cases[] = {{15, false}, {20, true}, {-86400, false}};
    for (const auto &[age, has_expired] : cases)
        for (const bool has_file : {true, false}) { // without one, the last answer counts
            pl_task *made = task(src, PL_LIV, true, oldest_item(src), newest_item(src));
            ASSERT_EQ(has_file ? mk_playlist(made) : 0, 0);
            const std::string fpath = made->fpath;
            made->lk_tmout_sec = 20;
            made->last_io_time = time(nullptr) - age;
            if (has_file)
                touch(made, made->last_io_time);
            EXPECT_EQ(task_xpire(made), 0);
            EXPECT_EQ(made->pprm_idx >= 0, has_expired) << age;
            EXPECT_LE(made->last_io_time, time(nullptr)) << "no touch lies ahead";
            pprm_task_cleanup();
            EXPECT_EQ(tasks_of(src).empty(), has_expired);
            EXPECT_EQ(fs::exists(fpath), has_file && !has_expired);
            if (!has_expired)
                rm_task(made);
        }
    // A lock file whose status cannot be read expires its task.
    pl_task *made = task(src, PL_LIV, true, oldest_item(src), newest_item(src));
    made->lkfd = 1 << 20;
    EXPECT_EQ(task_xpire(made), 0);
    EXPECT_GE(made->pprm_idx, 0);
    expect_logged("on I/O error");
}

TEST_F(Expiry, IdleTimeStartsAnewWhenTheClockIsSet) {
    set_clock(5000);
    pl_source *src = source();
    append(src, {10, 10});
    for (const long step : {3600L, -3600L})
        for (const bool is_touched : {false, true}) {
            SCOPED_TRACE(step);
            set_clock(5000);
            pl_task *made = task(src, PL_LIV, true, oldest_item(src), newest_item(src));
            ASSERT_EQ(mk_playlist(made), 0);
            made->lk_tmout_sec = 20;
            touch(made, time(nullptr) - step - 15); // in good time, before the step
            g_ctx.wall_lead_ms -= step * 1000;
            // Where a second touch came, only its own age counts.
            const std::pair<long, bool> looks[] = {{0, true}, {19, true}, {20, is_touched}};
            for (const auto &[later, is_alive] : looks) {
                set_clock(5000 + later);
                if (is_touched && later > 0)
                    touch(made, time(nullptr) - 15);
                schedule_time_out();
                time_out_src_tasks();
                EXPECT_EQ(made->pprm_idx < 0, is_alive) << later;
            }
            EXPECT_EQ(rm_task(made), 0);
            pprm_task_cleanup();
        }
}

// As long as it lives, no file of the test's directory can be deleted.
struct no_permission {
    std::string dir;
    explicit no_permission(const std::string &path) : dir(path) {
        fs::permissions(dir, fs::perms::owner_read | fs::perms::owner_exec);
        EXPECT_EQ(geteuid() ? 0 : seteuid(65534), 0);
    }
    ~no_permission() {
        EXPECT_EQ(getuid() ? 0 : seteuid(0), 0);
        fs::permissions(dir, fs::perms::owner_all);
    }
};

TEST_F(Expiry, WhatCannotBeDeletedIsTriedAgain) {
    pl_source *src = source("chan", "max_sec=100");
    append(src, {60});
    write_file(dir + "/s0.ts", "0");
    write_file(dir + "/s1.ts", "1");
    pl_task *made = task(src, PL_LIV, true, newest_item(src), newest_item(src));
    ASSERT_EQ(mk_playlist(made), 0);
    const std::string fpath = made->fpath;
    const std::string lpath = made->lpath;
    auto sweep = [&] {
        schedule_time_out();
        time_out_src_tasks();
    };
    {
        no_permission closed(dir);
        rm_task(made);
        append(src, {60, 60, 60}); // s0 and s1 go, but for the permission
        sweep();
        EXPECT_EQ(deletions_left(), 4u);
        expect_logged("4 files still cannot be deleted");
    }
    // A name that is in use again keeps its file.
    item_data again{};
    strcpy(again.path, "s1.ts");
    again.duration = again.ifrm1_pts = 1;
    ASSERT_EQ(add_seg(src, &again), 0);
    g_ctx.last_tseq = 0;
    made = task(src, PL_LIV, true, item(src, 0), newest_item(src));
    strcpy(made->fpath, fpath.c_str());
    ASSERT_EQ(mk_lockfile(made), 0);
    sweep();
    EXPECT_EQ(deletions_left(), 0u);
    for (const std::string &path : {fpath, dir + "/s0.ts"})
        EXPECT_FALSE(fs::exists(path)) << path;
    for (const std::string &path : {lpath, dir + "/s1.ts"})
        EXPECT_TRUE(fs::exists(path)) << path;
    // The end names what stays.
    {
        no_permission closed(dir);
        rm_task(made);
        end_deletions();
        expect_logged("giving up on deleting [" + lpath);
    }
    EXPECT_EQ(deletions_left(), 0u);
}

TEST_F(Expiry, IdleSources) {
    set_clock(5000);
    const struct {
        long tmout_sec; // of its own
        long idle;      // -1 = made to expire
        bool has_task;
        bool is_over; // then a task is listed first, and the source goes when it has none
    } cases[] = {{0, 29, false, false},
                 {0, 30, false, true},
                 {0, 30, true, true},
                 {60, 59, false, false},
                 {0, -1, false, true}};
    for (const auto &one : cases) {
        const std::string name = "c" + std::to_string(&one - cases);
        pl_source *src = source(name);
        append(src, {10});
        ASSERT_TRUE(!one.has_task || task_of(src, ask("T1 LIV " + name)));
        src->tmout_sec = one.tmout_sec;
        src->last_item_tm = one.idle < 0 ? 1 : idle_clock() - one.idle;
        schedule_time_out();
        time_out_src_tasks();
        EXPECT_EQ(src_by_name(name.c_str()) == nullptr, one.is_over && !one.has_task) << name;
        EXPECT_EQ(g_ctx.pprm_tasks.len, one.is_over && one.has_task ? 1u : 0u) << name;
        pprm_task_cleanup();
    }
    // Idle time does not follow the wall clock, and every accepted line ends it.
    pl_source *src = source("last");
    set_clock(5029);
    feed(src, producer, "SEGMENT: a.ts 1 10 1 1 1\n");
    set_clock(5058);
    EXPECT_EQ(src_expired(g_ctx.sources.data, static_cast<size_t>(src->idx), nullptr), 0);
}

TEST_F(Expiry, ManyTasksAreSweptInSlices) {
    static constexpr size_t EACH = 150;
    pl_source *sources[] = {source("idle"), source("busy")};
    for (pl_source *src : sources)
        for (size_t i = 0; i < EACH; ++i)
            ASSERT_TRUE(add_task("test", src, PL_EVE));
    for (size_t i = 0; i < EACH; ++i) {
        src_task(sources[1], static_cast<ssize_t>(i))->lk_tmout_sec = 20;
        src_task(sources[1], static_cast<ssize_t>(i))->last_io_time = time(nullptr) - (i % 2 ? 15 : 25);
    }
    sources[0]->last_item_tm = 1;
    schedule_time_out();
    size_t passes = 0;
    do {
        const size_t left = sources[0]->tasks.len + sources[1]->tasks.len;
        time_out_src_tasks();
        EXPECT_LE(g_ctx.pprm_tasks.len, 64u);
        EXPECT_EQ(get_min_timeout() == 0, g_ctx.sweep.is_under_way) << "the loop does not sleep meanwhile";
        pprm_task_cleanup();
        EXPECT_TRUE(left > sources[0]->tasks.len + sources[1]->tasks.len || !g_ctx.sweep.is_under_way);
        ++passes;
    } while (g_ctx.sweep.is_under_way && passes < EACH);
    EXPECT_TRUE(passes > 3 && passes < 10) << passes;
    EXPECT_TRUE(sources[0]->tasks.len == 0 && sources[1]->tasks.len == EACH / 2);
}

} // namespace
