#include "app/pl.h"

#include "tests/app/app_fixture.h"

#include <cerrno>

namespace {

using Pl = App;

TEST_F(Pl, CodesAndStatus) {
    const int table[][2] = {{0, 200},  {EPERM, 403}, {ENOENT, 404}, {ESRCH, 404}, {EAGAIN, 503},   {22, 400},
                            {-1, 500}, {-2, 500},    {4, 500},      {12, 500},    {INT32_MAX, 500}};
    for (const auto &[err, status] : table)
        EXPECT_EQ(errno2http(err), status) << err;
}

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
    strcpy(made->fpath, "/d/x");
    made->last_io_time = 0;
    EXPECT_EQ(respond(made, "T1", nullptr, 0), "T1 text/M3U /d/x \n");
    EXPECT_GE(made->last_io_time, time(nullptr) - 5);
    made->is_gzipped = true;
    EXPECT_EQ(respond(made, "T1", "ignored", 0), "T1 gzip/M3U /d/x \n");
    EXPECT_EQ(code, 0);
    EXPECT_EQ(respond(made, "T1", nullptr, 11), "T1 ERROR HTTP:503 - internal\n");
    EXPECT_EQ(code, 11);
    EXPECT_EQ(respond(nullptr, "T1", "why", 0), "T1 ERROR HTTP:500 - why\n");
    EXPECT_EQ(code, -1);
    EXPECT_EQ(respond(nullptr, "T1", nullptr, 0), "T1 ERROR HTTP:500 - internal\n");
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

TEST_F(Pl, SharedTasksAndFormats) {
    const struct {
        bool has_gzip;
        bool text_live;
        const char *live;
    } cases[] = {{false, false, "text"}, {false, true, "text"}, {true, true, "text"}, {true, false, "gzip"}};
    for (const auto &one : cases) {
        const std::string name = "c" + std::to_string(g_ctx.sources.len);
        pl_source *src = source(name);
        EXPECT_EQ(ask("T1 LIV " + name), "T1 ERROR HTTP:404 - no items\n");
        EXPECT_EQ(code, PL_NO_ITEMS);
        append(src, {10, 10});
        g_cfg.has_gzip_pl = one.has_gzip;
        g_cfg.text_live_pl = one.text_live;
        const std::string live = ask("Tx LIV " + name);
        const std::string vod = ask("Tx vod " + name);
        EXPECT_EQ(live.substr(0, 12), std::string("Tx ") + one.live + "/M3U ");
        EXPECT_EQ(vod.substr(0, 12), "Tx gzip/M3U ");
        EXPECT_EQ(ask("Tx liv " + name), live);
        EXPECT_EQ(ask("Tx VOD " + name), vod);
        EXPECT_EQ(tasks_of(src).size(), 2u);
        // What came in since is in the file before it is named.
        append(src, {10});
        EXPECT_EQ(ask("Tx LIV " + name), live);
        EXPECT_NE(read_file(task_of(src, live)->fpath).find("\ns2.ts\n"), std::string::npos);
        // A task about to go is not shared any more.
        pprm_task(task_of(src, live));
        pprm_task(task_of(src, live));
        EXPECT_NE(ask("Tx LIV " + name), live);
        EXPECT_EQ(g_ctx.pprm_tasks.len, 1u);
        pprm_task_cleanup();
        EXPECT_FALSE(task_of(src, live));
    }
    EXPECT_EQ(ask("T1 VOD none"), "T1 ERROR HTTP:404 - source not found\n");
    EXPECT_EQ(code, PL_NOT_FOUND);
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
    EXPECT_EQ(ask("T1 VOD chan"), "T1 ERROR HTTP:500 - internal\n");
    expect_logged("mk_vod_task: exceeded max=3 tasks per source\n");
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

TEST_F(Pl, AnUnwritablePlaylistIsAnErrorLineAndRecovers) {
    const char *const lines[] = {"T1 LIV chan", "T1 VOD chan", "T1 EVE chan 1000 0"};
    pl_source *src = source();
    append(src, {10, 10});
    const pl_task *live = task_of(src, ask(lines[0]));
    append(src, {10});
    fs::rename(dir, dir + ".away");
    for (const char *line : lines)
        EXPECT_EQ(ask(line), "T1 ERROR HTTP:500 - internal\n") << line;
    g_cfg.refresh_pl_files = true;
    append(src, {10}); // the feed goes on
    pprm_task_cleanup();
    EXPECT_EQ(tasks_of(src).size(), 1u);
    EXPECT_EQ(skht_count(src->ev_ht), 0u);
    fs::rename(dir + ".away", dir);
    for (const char *line : lines) {
        pl_task *made = task_of(src, ask(line));
        ASSERT_TRUE(made) << line;
        EXPECT_TRUE(line != lines[0] || made == live);
        // One that lost its files while it was up gets new ones before it is named.
        drop_playlist(made);
        EXPECT_EQ(task_of(src, ask(line)), made) << line;
        EXPECT_TRUE(fs::exists(made->fpath) && fs::exists(made->lpath));
    }
}

} // namespace
