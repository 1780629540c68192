#include "app/backup.h"

#include "app/expiry.h"
#include "tests/app/app_fixture.h"

namespace {

using Backup = App;

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
