#include "app/item.h"

#include "tests/app/app_fixture.h"

namespace {

using Item = App;

TEST_F(Item, LinesAndTheirRefusals) {
    const std::string p63(63, 'p');
    const struct {
        std::string line;
        line_verdict verdict;
        const char *logged; // of a refusal
    } cases[] = {
        {"SEGMENT: a.ts 1000 10.0 5 1 900 rest of it", LINE_OK, ""},
        {"  SEGMENT:\ta/b..c/..d.ts 1 x", LINE_OK, ""},
        {"SEGMENT: " + p63 + " 1 10", LINE_OK, ""},
        {"SEGMENT a.ts 1000 10", LINE_INVALID, ""},
        {"segment: a.ts 1000 10", LINE_INVALID, ""},
        {"SEGMENT:", LINE_INVALID, ""},
        {std::string("SEGMENT: a.ts\0b 1 10", 20), LINE_INVALID, ""},
        {"SEGMENT: " + p63 + "p 1 10", LINE_REFUSED, "64 bytes, max=63"},
        {"SEGMENT: ../a.ts 1 10", LINE_REFUSED, "leaves the data directory: 7 bytes, max=63 [../a.ts]"},
        {"SEGMENT: a/../b.ts 1 10", LINE_REFUSED, "leaves the data directory"},
        {"SEGMENT: a/.. 1 10", LINE_REFUSED, "leaves the data directory"},
        {"SEGMENT: a.ts 1 inf", LINE_REFUSED, "not a finite number"},
        {"SEGMENT: a.ts 1 -1e-30", LINE_REFUSED, "not a finite number"},
        {"SEGMENT: a.ts 1 -0.0 5 1 900", LINE_OK, ""},
    };
    for (const auto &one : cases) {
        line_scan scan{.rest = one.line};
        item_data data;
        std::string_view rest;
        EXPECT_EQ(scan_item(&scan, &data, &rest), one.verdict) << one.line;
        expect_logged(one.logged);
    }
}

TEST_F(Item, RoundingNeverOutlivesTheItems) {
    pl_source *src = source("~chan");
    src->param.max_plbk_sec = INT64_MAX;
    append(src, {8e18f, 600}); // their sum is not what is left when they go one by one
    src->param.max_plbk_sec = 100;
    EXPECT_EQ(add_discontinuity(src), 0);
    EXPECT_EQ(dlep_count(src->items), 0u);
    EXPECT_EQ(src->total_sec, 0);
    append(src, {10, MARKER, 85, 60});
    EXPECT_EQ(src->total_sec, 60);
    EXPECT_EQ(breaks_of(src), "2 ") << "of the source's life";
}

TEST_F(Item, MarkersAndSkippedLines) {
    pl_source *src = source();
    append(src, {MARKER, 10, MARKER, MARKER, 0.5f, 75, MARKER});
    EXPECT_EQ(list_of(src), "s0.ts - s1.ts s2.ts - ");
    EXPECT_EQ(breaks_of(src), "0 0 1 1 1 ");
    EXPECT_TRUE(item(src, 1)->mseq == 0 && newest_item(src)->mseq == 2);
    EXPECT_EQ(src->total_sec, 85.5);
    expect_logged("invalid duration: 75.000000");
    feed(src, producer, "SEGMENT: no.ts 1 10 1 1 0\nSEGMENT: no.ts 1 10 1 1 -1\n"); // without a time stamp
    EXPECT_EQ(dlep_count(src->items), 5u);
}

TEST_F(Item, FileSizes) {
    write_file(dir + "/a.ts", "12345");
    // A line that fails drops the rest of its read; the next read is taken.
    g_cfg.verify_item_filesize = true;
    pl_source *src = source("chan", "max_sec=100 data_dir=" + dir);
    feed(src, producer, "SEGMENT: a.ts 1 10 5 1 1\nSEGMENT: a.ts 2 10 4 1 2\nSEGMENT: a.ts 3 10 5 1 3\nSEG");
    EXPECT_EQ(dlep_count(src->items), 1u);
    EXPECT_EQ(partial_line(src), "");
    feed(src, producer, "SEGMENT: a.ts 3 10 5 1 3\n");
    EXPECT_EQ(dlep_count(src->items), 2u);
}

TEST_F(Item, ReadsAndPartialLines) {
    pl_source *src = source();
    const std::string line = "SEGMENT: a.ts 1000 10 5 1 900";
    const std::string frag = "SEGMENT: " + std::string(128 - 9, 'f');
    const struct {
        std::string text;
        size_t items; // in the list afterwards
        std::string tail;
    } cases[] = {
        {line + "\n", 1, ""},
        {line + "\r\n\r\n" + line + "  \n", 3, ""},
        {line.substr(0, 12), 3, line.substr(0, 12)},
        {line.substr(12) + "\nSEG", 4, "SEG"},
        {"\n", 4, ""},
        {"nonsense\n" + line + "\n", 5, ""},
        {frag, 5, frag},
        {"\n", 5, ""}, // the fragment, complete: its path is too long
        {frag + "f", 5, ""},
        {line + "\r" + line, 5, line + "\r" + line},
        {"\n", 7, ""},
        {line.substr(0, 12) + std::string("\0evil", 5), 7, line.substr(0, 12) + std::string("\0evil", 5)},
        {line.substr(12) + "\n" + line + "\n", 8, ""}, // not a shorter path, and no harm to the next
    };
    for (const auto &one : cases) {
        feed(src, producer, one.text);
        EXPECT_EQ(dlep_count(src->items), one.items) << one.text;
        EXPECT_EQ(partial_line(src), one.tail) << one.text;
    }
}

} // namespace
