#include "app/cfg.h"

#include "lib/util.h"
#include "tests/app/app_fixture.h"

namespace {

class Cfg : public App {
  protected:
    // A file of the required sections and `keys`.
    int load(const std::string &keys, bool reload = false, const char *sections = "log = {}; runtime = {};") {
        const std::string path = dir + "/lum.conf";
        write_file(path,
                   std::string("lum = { ") + sections + " data_dir = \"" + dir + "\"; " + keys + " };\n");
        take_log();
        return load_plum_config(path.c_str(), &cfg, reload);
    }
    void SetUp() override {
        App::SetUp();
        init_plum_config(&cfg);
    }
    plum_cfg cfg{};
};

TEST_F(Cfg, DefaultsOfAnAlmostEmptyFile) {
    ASSERT_EQ(load(""), 0);
    EXPECT_TRUE(cfg.log.enable_syslog && cfg.rt.enforce_core_dumps && !cfg.rt.non_daemon);
    EXPECT_TRUE(cfg.log.max_size_mb == 64 && cfg.log.max_files == 16 && cfg.log.level == LL_INFO);
    EXPECT_EQ(cfg.rt.cpunum, -1);
    EXPECT_TRUE(cfg.has_gzip_pl && cfg.text_live_pl && cfg.verify_item_filesize);
    EXPECT_TRUE(!cfg.use_sid_pl_dir && !cfg.refresh_pl_files && !cfg.mdr.is_enabled);
    EXPECT_EQ(cfg.max_plbk_sec, 604800u);
    EXPECT_FALSE(has_rui_ifc(&cfg, SRC_LISTENER) || has_rui_ifc(&cfg, PL_LISTENER));
    EXPECT_EQ(cfg.last_mtime, get_file_mtime((dir + "/lum.conf").c_str(), 0));
}

TEST_F(Cfg, RangesAndMessages) {
    const struct {
        const char *key;
        int64_t min;
        int64_t max;
        const char *last; // of the message
    } ranges[] = {{"max_sources", 1, 1024, "[1..1024]"},
                  {"max_src_tasks", 8, 512, ""},
                  {"max_playback_time", 600, 5184000, "[600..5184000]"},
                  {"max_live_items", 4, 64, "[4..64]"},
                  {"src_tmout_sec", 1, 300, "[1..300]"},
                  {"task_tmout_sec", 1, 100, "[1..100]"},
                  {"urq_tmout_sec", 1, 120, "[1..120]"}};
    for (const auto &one : ranges) {
        const std::string key = std::string(one.key) + " = ";
        EXPECT_EQ(load(key + std::to_string(one.min) + ";"), 0) << key;
        EXPECT_EQ(load(key + std::to_string(one.max) + ";"), 0) << key;
        EXPECT_EQ(load(key + std::to_string(one.min - 1) + ";"), -1) << key;
        expect_logged(*one.last
                          ? "load_config: lum." + key.substr(0, key.size() - 2).substr(0, strlen(one.key)) +
                                "=" + std::to_string(one.min - 1) + " is out of range " + one.last + "\n"
                          : "load_config: min_src_tasks > max_src_tasks: 8 > 7\n");
        EXPECT_EQ(load(key + std::to_string(one.max + 1) + ";"), -1) << key;
    }
    const std::string p127(127, 'p');
    const std::string lid = " lid = { prefix = \"p\"; };";
    const std::string md = "md_report = { enabled = true; ";
    const std::string url = "pub_url = \"udp://h:1\"; ";
    const struct {
        std::string keys;
        int rc;
        std::string logged;
    } cases[] = {
        {"min_src_tasks = 9; max_src_tasks = 9;", 0, ""},
        {"max_src_tasks = 0;", -1, "load_config: lum.max_src_tasks=0 is out of range [1..512]\n"},
        {"min_src_tasks = -1;", -1, "min_src_tasks > max_src_tasks"},
        {"item_url_prefix = \"" + p127 + "\";", 0, ""},
        {"item_url_prefix = \"" + p127 + "p\";", -1,
         "load_config_str: lum.item_url_prefix value is too long (128), max = 127 characters.\n"},
        {"src_socket = \"" + std::string(103, 's') + "\";", 0, ""},
        {"src_socket = \"" + std::string(104, 's') + "\";", -1, "too long (104), max = 103"},
        {"max_live_items = \"7\";", -1, "lum.max_live_items must be an integer"},
        {"gzip_playlists = 1;", -1, "lum.gzip_playlists must be true or false"},
        {"md_report = { enabled = false; };", 0, ""},
        {md + "};", -1, "load_config: MUST include non-empty [lum.md_report.pub_url]\n"},
        {md + url + "};", -1, "load_config: must include lid section\n"},
        {md + url + "lid = {}; src_base = \"b\"; };", -1, "non-empty [lum.md_report.lid.prefix]"},
        {md + url + "lid = { min = 5; max = 5; prefix = \"p\"; }; };", -1,
         "load_config: invalid min/max=5/5\n"},
        {md + url + lid + "};", -1, "non-empty [lum.md_report.src_base]"},
        {md + url + lid + "src_base = \"b\"; };", 0, ""},
        {"this is no file", -1, "Error reading/parsing config file [" + dir + "/lum.conf]: line 1: "},
    };
    for (const auto &one : cases) {
        EXPECT_EQ(load(one.keys), one.rc) << one.keys;
        expect_logged(one.logged);
    }
    EXPECT_EQ(cfg.mdr.lid_max, 999999u);
    EXPECT_EQ(load("", false, "runtime = {};"), -1);
    expect_logged("load_config: missing log section\n");
    EXPECT_EQ(load("", false, "log = {};"), -1);
    expect_logged("load_config: missing runtime section\n");
    EXPECT_EQ(load("", false, "log = { time_format = \"utc\"; }; runtime = {};"), -1);
    expect_logged("Invalid time format: utc\n");
    write_file(dir + "/dir.conf", "lum = { log = {}; runtime = {}; data_dir = \"" + dir + "/none\"; };");
    EXPECT_EQ(load_plum_config((dir + "/dir.conf").c_str(), &cfg, false), -1);
    expect_logged("load_config: cannot accept [" + dir + "/none] as lum.data_dir\n");
    EXPECT_EQ(load_plum_config((dir + "/no.conf").c_str(), &cfg, false), -1);
}

TEST_F(Cfg, ReloadKeepsWhatOnlyTheStartReads) {
    const char *const fixed =
        "log = { file = \"/l1\"; }; runtime = { pidfile = \"/p1\"; }; src_socket = \"/s1\"; "
        "pl_socket = \"/y1\"; ";
    const char *const other =
        "log = { file = \"/l2\"; }; runtime = { pidfile = \"/p2\"; }; src_socket = \"/s2\"; ";
    ASSERT_EQ(load("max_live_items = 10; src_tmout_sec = 50;", false, fixed), 0);
    EXPECT_STREQ(cfg.rui.user[0].alias, "pls1");
    EXPECT_STREQ(cfg.rui.user[1].alias, "itm2");
    EXPECT_TRUE(cfg.rui.user[0].kind.num == YLI_TAG && cfg.rui.user[1].kind.num == SLI_TAG);
    EXPECT_EQ(cfg.rui.max_accept, 64u);
    strcpy(cfg.data_dir, "/elsewhere"); // as the command line may have it
    ASSERT_EQ(load("max_live_items = 11;", true, other), 0);
    expect_logged("load_config: configuration re-loaded, mtime=" + std::to_string(cfg.last_mtime) + "\n");
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
    // Not even the sections of the start are needed any more.
    ASSERT_EQ(load("", true, ""), 0);
    ASSERT_EQ(load_plum_config(cfg.config_path, &cfg, true), 0);
}

} // namespace
