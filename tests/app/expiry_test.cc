#include "app/expiry.h"

#include "app/backup.h"
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
    const struct {
        long age;
        bool has_expired;
    } cases[] = {{19, false}, {20, true}, {21, true}, {-5, false}, {-86400, false}, {0, false}};
    for (const auto &one : cases)
        for (const bool has_file : {true, false}) { // without one, the last answer counts
            pl_task *made = nullptr;
            time_t now = 0;
            do { // within one second
                if (made)
                    rm_task(made);
                pprm_task_cleanup();
                made = task(src, PL_LIV, true, oldest_item(src), newest_item(src));
                ASSERT_EQ(has_file ? mk_playlist(made) : 0, 0);
                made->lk_tmout_sec = 20;
                now = time(nullptr);
                made->last_io_time = now - one.age;
                if (has_file)
                    touch(made, now - one.age);
                EXPECT_EQ(task_xpire(made), 0);
            } while (time(nullptr) != now);
            EXPECT_EQ(made->pprm_idx >= 0, one.has_expired) << one.age;
            EXPECT_EQ(made->last_io_time, one.age < 0 ? now : now - one.age);
            EXPECT_EQ(task_xpire(made), 0); // listed once, whatever comes
            EXPECT_EQ(g_ctx.pprm_tasks.len, one.has_expired ? 1u : 0u);
            const std::string fpath = made->fpath;
            pprm_task_cleanup();
            EXPECT_EQ(tasks_of(src).empty(), one.has_expired);
            EXPECT_EQ(fs::exists(fpath), has_file && !one.has_expired);
            if (!one.has_expired)
                rm_task(made);
        }
    // A lock file whose status cannot be read expires its task.
    pl_task *made = task(src, PL_LIV, true, oldest_item(src), newest_item(src));
    made->lkfd = 1 << 20;
    EXPECT_EQ(task_xpire(made), 0);
    EXPECT_GE(made->pprm_idx, 0);
    expect_logged("on I/O error");
}

TEST_F(Expiry, IdleSources) {
    set_clock(5000);
    const struct {
        long tmout_sec; // of its own
        long idle;      // -1 = made to expire
        bool has_task;
        bool goes; // at once
        bool is_listed;
    } cases[] = {
        {0, 29, false, false, false}, {0, 30, false, true, false},   {0, 30, true, false, true},
        {0, 29, true, false, false},  {60, 59, false, false, false}, {60, 60, false, true, false},
        {0, -1, false, true, false},  {0, -1, true, false, true},
    };
    for (const auto &one : cases) {
        const std::string name = "c" + std::to_string(&one - cases);
        pl_source *src = source(name);
        append(src, {10});
        ASSERT_TRUE(!one.has_task || task_of(src, ask("T1 LIV " + name)));
        src->tmout_sec = one.tmout_sec;
        src->last_item_tm = one.idle < 0 ? 1 : idle_clock() - one.idle;
        schedule_time_out();
        time_out_src_tasks();
        EXPECT_EQ(src_by_name(name.c_str()) == nullptr, one.goes) << name;
        EXPECT_EQ(g_ctx.pprm_tasks.len, one.is_listed ? 1u : 0u) << name;
        pprm_task_cleanup();
        schedule_time_out();
        time_out_src_tasks();
        EXPECT_EQ(src_by_name(name.c_str()) == nullptr, one.goes || one.is_listed) << name;
    }
    // Idle time does not follow the wall clock, and every accepted line ends it.
    pl_source *src = source("last");
    set_clock(5029);
    feed(src, producer, "SEGMENT: a.ts 1 10 1 1 1\n");
    set_clock(5058);
    EXPECT_EQ(src_expired(g_ctx.sources.data, static_cast<size_t>(src->idx), nullptr), 0);
}

TEST_F(Expiry, IntervalsAndTheOneExpeditedCheck) {
    timespec last = rqs_now();
    const time_t then = last.tv_sec;
    EXPECT_FALSE(is_iocheck_time(&last, 20));
    set_clock(then + 19);
    EXPECT_FALSE(is_iocheck_time(&last, 20));
    set_clock(then + 20);
    EXPECT_TRUE(is_iocheck_time(&last, 20));
    EXPECT_EQ(last.tv_sec, then + 20);
    EXPECT_FALSE(is_iocheck_time(&last, 20));
    schedule_time_out();
    EXPECT_TRUE(is_iocheck_time(&last, 20));
    EXPECT_FALSE(is_iocheck_time(&last, 20)) << "only the first check is brought forward";
}

TEST_F(Expiry, AReusedSlotIsNotTheListedTask) {
    pl_source *src = source();
    append(src, {10});
    pl_task *made = task(src, PL_LIV, true, oldest_item(src), newest_item(src));
    pprm_task(made);
    rm_task(made);
    pl_task *next = task(src, PL_LIV, true, oldest_item(src), newest_item(src));
    ASSERT_EQ(next, made);
    EXPECT_EQ(get_ref_task(&g_ctx.pprm_tasks, 0), nullptr);
    pprm_task_cleanup();
    EXPECT_EQ(tasks_of(src).size(), 1u);
}

} // namespace
