#include "app/manifest.h"

#include "tests/app/app_fixture.h"

namespace {

using Manifest = App;

TEST_F(Manifest, Import) {
    const long now = time(nullptr);
    auto line = [&](const std::string &path, long age, const char *duration = "10") {
        return "7: SEGMENT: " + path + " " + std::to_string(now - age) + " " + duration + " 5 1 900 rest\n";
    };
    write_file(dir + "/a.ts", "12345");
    write_file(dir + "/b.ts", "12345");
    const struct {
        const char *what;
        std::string text;
        bool verify;
        const char *list;
    } cases[] = {
        {"empty", "", false, ""},
        {"two", line("a.ts", 50) + line("b.ts", 40), false, "a.ts b.ts - "},
        {"no end of line", line("a.ts", 50) + "8: SEGMENT: b.ts " + std::to_string(now) + " 10 5 1 900",
         false, "a.ts b.ts - "},
        {"third malformed", line("a.ts", 50) + line("b.ts", 40) + "x\n" + line("c.ts", 30), false,
         "a.ts b.ts - "},
        {"no number", line("a.ts", 50) + "SEGMENT: b.ts 1 10\n" + line("c.ts", 9), false, "a.ts - "},
        {"other keyword", line("a.ts", 50) + "1: SEGMENTS: b.ts\n" + line("c.ts", 9), false, "a.ts - "},
        {"blank line ends", line("a.ts", 50) + "\n" + line("b.ts", 9), false, "a.ts - "},
        {"stale ones skipped", line("a.ts", 100 + 60) + line("b.ts", 40), false, "b.ts - "},
        {"all stale", line("a.ts", 1000), false, ""},
        {"refused ones skipped", line("../a.ts", 50) + line("b.ts", 40) + line("c.ts", 9, "nan"), false,
         "b.ts - "},
        {"markers", line("DISCONTINUITY", 50) + line("a.ts", 40) + line("DISCONTINUITY", 30), false,
         "a.ts - "},
        {"trimmed", line("a.ts", 50, "60") + line("b.ts", 40, "60"), false, "b.ts - "},
        {"too long a line",
         line("a.ts" + std::string(200, ' '), 50) + "9: SEGMENT: b.ts " + std::to_string(now) +
             " 1 5 1 900 " + std::string(300, '1') + "\n" + line("c.ts", 9),
         false, "a.ts b.ts c.ts - "},
        {"a missing file is skipped", line("none.ts", 50) + line("b.ts", 40), true, "b.ts - "},
        {"another size stops",
         line("a.ts", 50) + "1: SEGMENT: b.ts " + std::to_string(now) + " 10 4 1 900\n" + line("a.ts", 9),
         true, "a.ts - "},
    };
    for (const auto &one : cases) {
        SCOPED_TRACE(one.what);
        const std::string name = "c" + std::to_string(&one - cases);
        write_file(dir + "/" + name + "/" + name + ".manifest_live", one.text);
        write_file(dir + "/~" + name + "/~" + name + ".manifest_live", one.text);
        g_cfg.verify_item_filesize = one.verify;
        take_log();
        pl_source *src = source(name, "max_sec=100 data_dir=" + dir);
        expect_logged("entries imported from [" + dir + "/" + name);
        EXPECT_EQ(list_of(src), one.list);
        EXPECT_FALSE(src->manif.is_feeding);
        EXPECT_EQ(list_of(source("~" + name, "max_sec=100 data_dir=" + dir)), "") << "not for backups";
    }
    EXPECT_EQ(list_of(source("none", "max_sec=100 data_dir=" + dir)), "");
}

TEST_F(Manifest, Staleness) {
    src_params params{};
    params.max_plbk_sec = 100;
    const struct {
        long max_age;
        long age;
        bool is_stale;
    } cases[] = {{0, 100, false}, {0, 101, true},     {50, 50, false},
                 {50, 51, true},  {-1, 99999, false}, {0, -50, false}};
    for (const auto &one : cases) {
        params.max_mitem_age = one.max_age;
        time_t now = 0;
        bool is_stale = false;
        do { // within one second
            now = time(nullptr);
            is_stale = is_stale_mitem(&params, "a.ts", now - one.age);
        } while (time(nullptr) != now);
        EXPECT_EQ(is_stale, one.is_stale) << one.max_age << ", " << one.age;
    }
    params.max_mitem_age = 0;
    EXPECT_TRUE(is_stale_mitem(&params, "a.ts", INT64_MIN));
    EXPECT_FALSE(is_stale_mitem(&params, "a.ts", INT64_MAX));
}

TEST_F(Manifest, OrderAndMasters) {
    pl_source *src = source();
    src->param.max_mitem_age = -1;
    src->manif.is_feeding = true;
    src->manif.last_tm = 50;
    EXPECT_EQ(add_manifest_entry(src, "1: SEGMENT: b.ts 60 10 1 1 1", 1), 0);
    EXPECT_FALSE(src->manif.must_sort);
    EXPECT_EQ(add_manifest_entry(src, "2: SEGMENT: a.ts 40 10 1 1 1", 2), 0); // earlier than `last_tm`
    EXPECT_TRUE(src->manif.must_sort);
    EXPECT_EQ(add_manifest_entry(src, "3: SEGMENT: c.ts 70 10 1 1 1", 3), 0);
    EXPECT_EQ(list_of(src), "a.ts b.ts c.ts ");
    src->manif.is_feeding = false;
    EXPECT_EQ(add_manifest_entry(src, "4: SEGMENT: d.ts 10 10 1 1 1", 4), 0);
    EXPECT_EQ(list_of(src), "a.ts b.ts c.ts d.ts ");
    src->master = src;
    EXPECT_EQ(add_manifest_entry(src, "5: SEGMENT: e.ts 90 10 1 1 1", 5), -1);
    src->master = nullptr;
    src->param.max_mitem_age = 0;
    EXPECT_EQ(add_manifest_entry(src, "6: SEGMENT: f.ts 90 10 1 1 1", 6), -7);
}

} // namespace
