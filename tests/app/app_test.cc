#include "app/app.h"

#include "app/backup.h"
#include "app/mdr.h"
#include "tests/app/app_fixture.h"

namespace {

using Registry = App;

TEST_F(Registry, Parameters) {
    const std::string d63 = dir + "/" + std::string(62 - dir.size(), 'd');
    fs::create_directory(d63);
    write_file(dir + "/file", "");
    const struct {
        std::string text;
        int rc;
        size_t max_sec;
        std::string data_dir;
        std::string pfx;
    } cases[] = {
        {"max_sec=100", 0, 100, "", ""},
        {"max_sec=99", -1, 0, "", ""},
        {"max_sec=", -1, 0, "", ""},
        {"data_dir=" + dir, -1, 0, "", ""},
        {"item_pfx=http://h/ max_sec=200\tdata_dir=" + dir, 0, 200, dir, "http://h/"},
        {"max_sec=100 data_dir=" + d63, 0, 100, d63, ""},
        {"max_sec=100 data_dir=" + d63 + "d", -1, 0, "", ""},
        {"max_sec=100 data_dir=" + dir + "/none", -1, 0, "", ""},
        {"max_sec=100 data_dir=" + dir + "/file", -1, 0, "", ""},
        {"max_sec=100 data_dir= x", 0, 100, "", ""},
        {"max_sec=100 item_pfx=" + std::string(63, 'p'), 0, 100, "", std::string(63, 'p')},
        {"max_sec=100 item_pfx=" + std::string(64, 'p'), 0, 100, "", std::string(63, 'p')},
    };
    for (const auto &one : cases) {
        src_params params{};
        EXPECT_EQ(get_src_params(one.text.c_str(), &params), one.rc) << one.text;
        EXPECT_EQ(connect("n" + std::to_string(&one - cases), one.text), one.rc) << one.text;
        if (one.rc != 0)
            continue;
        EXPECT_EQ(params.max_plbk_sec, one.max_sec);
        EXPECT_EQ(params.data_dir, one.data_dir);
        EXPECT_EQ(params.pl_item_pfx, one.pfx);
        src_params copy{};
        copy.max_plbk_sec = 7;
        params.max_mitem_age = 5;
        copy_params(&copy, &params);
        EXPECT_EQ(copy.max_plbk_sec, one.max_sec);
        EXPECT_EQ(copy.data_dir, one.data_dir);
        EXPECT_TRUE(!copy.pl_item_pfx[0] && !copy.max_mitem_age);
    }
    EXPECT_EQ(g_ctx.sources.len, 6u);
    EXPECT_EQ(source("plain")->param.max_plbk_sec, g_cfg.max_plbk_sec);
    EXPECT_STREQ(src_by_name("n4")->item_pfx, "http://h/");
}

TEST_F(Registry, NamesThatAreRefused) {
    // "/NAME/NAME.manifest_live" within 143 characters; keys of at most 254.
    const struct {
        std::string name;
        int rc;
    } cases[] = {{"..", -1},
                 {"a/../b", -1},
                 {"~a/../b", -1},
                 {"a..b", 0},
                 {std::string(63, 'n'), 0},
                 {std::string(64, 'n'), -1},
                 {"~" + std::string(126, 'n'), 0}};
    for (const auto &one : cases) {
        EXPECT_EQ(connect(one.name), one.rc) << one.name;
        EXPECT_EQ(src_by_name(one.name.c_str()) != nullptr, one.rc == 0) << one.name;
    }
    EXPECT_EQ(connect(std::string(30, 'm'), "max_sec=100 data_dir=" + dir), 0);
    EXPECT_EQ(connect(std::string(60, 'm'), "max_sec=100 data_dir=" + dir), -1);
    expect_logged("source name refused, its manifest path is too long");
    const std::string longest = "~" + std::string(253, 'k');
    EXPECT_EQ(connect(longest), 0);
    EXPECT_NE(connect(longest + "k"), 0);
    // The record itself cuts at 383.
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, pair), 0);
    pl_source raw;
    EXPECT_EQ(init_src(&raw, ("~" + std::string(399, 'r')).c_str(), 0, pair[0], nullptr, nullptr), 0);
    EXPECT_EQ(strlen(raw.nametag), 383u);
    destroy_src(&raw);
    close(pair[1]);
}

TEST_F(Registry, OneConnectionPerNameAndReconnection) {
    pl_source *src = source("chan", "max_sec=100 item_pfx=one/");
    append(src, {10});
    EXPECT_EQ(connect("chan"), -16);
    suspend_source(src, 0);
    EXPECT_EQ(src->sockfd, -1);
    EXPECT_EQ(connect("chan", "max_sec=99"), -1);
    EXPECT_EQ(src->sockfd, -1);
    // A partial line of the last connection is not glued to the next one's first.
    src->tail = strdup("SEGMENT: ");
    src->last_item_tm = 0;
    ASSERT_EQ(connect("chan", "max_sec=150 item_pfx=two/", "SEGMENT: x"), 0);
    EXPECT_EQ(src_by_name("chan"), src);
    EXPECT_EQ(src->param.max_plbk_sec, 150u);
    EXPECT_STREQ(src->item_pfx, "one/");
    EXPECT_EQ(src->last_item_tm, idle_clock());
    feed(src, producer, ".ts 1 10 1 1 1\n");
    EXPECT_EQ(list_of(src), "s0.ts - x.ts ");
    EXPECT_EQ(recv(producer, &code, 1, 0), 0) << "the daemon says nothing to a source";
}

TEST_F(Registry, NoMoreSourcesThanMayBe) {
    g_cfg.max_sources = 2;
    restart();
    pl_source *src = source("a");
    source("b");
    EXPECT_EQ(connect("c"), -34);
    suspend_source(src, 0);
    EXPECT_EQ(connect("a"), -34) << "not even one that is known";
    ASSERT_EQ(xvlst_del(&g_ctx.sources, static_cast<size_t>(src->idx), rm_src_rec), 0);
    EXPECT_EQ(src->tag.sym[0], '#');
    EXPECT_EQ(source("c"), src) << "its slot is free again";
    // The table keeps its size when a reload allows more.
    g_cfg.max_sources = 9;
    EXPECT_EQ(connect("d"), -1);
    g_cfg.max_sources = 1;
    EXPECT_EQ(connect("d"), -34);
}

TEST_F(Registry, ReportsThatAReloadTurnsOnNeedAReporter) {
    pl_source *src = source();
    g_cfg.mdr.is_enabled = true;
    feed(src, producer, "SEGMENT: a.ts 1 10 1 1 1\n");
    EXPECT_EQ(list_of(src), "a.ts ");
    mdr_reconfigure(g_ctx.mdr, &g_cfg.mdr);
    expect_logged("start with the next start of the daemon");
}

} // namespace
