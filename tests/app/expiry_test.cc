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
