#include "lib/config.h"

#include "tests/capture.h"

#include <sys/stat.h>
#include <vector>

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
    ASSERT_EQ(open("lum: { n = 7; neg = -3; wide = 5000000000L; t = true;\n"
                   "f = 1.5;\ns = \"7\"; g: { n = 8; }; };"),
              0);
    struct {
        const char *key;
        int rc;
        int64_t value;
        const char *record;
    } ints[] = {{"lum.n", 0, 7, ""},
                {"lum.neg", 0, -3, ""},
                {"lum.wide", 0, 5000000000, ""},
                {"lum.g.n", 0, 8, ""},
                {"lum.none", 0, 42, ""},
                {"lum.n.n", 0, 42, ""},
                {"lum.t", -1, 1, "lum.t must be an integer, line 1\n"},
                {"lum.f", -1, 1, "lum.f must be an integer, line 2\n"},
                {"lum.s", -1, 1, "lum.s must be an integer, line 3\n"},
                {"lum.g", -1, 1, "lum.g must be an integer, line 3\n"}};
    for (auto &c : ints) {
        int64_t value = 1;
        EXPECT_EQ(load_config_int(c.key, &value, 42), c.rc) << c.key;
        EXPECT_EQ(value, c.value) << c.key;
        EXPECT_TRUE(log.has(c.record));
        log.take();
    }
    bool value = false;
    EXPECT_EQ(load_config_bool("lum.t", &value, false), 0);
    EXPECT_TRUE(value);
    EXPECT_EQ(load_config_bool("lum.none", &value, false), 0);
    EXPECT_FALSE(value);
    value = true;
    EXPECT_EQ(load_config_bool("lum.n", &value, false), -1);
    EXPECT_TRUE(value);
    EXPECT_TRUE(log.has("lum.n must be true or false, line 1\n"));
    EXPECT_TRUE(config_has_group("lum.g") && !config_has_group("lum.n") && !config_has_group("lum.none"));
}

TEST_F(Config, StringsUpToTheirLength) {
    ASSERT_EQ(open("lum: { s5 = \"12345\"; s6 = \"123456\"; empty = \"\"; n = 5;\n"
                   "g: { sub: { s6 = \"123456\"; }; }; };"),
              0);
    struct {
        const char *key, *fallback;
        int rc;
        const char *text, *record;
    } cases[] = {
        {"lum.s5", "x", 0, "12345", ""},
        {"lum.empty", "x", 0, "", ""},
        {"lum.none", "x", 0, "x", ""},
        {"lum.s6", "x", -1, "kept", "load_config_str: lum.s6 value is too long (6), max = 5 characters.\n"},
        {"lum.none", "123456", -1, "kept", "lum.none value is too long (6), max = 5 characters.\n"},
        {"lum.n", "x", -1, "kept", "lum.n must be a string, line 1\n"},
        {"lum.g", "x", -1, "kept", "lum.g must be a string, line 2\n"}};
    for (auto &c : cases) {
        char buf[6] = "kept";
        EXPECT_EQ(load_config_str(c.key, buf, 5, c.fallback), c.rc) << c.key;
        EXPECT_STREQ(buf, c.text) << c.key;
        EXPECT_TRUE(log.has(c.record));
        log.take();
    }
    // Inside a setting the message tells the whole way.
    char buf[8] = "kept";
    config_setting_t *sub = config_find("lum.g.sub");
    EXPECT_EQ(load_config_setting_str(sub, "s6", buf, 5, "x"), -1);
    EXPECT_TRUE(log.has(": lum.g.sub.s6 value is too long (6), max = 5 characters.\n"));
    EXPECT_STREQ(buf, "kept");
    EXPECT_EQ(load_config_setting_str(sub, "s6", buf, 6, "x"), 0);
    EXPECT_STREQ(buf, "123456");
    EXPECT_EQ(load_config_setting_str(sub, "none", buf, 6, "x"), 0);
    EXPECT_STREQ(buf, "x");
}

