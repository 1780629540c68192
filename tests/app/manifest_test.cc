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
    write_file(dir + "/half.ts", "12");
    const struct {
        const char *what;
        std::string text;
        bool verify;
        const char *list;
    } cases[] = {
        {"no end of line", line("a.ts", 50) + "8: SEGMENT: b.ts " + std::to_string(now) + " 10 5 1 900",
         false, "a.ts b.ts - "},
        {"third malformed", line("a.ts", 50) + line("b.ts", 40) + "x\n" + line("c.ts", 30), false,
         "a.ts b.ts - "},
        {"stale ones skipped", line("a.ts", 100 + 60) + line("b.ts", 40), false, "b.ts - "},
        {"refused ones skipped", line("../a.ts", 50) + line("b.ts", 40) + line("c.ts", 9, "nan"), false,
         "b.ts - "},
        {"markers", line("DISCONTINUITY", 50) + line("a.ts", 40) + line("DISCONTINUITY", 30), false,
         "a.ts - "},
        {"too long a line",
         line("a.ts" + std::string(200, ' '), 50) + "9: SEGMENT: b.ts " + std::to_string(now) +
             " 1 5 1 900 " + std::string(300, '1') + "\n" + line("c.ts", 9),
         false, "a.ts b.ts c.ts - "},
        {"markers do not age", line("a.ts", 50) + "8: SEGMENT: DISCONTINUITY\n" + line("b.ts", 40), false,
         "a.ts - b.ts - "},
        {"missing and half files are skipped",
         line("none.ts", 60) + line("a.ts", 50) + line("half.ts", 45) + line("b.ts", 40), true,
         "a.ts b.ts - "},
    };
    for (const auto &one : cases) {
        SCOPED_TRACE(one.what);
        const std::string name = "c" + std::to_string(&one - cases);
        write_file(dir + "/" + name + "/" + name + ".manifest_live", one.text);
        write_file(dir + "/~" + name + "/~" + name + ".manifest_live", one.text);
        g_cfg.verify_item_filesize = one.verify;
        pl_source *src = source(name, "max_sec=100 data_dir=" + dir);
        EXPECT_EQ(list_of(src), one.list);
        EXPECT_EQ(list_of(source("~" + name, "max_sec=100 data_dir=" + dir)), "") << "not for backups";
    }
}

TEST_F(Manifest, OrderAndAge) {
    pl_source *src = source();
    src->param.max_mitem_age = -1;
    src->manif.is_feeding = true;
    src->manif.last_tm = 50;
    EXPECT_EQ(add_manifest_entry(src, "1: SEGMENT: b.ts 60 10 1 1 1", 1), 0);
    EXPECT_FALSE(src->manif.must_sort);
    EXPECT_EQ(add_manifest_entry(src, "2: SEGMENT: a.ts 40 10 1 1 1", 2), 0); // earlier than `last_tm`
    EXPECT_TRUE(src->manif.must_sort);
    EXPECT_EQ(add_manifest_entry(src, "3: SEGMENT: DISCONTINUITY 65", 3), 0);
    EXPECT_EQ(add_manifest_entry(src, "4: SEGMENT: c.ts 70 10 1 1 1", 4), 0);
    EXPECT_EQ(add_manifest_entry(src, "5: SEGMENT: DISCONTINUITY 45", 5), 0);
    EXPECT_EQ(list_of(src), "- - a.ts b.ts c.ts ") << "markers keep no start time";
    EXPECT_EQ(breaks_of(src), "0 1 2 2 2 ");
    src->param.max_mitem_age = 0;
    EXPECT_EQ(add_manifest_entry(src, "6: SEGMENT: f.ts 90 10 1 1 1", 6), -7);
}

} // namespace
