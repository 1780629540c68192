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
    // A new standby may connect, and take over again.
    source("~chan");
    suspend_source(src, 0);
    EXPECT_GE(src->sockfd, 0);
}

TEST_F(Backup, Refusals) {
    enum what { NO_BACKUP, HAS_TASKS, SUSPENDED, DEFUNCT, IS_BACKUP };
    const struct {
        what harm;
        int rc;
        const char *list; // of the main source afterwards
        const char *logged;
    } cases[] = {
        {NO_BACKUP, 0, "s0.ts - ", "no bkup[~c0] source found"},
        {HAS_TASKS, -1, "s0.ts - ", "bkup src[~c1] has 1 active tasks"},
        {SUSPENDED, -1, "s0.ts - ", "bkup src[~c2] already suspended, cannot proceed"},
        {DEFUNCT, 0, "s0.ts ", "src[c3] suspended"},
        {IS_BACKUP, 0, "s0.ts ", "src[~c4] suspended"},
    };
    for (const auto &one : cases) {
        const std::string name = "c" + std::to_string(&one - cases);
        SCOPED_TRACE(one.logged);
        pl_source *src = source(name);
        start = 1000;
        append(src, {10});
        pl_source *bkup = one.harm == NO_BACKUP ? nullptr : source("~" + name);
        if (one.harm == HAS_TASKS) {
            append(bkup, {10});
            ask("T1 LIV ~" + name);
        }
        if (one.harm == SUSPENDED)
            suspend_source(bkup, 0);
        if (one.harm == DEFUNCT)
            bkup->is_defunct = true;
        take_log();
        EXPECT_EQ(suspend_source(one.harm == IS_BACKUP ? bkup : src, 0), one.rc);
        expect_logged(one.logged);
        EXPECT_EQ(list_of(src), one.list);
        EXPECT_EQ((one.harm == IS_BACKUP ? bkup : src)->sockfd, -1);
        suspend_source(src, 0); // a second report of the same break adds nothing
        EXPECT_LE(dlep_count(src->items), 2u);
    }
}

TEST_F(Backup, ItemPrefixGoesAlong) {
    const struct {
        const char *main;
        const char *bkup;
        const char *result;
        const char *logged;
    } cases[] = {
        {"a/", "b/", "b/", "src[c0] changed item prefix from [a/] to [b/]\n"},
        {"a/", "a/", "a/", "same item prefix reported from bkup src[~c1]: a/\n"},
        {"", "b/", "b/", "src[c2] acquired NEW item prefix: b/\n"},
        {"a/", "", "", "src[c3] dropped item prefix, old prefix was: a/\n"},
        {"", "", "", "Roll-over from [~c4]"},
    };
    for (const auto &one : cases) {
        const std::string name = "c" + std::to_string(&one - cases);
        pl_source *src = source(name, std::string("max_sec=100 item_pfx=") + one.main);
        source("~" + name, std::string("max_sec=100 item_pfx=") + one.bkup);
        take_log();
        EXPECT_EQ(suspend_source(src, 0), 0);
        expect_logged(one.logged);
        EXPECT_STREQ(src->item_pfx ? src->item_pfx : "", one.result);
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
