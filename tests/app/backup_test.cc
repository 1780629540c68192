#include "app/backup.h"

#include "app/expiry.h"
#include "tests/app/app_fixture.h"

#include <sys/resource.h>

namespace {

using Backup = App;

TEST_F(Backup, Refusals) {
    enum what { NO_BACKUP, HAS_TASKS, SUSPENDED, DEFUNCT, OTHER_DIR, NO_DESCRIPTOR };
    const std::pair<what, int> cases[] = {{NO_BACKUP, 0}, {HAS_TASKS, -1}, {SUSPENDED, -1},
                                          {DEFUNCT, 0},   {OTHER_DIR, -1}, {NO_DESCRIPTOR, -1}};
    const std::string other = dir + "/other";
    fs::create_directory(other);
    rlimit limit;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit none = {.rlim_cur = 0, .rlim_max = limit.rlim_max};
    for (const auto &[harm, rc] : cases) {
        const std::string name = "c" + std::to_string(harm);
        SCOPED_TRACE(name);
        pl_source *src = source(name);
        append(src, {10});
        pl_source *bkup =
            harm == NO_BACKUP
                ? nullptr
                : source("~" + name, "max_sec=100 data_dir=" + (harm == OTHER_DIR ? other : dir + "/."));
        if (harm == HAS_TASKS) {
            append(bkup, {10});
            ask("T1 LIV ~" + name);
        } else if (harm == SUSPENDED) {
            suspend_source(bkup, 0);
        } else if (harm == DEFUNCT) {
            bkup->is_defunct = true;
        } else if (harm == OTHER_DIR) {
            expect_logged("check_partner: bkup src[~c4] cannot take over: its data directory is [" + other);
        } else if (harm == NO_DESCRIPTOR) {
            setrlimit(RLIMIT_NOFILE, &none);
        }
        EXPECT_EQ(suspend_source(src, 0), rc);
        setrlimit(RLIMIT_NOFILE, &limit);
        EXPECT_EQ(list_of(src), harm == DEFUNCT ? "s0.ts " : "s0.ts - ");
        EXPECT_EQ(src->sockfd, -1);
        schedule_time_out();
        time_out_src_tasks();
        EXPECT_EQ(src->sockfd >= 0, harm == NO_DESCRIPTOR) << "tried again";
        EXPECT_EQ(list_of(src), harm == DEFUNCT ? "s0.ts " : "s0.ts - ");
    }
}

TEST_F(Backup, ADefunctBackupForgetsAMasterThatGoes) {
    pl_source *src = source("chan");
    pl_source *bkup = source("~chan", "max_sec=100 item_pfx=http://b/");
    suspend_source(src, 0);
    ASSERT_TRUE(bkup->master == src && !bkup->item_pfx);
    ASSERT_EQ(xvlst_del(&g_ctx.sources, static_cast<size_t>(src->idx), rm_src_rec), 0);
    EXPECT_TRUE(!bkup->is_defunct && bkup->last_item_tm == idle_clock());
    EXPECT_STREQ(bkup->item_pfx, "http://b/");
    feed(bkup, producer, "SEGMENT: a.ts 1 10 1 1 1\n");
    EXPECT_EQ(list_of(bkup), "a.ts ");
    // One that breaks after it was taken over stays due to go; coming back before, it is a backup again.
    suspend_source(source("chan"), 0);
    suspend_source(bkup, 0);
    EXPECT_TRUE(bkup->is_defunct && bkup->last_item_tm == 1);
    ASSERT_EQ(connect("~chan", "max_sec=100 item_pfx=http://c/"), 0);
    EXPECT_TRUE(!bkup->is_defunct && !bkup->master);
    EXPECT_STREQ(bkup->item_pfx, "http://c/");
    // At the end of the context this one goes before its master.
    source("~last", "max_sec=100 item_pfx=http://d/");
    suspend_source(source("last"), 0);
}

} // namespace
