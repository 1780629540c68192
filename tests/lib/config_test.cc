#include "lib/config.h"

#include "tests/capture.h"

#include <sys/stat.h>

class Config : public testing::Test {
  protected:
    void TearDown() override { config_close(); }
    int open(const std::string &text) {
        config_close();
        write_file(path, text);
        return config_open(path.c_str());
    }

    LogCapture log;
    TempDir dir;
    std::string path = dir / "app.conf";
};

TEST_F(Config, NumbersAndBooleansOfTheRightTypeOnly) {
    ASSERT_EQ(open("lum: { neg = -3; wide = 5000000000L; t = true;\nf = 1.5;\ns = \"7\"; g: { n = 8; }; };"),
              0);
    struct {
        const char *key;
        int rc;
        int64_t value;
    } ints[] = {{"lum.neg", 0, -3}, {"lum.wide", 0, 5000000000},
                {"lum.g.n", 0, 8},  {"lum.none", 0, 42},
                {"lum.t", -1, 1},   {"lum.f", -1, 1},
                {"lum.s", -1, 1},   {"lum.g", -1, 1}};
    for (auto &c : ints) {
        int64_t value = 1;
        EXPECT_EQ(load_config_int(c.key, &value, 42), c.rc) << c.key;
        EXPECT_EQ(value, c.value) << c.key;
    }
    EXPECT_TRUE(log.has("lum.f must be an integer, line 2 of [" + path + "]\n"));
    bool value = true;
    EXPECT_EQ(load_config_bool("lum.neg", &value, false), -1);
    EXPECT_TRUE(value);
    EXPECT_EQ(load_config_bool("lum.none", &value, false), 0);
    EXPECT_FALSE(value);
    EXPECT_TRUE(config_has_group("lum.g") && !config_has_group("lum.t"));
}

TEST_F(Config, StringsUpToTheirLength) {
    ASSERT_EQ(open("lum: { s5 = \"12345\"; s6 = \"123456\"; n = 5; g: { s6 = \"123456\"; }; };"), 0);
    struct {
        const char *key, *fallback;
        int rc;
        const char *text;
    } cases[] = {{"lum.s5", "x", 0, "12345"},
                 {"lum.none", "x", 0, "x"},
                 {"lum.s6", "x", -1, "kept"},
                 {"lum.none", "123456", -1, "kept"},
                 {"lum.n", "x", -1, "kept"}};
    for (auto &c : cases) {
        char buf[6] = "kept";
        EXPECT_EQ(load_config_str(c.key, buf, 5, c.fallback), c.rc) << c.key;
        EXPECT_STREQ(buf, c.text) << c.key;
    }
    // Inside a setting the message tells the whole way.
    char buf[8] = "kept";
    EXPECT_EQ(load_config_setting_str(config_find("lum.g"), "s6", buf, 5, "x"), -1);
    EXPECT_TRUE(log.has(": lum.g.s6 value is too long (6), max = 5 characters.\n"));
    EXPECT_STREQ(buf, "kept");
}

TEST_F(Config, FilesThatAreNoConfiguration) {
    const int fd = next_fd();
    EXPECT_EQ(config_open((dir / "none").c_str()), -1);
    EXPECT_EQ(open("a = 1;\nlum: { b = ; };"), -1);
    EXPECT_TRUE(log.has("Error reading/parsing config file [" + path + "]: line 2: syntax error\n"));
    // What cannot be read to its end never reaches the parser, which would end the process.
    ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
    write_file(dir / "huge", std::string(CFG_TEXT_MAX + 1, ' '));
    for (const std::string &what : {dir.path, dir / "fifo", dir / "huge", std::string("/proc/self/mem")}) {
        config_close();
        EXPECT_EQ(config_open(what.c_str()), -1) << what;
        EXPECT_EQ(open("lum: {\n@include \"" + what + "\"\n};"), -1) << what;
        EXPECT_TRUE(log.has("[" + path + "]: line 2: cannot include [" + what + "] ERROR("));
    }
    config_close();
    EXPECT_EQ(next_fd(), fd);
}

TEST_F(Config, FaultsAndSettingsAreFoundInTheFileThatHoldsThem) {
    config_close();
    const std::string inner = dir / "inner";
    const std::string include = "@include \"inner\"";
    const struct {
        std::string outer, inner, fault; // what follows "[FILE]: line "; none = fine, and `n` is 5
    } cases[] = {
        {"\n" + include + " m = 1;\n", "n = 5;", ""},
        {" \t" + include + include + "\n", "# n = 5;", ""},
        {"/* \n" + include + "\n*/ n = 5;", "n = ;", ""},
        {"n = 5; s = \"\n" + include.substr(0, 9) + " \\\" // \n\";", "n = ;", ""},
        {"k = 5;\n" + include + "\n", "m = 1;\n\nn = ;", inner + "]: line 3: syntax error"},
        {include + "\n\nn = ;", "m = 1;", path + "]: line 3: syntax error"},
        {include, "/* n = 5;", inner + "]: line 1: "},
        {include, include, inner + "]: line 1: cannot include [" + inner + "] ERROR(40)"},
        {include.substr(0, 14), "", path + "]: line 1: "},
        {std::string("n = 5;\n\0", 8), "", path + "]: line 2: a zero byte"},
    };
    for (const auto &one : cases) {
        write_file(path, one.outer);
        write_file(inner, one.inner);
        log.take();
        EXPECT_EQ(config_open(path.c_str(), dir.path.c_str()), one.fault.empty() ? 0 : -1) << one.outer;
        int64_t value = 0;
        if (one.fault.empty())
            EXPECT_TRUE(load_config_int("n", &value, 5) == 0 && value == 5) << one.outer;
        else
            EXPECT_TRUE(log.has("[" + one.fault));
        config_close();
    }
    write_file(path, "\n" + include + "\ng: { skip = { a = 1; }; b = { c = 1; d = 2; }; };");
    write_file(inner, "\nn = \"x\"; m = 1;");
    ASSERT_EQ(config_open(path.c_str(), dir.path.c_str()), 0);
    int64_t value = 0;
    EXPECT_EQ(load_config_int("n", &value, 1), -1);
    EXPECT_TRUE(config_last_place().path == inner && config_last_place().line == 2);
    EXPECT_EQ(load_config_int("g.b.d", &value, 1), 0);
    config_skip("g.skip");
    std::string unread;
    auto add = [](const char *key, const cfg_place &place, void *arg) {
        *static_cast<std::string *>(arg) += key + (":" + std::to_string(place.line)) + " ";
    };
    config_visit_unread(add, &unread);
    EXPECT_EQ(unread, "m:2 g.b.c:3 ");
}
