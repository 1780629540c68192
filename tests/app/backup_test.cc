#include "app/backup.h"

#include "app/expiry.h"
#include "tests/app/app_fixture.h"

namespace {

using Backup = App;

TEST_F(Backup, TheStandbyTakesOver) {
    pl_source *src = source("chan", "max_sec=100");
    append(src, {10});
    const std::string playlist = ask("T1 LIV chan");
    src->tail = strdup("SEGMENT: half.ts 1 10"); // of the connection that breaks
    pl_source *bkup = source("~chan", "max_sec=200");
    feed(bkup, producer, "SEGMENT: b0.ts 1 10 1 1 1\nSEGMENT: b");
    EXPECT_EQ(suspend_source(src, ECONNRESET), 0);
    EXPECT_EQ(list_of(src), "s0.ts - ");
    EXPECT_TRUE(src->sockfd >= 0 && src->sockfd != bkup->sockfd);
    EXPECT_TRUE(bkup->is_defunct && bkup->master == src && bkup->last_item_tm == 1);
    // Whichever registration is served, lines land in the master's list, and pieces meet.
    feed(bkup, producer, "1.ts 2 10 1 1 1\nSEGM");
    feed(src, producer, "ENT: b2.ts 3 10 1 1 1\nSEGMENT: b3.ts");
    feed(bkup, producer, " 4 10 1 1 1\n");
    EXPECT_EQ(list_of(src), "s0.ts - b1.ts b2.ts b3.ts ");
    EXPECT_EQ(list_of(bkup), "b0.ts ");
    EXPECT_EQ(ask("T1 LIV chan"), playlist);
    // The next sweep, which comes at once, finds the backup long idle.
    bkup->last_item_tm = 1;
    time_out_src_tasks();
    EXPECT_EQ(src_by_name("~chan"), nullptr);
    feed(src, producer, "SEGMENT: b4.ts 5 10 1 1 1\n");
    EXPECT_EQ(newest_item(src)->mseq, 4u);
}

TEST_F(Backup, Refusals) {
    enum what { NO_BACKUP, HAS_TASKS, SUSPENDED, DEFUNCT };
    const std::pair<what, int> cases[] = {{NO_BACKUP, 0}, {HAS_TASKS, -1}, {SUSPENDED, -1}, {DEFUNCT, 0}};
    for (const auto &[harm, rc] : cases) {
        const std::string name = "c" + std::to_string(harm);
        SCOPED_TRACE(name);
        pl_source *src = source(name);
        append(src, {10});
        pl_source *bkup = harm == NO_BACKUP ? nullptr : source("~" + name);
        if (harm == HAS_TASKS) {
            append(bkup, {10});
            ask("T1 LIV ~" + name);
        } else if (harm == SUSPENDED) {
            suspend_source(bkup, 0);
        } else if (harm == DEFUNCT) {
            bkup->is_defunct = true;
        }
        EXPECT_EQ(suspend_source(src, 0), rc);
        EXPECT_EQ(list_of(src), harm == DEFUNCT ? "s0.ts " : "s0.ts - ");
        EXPECT_EQ(src->sockfd, -1);
    }
}

TEST_F(Backup, ADefunctBackupForgetsAMasterThatGoes) {
    pl_source *src = source("chan");
    pl_source *bkup = source("~chan");
    suspend_source(src, 0);
    ASSERT_EQ(bkup->master, src);
    ASSERT_EQ(xvlst_del(&g_ctx.sources, static_cast<size_t>(src->idx), rm_src_rec), 0);
    feed(bkup, producer, "SEGMENT: a.ts 1 10 1 1 1\n");
    EXPECT_EQ(list_of(bkup), "a.ts ");
    // Coming back under its name, it is a backup again.
    bkup->master = source("chan");
    suspend_source(bkup, 0);
    ASSERT_EQ(connect("~chan"), 0);
    EXPECT_TRUE(!bkup->is_defunct && !bkup->master);
}

} // namespace
