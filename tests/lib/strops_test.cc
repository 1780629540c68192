#include "lib/strops.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <tuple>
#include <vector>

TEST(Strops, Numbers) {
    const std::string digits(63, '1');
    const std::tuple<std::string, int, double> doubles[] = {
        {"1.5M", 0, 1572864},   {"-3k", 0, -3072},
        {"3T", -5, 0},          {"1.2.3M", -4, 0},
        {digits + "1K", -3, 0}, {digits + "K", 0, 1024 * strtod(digits.c_str(), nullptr)}};
    for (const auto &[text, rc, wanted] : doubles) {
        double value = 0;
        EXPECT_EQ(a2double(text.c_str(), &value), rc) << text;
        EXPECT_DOUBLE_EQ(value, wanted) << text;
    }
    const std::tuple<int (*)(const char *, int64_t *), const char *, int, int64_t> integers[] = {
        {a2size, "-1.9k", 0, -1945},
        {a2size, "10000000000000000000", -2, 77},
        {a2size, "9223372036854775808", 0, INT64_MAX}, // the limit itself does not overflow
        {a2int64, "-9223372036854775808 ", 0, INT64_MIN},
        {a2int64, "9223372036854775808", -2, 77},
        {a2int64, "", -4, 77}};
    for (const auto &[convert, text, rc, wanted] : integers) {
        int64_t value = 77;
        EXPECT_EQ(convert(text, &value), rc) << text;
        EXPECT_EQ(value, wanted) << text;
    }
}

TEST(Strops, PathsThatClimb) {
    for (const char *path : {"..", "../a", "a/..", "a/../b", "/.."})
        EXPECT_TRUE(has_dotdot(path)) << path;
    for (const char *path : {"", "...", "a..", "..a/b", "a/..b", "./a/.", "//"})
        EXPECT_FALSE(has_dotdot(path)) << path;
}

// The fields of a segment line, once by the scanner and once by the system's own.
struct fields {
    std::string keyword, path, rest;
    int64_t start = -1, size = -1, pts = -1;
    float duration = -1;
    int id = -1, count = 0;
    auto tied() const { return std::tie(count, keyword, path, start, size, pts, id, rest); }
};

static fields by_scan(std::string_view line) {
    fields f;
    line_scan scan{.rest = line};
    f.keyword = scan_word(&scan);
    f.path = scan_word(&scan);
    scan_long(&scan, &f.start);
    scan_float(&scan, &f.duration);
    scan_long(&scan, &f.size);
    scan_int(&scan, &f.id);
    scan_long(&scan, &f.pts);
    f.rest = scan_rest(&scan, 127);
    f.count = scan.count;
    return f;
}

static fields by_system(const std::string &line) {
    fields f;
    char keyword[512] = "", path[512] = "", rest[128] = "";
    f.count = std::max(0, sscanf(line.c_str(), "%s %s %ld %f %ld %d %ld %127c", keyword, path, &f.start,
                                 &f.duration, &f.size, &f.id, &f.pts, rest));
    f.keyword = keyword;
    f.path = path;
    f.rest = rest;
    return f;
}

static bool same_float(float a, float b) {
    return (std::isnan(a) && std::isnan(b)) || memcmp(&a, &b, sizeof(a)) == 0;
}

TEST(LineScan, TakesWhatTheSystemScannerTakes) {
    const std::string lines[] = {
        "",
        "SEGMENT:",
        "SEGMENT: a/b.ts 1546300800 9.984 1234567 17 90000 some free  text",
        "  SEGMENT:\ta/b.ts\v+15\f+9.5\r-3 -4 +5   x",
        "SEGMENT: a.ts 12abc 9.5",     // the word ends where the number does
        "SEGMENT: a.ts 12.5 3 4 5",    // the fraction becomes the next field
        "SEGMENT: a.ts +-5 9.5 1 1 1", // no number
        "SEGMENT: a.ts 99999999999999999999 1e39 -99999999999999999999 1 1 r",
        "SEGMENT: a.ts 1 -InfinitY 2 3 4",
        "SEGMENT: a.ts 1 nan 2 3 4 " + std::string(127, 'r'),
        "SEGMENT: a.ts 1 0x1.8p3 2 3 4 " + std::string(200, 'r'),
        std::string("SEGMENT: a\0b.ts 1 2 3", 21), // nothing hides behind a zero byte
        std::string("SEGMENT: a.ts 1 2 3 4 5 x\0y", 27),
        std::string("SEGMENT: a.ts 1 2 3 4 5 \0y", 26)};
    for (const std::string &line : lines) {
        // Exactly sized and not terminated: whoever reads on is caught.
        const std::vector<char> exact(line.begin(), line.end());
        const fields got = by_scan({exact.data(), exact.size()}), wanted = by_system(line);
        EXPECT_EQ(got.tied(), wanted.tied()) << line;
        EXPECT_TRUE(same_float(got.duration, wanted.duration)) << line;
    }
}

TEST(LineScan, FloatsAreThoseOfTheSystem) {
    std::vector<std::string> texts = {"0x",    "5.",    ".5",   "-",        "-0",  "1.4e-45", "1e400", "in",
                                      "-1e99", "nan(1", "infx", "0X1P-149", "+ 1", "--1",     "e5"};
    std::mt19937 random(7);
    for (int i = 0; i < 2000; i++) {
        char text[64];
        snprintf(text, sizeof(text), "%u.%ue%d", static_cast<unsigned>(random() % 100000),
                 static_cast<unsigned>(random()), static_cast<int>(random() % 90) - 45);
        texts.emplace_back(text);
    }
    for (const std::string &text : texts) {
        float wanted = 77, got = 77;
        int used = 0;
        const bool is_number = sscanf(text.c_str(), "%f%n", &wanted, &used) == 1;
        line_scan scan{.rest = text};
        EXPECT_EQ(scan_float(&scan, &got), is_number) << text;
        EXPECT_TRUE(same_float(got, wanted)) << text;
        EXPECT_TRUE(!is_number || scan.rest == text.substr(static_cast<size_t>(used))) << text;
    }
    // The system takes the number and loses the letter behind it.
    for (const char *text : {"1e", "9.5e+", "0x1p"}) {
        line_scan scan{.rest = text};
        float got = 77;
        EXPECT_TRUE(!scan_float(&scan, &got) && got == 77) << text;
    }
}

TEST(LineScan, ClampsAndCuts) {
    line_scan scan{.rest = "3000000000 -3000000000 abc"};
    int value = 0;
    EXPECT_TRUE(scan_int(&scan, &value) && value == INT32_MAX);
    EXPECT_TRUE(scan_int(&scan, &value) && value == INT32_MIN);
    EXPECT_FALSE(scan_int(&scan, &value));
    EXPECT_EQ(scan_word(&scan), "") << "a malformed field ends the scan";
    char buf[4] = "zzz";
    EXPECT_STREQ(copy_cut(buf, 0, "abc"), "zzz");
    EXPECT_STREQ(copy_cut(buf, sizeof(buf), "abcd"), "abc");
}