TEST_F(Config, SizesWithSuffixesAndLists) {
    ASSERT_EQ(
        open("lum: { g: { n = 4096; wide = 5000000000L; k = \"2K\"; m = \"1.5m\"; gb = \"1Gb\"; zero = 0;\n"
             "neg = -1; bad = \"12x\"; t = true; negtext = \"-2K\"; huge = \"99999999999G\"; };\n"
             "list = (\"a\", \"\", \"b\"); array = [\"c\"]; none = (); mixed = (\"a\", 1); s = \"a\"; };"),
        0);
    config_setting_t *group = config_find("lum.g");
    struct {
        const char *key;
        int rc;
        size_t value;
    } sizes[] = {{"n", 0, 4096},    {"wide", 0, 5000000000}, {"k", 0, 2048},
                 {"m", 0, 1572864}, {"gb", 0, 1 << 30},      {"zero", 0, 0},
                 {"absent", 0, 42}, {"neg", -1, 1},          {"bad", -1, 1},
                 {"t", -1, 1},      {"negtext", -1, 1},      {"huge", -1, 1}};
    for (auto &c : sizes) {
        size_t value = 1;
        EXPECT_EQ(load_config_setting_size(group, c.key, &value, 42), c.rc) << c.key;
        EXPECT_EQ(value, c.value) << c.key;
        if (c.rc != 0) {
            EXPECT_TRUE(log.has("lum.g." + std::string(c.key) + " must be a size, line 2\n"));
        }
        log.take();
    }
    struct {
        const char *key;
        int rc;
        std::vector<std::string> texts;
    } lists[] = {{"lum.list", 3, {"a", "", "b"}}, {"lum.array", 1, {"c"}}, {"lum.none", 0, {}},
                 {"lum.absent", 0, {}},           {"lum.mixed", -1, {}},   {"lum.s", -1, {}}};
    for (auto &c : lists) {
        std::vector<std::string> got;
        auto add = [](const char *text, void *arg) { static_cast<decltype(got) *>(arg)->push_back(text); };
        EXPECT_EQ(load_config_string_list(c.key, add, &got), c.rc) << c.key;
        EXPECT_EQ(got, c.texts) << c.key;
        EXPECT_EQ(!log.take().empty(), c.rc < 0) << c.key;
    }
}

TEST_F(Config, FilesThatAreNoConfiguration) {
    std::string text = printed([&] { EXPECT_EQ(config_open((dir / "none").c_str()), -1); });
    EXPECT_EQ(text, "Failed to load [" + (dir / "none") + "]\n");
    EXPECT_EQ(open("a = 1;\nlum: { b = ; };"), -1);
    EXPECT_TRUE(log.has("Error reading/parsing config file [" + path + "]: line 2: syntax error\n"));
    EXPECT_EQ(open(""), 0);
    EXPECT_FALSE(config_has_group("lum"));
    int fd = next_fd();
    config_close();
    config_close();
    EXPECT_EQ(next_fd(), fd);
    // What is no regular file is refused before the parser, which would end the process, gets to read it.
    ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
    for (const std::string &what : {dir.path, dir / "fifo"}) {
        auto read_it = [&] { _exit(config_open(what.c_str()) == -1 ? 0 : 1); };
        EXPECT_EXIT(read_it(), testing::ExitedWithCode(0), "Failed to load");
        write_file(dir / "inner", "  @include \"" + what + "\"\n");
        auto include_it = [&] {
            _exit(open("a = 1;\n@include \"" + (dir / "inner") + "\"\n") == -1 ? 0 : 1);
        };
        EXPECT_EXIT(include_it(), testing::ExitedWithCode(0), "");
    }
    write_file(dir / "inner", "n = 5;\n");
    EXPECT_EQ(open("lum: {\n@include \"" + (dir / "inner") + "\"\n};"), 0);
    int64_t value = 0;
    EXPECT_EQ(load_config_int("lum.n", &value, 1), 0);
    EXPECT_EQ(value, 5);
    EXPECT_DEATH(config_open(path.c_str()), "!g_is_open");
}
