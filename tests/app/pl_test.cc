#include "app/pl.h"

#include "tests/app/app_fixture.h"

namespace {

using Pl = App;

TEST_F(Pl, ResponseLinesAndTheirLimit) {
    pl_source *src = source();
    append(src, {10});
    pl_task *made = task(src, PL_LIV, true, oldest_item(src), newest_item(src));
    auto respond = [&](pl_task *of, const char *client, const char *errmsg, int rc) {
        code = rc;
        char *text = mk_response(of, client, errmsg, &code);
        const std::string copy = text;
        free(text);
        return copy;
    };
    made->is_gzipped = true;
    EXPECT_EQ(respond(made, "T1", nullptr, 11), "T1 ERROR HTTP:503 - internal\n");
    EXPECT_EQ(respond(nullptr, "T1", "why", 0), "T1 ERROR HTTP:500 - why\n");
    for (const size_t total : {126u, 127u, 128u}) {
        const std::string path(100, 'p');
        const std::string client = "T" + std::string(total - 100 - 13, 'i');
        strcpy(made->fpath, path.c_str());
        const std::string line = client + " gzip/M3U " + path + " \n";
        ASSERT_EQ(line.size(), total);
        const std::string response = respond(made, client.c_str(), nullptr, 0);
        EXPECT_EQ(response, total > 127 ? client + " ERROR HTTP:500 - internal\n" : line.substr(0, 126));
        EXPECT_EQ(code, total > 127 ? -1 : 0);
    }
    EXPECT_EQ(respond(nullptr, std::string(300, 'c').c_str(), nullptr, 1), std::string(126, 'c'));
    made->fpath[0] = '\0';
}

TEST_F(Pl, TaskNumbersAndLimits) {
    pl_source *src = source();
    append(src, {10, 10, 10});
    g_ctx.last_tseq = 999998;
    for (const uint32_t expected : {999999u, 1u, 2u})
        EXPECT_EQ(add_task("test", src, PL_LIV)->tseq, expected);
    g_cfg.max_src_tasks = 3;
    EXPECT_EQ(ask("T1 LIV chan"), "T1 ERROR HTTP:500 - internal\n");
    EXPECT_EQ(ask("T1 EVE chan 1000 0"), "T1 ERROR HTTP:500 - internal\n");
    rm_task(tasks_of(src)[1]);
    EXPECT_TRUE(task_of(src, ask("T1 LIV chan")));
    // A source keeps the room it was made with, whatever a reload allows.
    g_cfg.min_src_tasks = g_cfg.max_src_tasks = 2;
    pl_source *fixed = source("fixed");
    append(fixed, {10});
    g_cfg.max_src_tasks = 9;
    EXPECT_TRUE(task_of(fixed, ask("T1 LIV fixed")) && task_of(fixed, ask("T1 VOD fixed")));
    EXPECT_EQ(ask("T1 EVE fixed 1030 0"), "T1 ERROR HTTP:500 - internal\n");
    g_cfg.max_src_tasks = 1;
    EXPECT_EQ(ask("T1 EVE fixed 1030 0"), "T1 ERROR HTTP:500 - internal\n");
    EXPECT_TRUE(task_of(fixed, ask("T1 LIV fixed")));
}

} // namespace
