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
    EXPECT_TRUE(log.has("lum.f must be an integer, line 2\n"));
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

TEST_F(Config, SizesWithSuffixesAndLists) {
    ASSERT_EQ(open("lum: { n = 4096; m = \"1.5m\"; neg = -1; bad = \"12x\"; negtext = \"-2K\";\n"
                   "huge = \"99999999999G\"; list = (\"a\", \"\", \"b\"); mixed = (\"a\", 1); };"),
              0);
    struct {
        const char *key;
        int rc;
        size_t value;
    } sizes[] = {{"n", 0, 4096}, {"m", 0, 1572864},  {"absent", 0, 42}, {"neg", -1, 1},
                 {"bad", -1, 1}, {"negtext", -1, 1}, {"huge", -1, 1}};
    for (auto &c : sizes) {
        size_t value = 1;
        EXPECT_EQ(load_config_setting_size(config_find("lum"), c.key, &value, 42), c.rc) << c.key;
        EXPECT_EQ(value, c.value) << c.key;
    }
    std::vector<std::string> got;
    auto add = [](const char *text, void *arg) { static_cast<decltype(got) *>(arg)->push_back(text); };
    EXPECT_EQ(load_config_string_list("lum.mixed", add, &got), -1);
    EXPECT_EQ(load_config_string_list("lum.none", add, &got), 0);
    EXPECT_TRUE(got.empty());
    EXPECT_EQ(load_config_string_list("lum.list", add, &got), 3);
    EXPECT_EQ(got, (std::vector<std::string>{"a", "", "b"}));
}

TEST_F(Config, FilesThatAreNoConfiguration) {
    int fd = next_fd();
    EXPECT_EQ(config_open((dir / "none").c_str()), -1);
    EXPECT_EQ(open("a = 1;\nlum: { b = ; };"), -1);
    EXPECT_TRUE(log.has("Error reading/parsing config file [" + path + "]: line 2: syntax error\n"));
    config_close();
    EXPECT_EQ(next_fd(), fd);
    // What is no regular file is refused before the parser, which would end the process, gets to read it.
    ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
    const std::string include_inner = "lum: {\n@include \"" + (dir / "inner") + "\"\n};";
    for (const std::string &what : {dir.path, dir / "fifo"}) {
        auto read_it = [&] { _exit(config_open(what.c_str()) == -1 ? 0 : 1); };
        EXPECT_EXIT(read_it(), testing::ExitedWithCode(0), "Failed to load");
        write_file(dir / "inner", "  @include \"" + what + "\"\n");
        auto include_it = [&] { _exit(open(include_inner) == -1 ? 0 : 1); };
        EXPECT_EXIT(include_it(), testing::ExitedWithCode(0), "");
    }
    write_file(dir / "inner", "n = 5;\n");
    EXPECT_EQ(open(include_inner), 0);
    int64_t value = 0;
    EXPECT_EQ(load_config_int("lum.n", &value, 1), 0);
    EXPECT_EQ(value, 5);
}
