#include "app/cfg.h"

#include "tests/app/app_fixture.h"

namespace {

class Cfg : public App {
  protected:
    // A file of the required sections and `keys`.
    int load(const std::string &keys, bool reload = false, const char *sections = "log = {}; runtime = {};") {
        const std::string path = dir + "/lum.conf";
        write_file(path,
                   std::string("lum = { ") + sections + " data_dir = \"" + dir + "\"; " + keys + " };\n");
        log.take();
        return load_plum_config(path.c_str(), &cfg, reload);
    }
    void SetUp() override {
        App::SetUp();
        init_plum_config(&cfg);
    }
    plum_cfg cfg{};
};

TEST_F(Cfg, RangesAndMessages) {
    const std::tuple<std::string, int64_t, int64_t> ranges[] = {
        {"max_sources", 1, 1024},  {"max_src_tasks", 8, 512}, {"max_playback_time", 600, 5184000},
        {"max_live_items", 4, 64}, {"src_tmout_sec", 1, 300}, {"task_tmout_sec", 1, 100},
        {"urq_tmout_sec", 1, 120}, {"min_target_sec", 0, 60}, {"keep_retired_sec", 0, 604800},
        {"status_sec", 1, 60}};
    for (const auto &[key, min, max] : ranges)
        for (const int64_t value : {min - 1, min, max, max + 1})
            EXPECT_EQ(load(key + " = " + std::to_string(value) + ";"), value < min || value > max ? -1 : 0)
                << key << value;
    const std::string p127(127, 'p');
    const std::string md = "md_report = { enabled = true; pub_url = \"udp://h:1\"; ";
    const struct {
        std::string keys;
        int rc;
        std::string logged;
    } cases[] = {
        {"min_src_tasks = 9; max_src_tasks = 9;", 0, ""},
        {"min_src_tasks = -1;", -1, "min_src_tasks > max_src_tasks"},
        {"item_url_prefix = \"" + p127 + "\";", 0, ""},
        {"item_url_prefix = \"" + p127 + "p\";", -1, "value is too long (128), max = 127 characters.\n"},
        {"src_socket = \"" + std::string(104, 's') + "\";", -1, "too long (104), max = 103"},
        {"max_live_items = \"7\";", -1, "lum.max_live_items must be an integer"},
        {md + "};", -1, "load_config: must include lid section\n"},
        {md + "lid = { min = 5; max = 5; prefix = \"p\"; }; };", -1, "load_config: invalid min/max=5/5\n"},
        {md + "lid = { prefix = \"p\"; }; };", -1, "non-empty [lum.md_report.src_base]"},
        {"lock_mode = \"0777\";", 0, ""},
        {"lock_mode = \"\";", -1, "load_config: lum.lock_mode= is out of range [0000..0777]\n"},
        {"lock_mode = \"0668\";", -1, "lum.lock_mode=0668"},
        {"lock_mode = \"1777\";", -1, "lum.lock_mode=1777"},
    };
    for (const auto &one : cases) {
        EXPECT_EQ(load(one.keys), one.rc) << one.keys;
        expect_logged(one.logged);
    }
    EXPECT_EQ(load("", false, "runtime = {};"), -1);
    write_file(dir + "/dir.conf", "lum = { log = {}; runtime = {}; data_dir = \"" + dir + "/none\"; };");
    EXPECT_EQ(load_plum_config((dir + "/dir.conf").c_str(), &cfg, false), -1);
    expect_logged("load_config: cannot accept [" + dir + "/none] as lum.data_dir\n");
}

TEST_F(Cfg, ReloadKeepsWhatOnlyTheStartReads) {
    const char *const fixed =
        "log = { file = \"/l1\"; }; runtime = { pidfile = \"/p1\"; }; src_socket = \"/s1\"; "
        "pl_socket = \"/y1\"; ";
    const char *const other =
        "log = { file = \"/l2\"; }; runtime = { pidfile = \"/p2\"; }; src_socket = \"/s2\"; ";
    ASSERT_EQ(load("max_live_items = 10; src_tmout_sec = 50;", false, fixed), 0);
    strcpy(cfg.data_dir, "/elsewhere"); // as the command line may have it
    ASSERT_EQ(load("max_live_items = 11;", true, other), 0);
    EXPECT_STREQ(cfg.log.path, "/l1");
    EXPECT_STREQ(cfg.rt.pidfile, "/p1");
    EXPECT_STREQ(cfg.rui.user[0].domain_path, "/s1");
    EXPECT_EQ(cfg.data_dir, dir);
    EXPECT_EQ(cfg.max_live_items, 11u);
    EXPECT_EQ(cfg.src_tmout_sec, 30) << "a key that went takes its default";
    // A failing load keeps what it read before the failing key, and everything behind it.
    const int64_t mtime = cfg.last_mtime;
    ASSERT_EQ(load("max_live_items = 12; src_tmout_sec = 301; task_tmout_sec = 99;", true), -1);
    EXPECT_TRUE(cfg.max_live_items == 12 && cfg.src_tmout_sec == 30 && cfg.lk_tmout_sec == 20);
    EXPECT_EQ(cfg.last_mtime, mtime);
}

} // namespace
