#include "app/app.h"

#include "app/backup.h"
#include "tests/app/app_fixture.h"

namespace {

using Registry = App;

TEST_F(Registry, ParametersAndNamesThatAreRefused) {
    const std::string d63 = dir + "/" + std::string(62 - dir.size(), 'd');
    fs::create_directory(d63);
    write_file(dir + "/file", "");
    const std::string in = "max_sec=100 data_dir=";
    // "/NAME/NAME.manifest_live" within 143 characters; keys of at most 254.
    const struct {
        std::string name;
        std::string params;
        int rc;
    } cases[] = {
        {"n0", "max_sec=100", 0},
        {"n1", "max_sec=99", -1},
        {"n2", "data_dir=" + dir, -1},
        {"n3", "item_pfx=http://h/ max_sec=200\tdata_dir=" + dir, 0},
        {"n4", in + d63, 0},
        {"n5", in + d63 + "d", -1},
        {"n6", in + dir + "/none", -1},
        {"n7", in + dir + "/file", -1},
        {"n8", "max_sec=100 target_sec=60", 0},
        {"n9", "max_sec=100 target_sec=61", -1},
        {"n9", "max_sec=100 target_sec=6s", -1},
        {"..", "", -1},
        {"~", "", 0},
        {"a/../b", "", -1},
        {"a..b", "", 0},
        {std::string(63, 'n'), "", 0},
        {std::string(64, 'n'), "", -1},
        {std::string(60, 'm'), in + dir, -1},
        {"~" + std::string(253, 'k'), "", 0},
    };
    for (const auto &[name, params, rc] : cases) {
        EXPECT_EQ(connect(name, params), rc) << name << " " << params;
        EXPECT_EQ(src_by_name(name.c_str()) != nullptr, rc == 0) << name;
    }
    EXPECT_NE(connect("~" + std::string(254, 'k')), 0);
    // "T text/M3U DIR/NAME-LIV1-M0.m3u8 \n" within 127 characters
    strcpy(g_cfg.data_dir, std::string(90, 'd').c_str());
    for (const size_t length : {10u, 11u})
        EXPECT_EQ(connect(std::string(length, 'p')), length > 10 ? -1 : 0);
}

TEST_F(Registry, NoMoreSourcesThanMayBe) {
    g_cfg.max_sources = 2;
    destroy_plum_ctx();
    ASSERT_EQ(init_plum_ctx(urq_callbacks()), 0);
    pl_source *src = source("a");
    EXPECT_EQ(connect("a"), -16) << "it is connected";
    source("b");
    EXPECT_EQ(connect("c"), -34);
    suspend_source(src, 0);
    EXPECT_EQ(connect("a"), -34) << "not even one that is known";
    expect_logged("src[a] is known, but not re-attached");
    ASSERT_EQ(xvlst_del(&g_ctx.sources, static_cast<size_t>(src->idx), rm_src_rec), 0);
    EXPECT_EQ(source("c"), src) << "its slot is free again";
    // The table keeps its size when a reload allows more.
    g_cfg.max_sources = 9;
    EXPECT_EQ(connect("d"), -1);
}

} // namespace
