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
        {"SEGMENT: a.ts", LINE_OK, ""},
        {"  SEGMENT:\ta/b..c/..d.ts 1 x", LINE_OK, ""},
        {"SEGMENT: " + p63 + " 1 10", LINE_OK, ""},
        {"SEGMENT: a.ts 1 -5", LINE_OK, ""},
        {"SEGMENT a.ts 1000 10", LINE_INVALID, ""},
        {"segment: a.ts 1000 10", LINE_INVALID, ""},
        {"SEGMENT:a.ts 1000 10", LINE_INVALID, ""},
        {"SEGMENT:", LINE_INVALID, ""},
        {"", LINE_INVALID, ""},
        {std::string("SEGMENT: a.ts\0b 1 10", 20), LINE_INVALID, ""},
        {"SEGMENT: " + p63 + "p 1 10", LINE_REFUSED, "64 bytes, max=63"},
        {"SEGMENT: ../a.ts 1 10", LINE_REFUSED, "leaves the data directory: 7 bytes, max=63 [../a.ts]"},
        {"SEGMENT: a/../b.ts 1 10", LINE_REFUSED, "leaves the data directory"},
        {"SEGMENT: a/.. 1 10", LINE_REFUSED, "leaves the data directory"},
        {"SEGMENT: .. 1 10", LINE_REFUSED, "leaves the data directory"},
        {"SEGMENT: a.ts 1 inf", LINE_REFUSED, "not a finite number"},
        {"SEGMENT: a.ts 1 -nan", LINE_REFUSED, "not a finite number"},
        {"SEGMENT: a.ts 1 1e39", LINE_REFUSED, "not a finite number"},
    };
    for (const auto &one : cases) {
        line_scan scan{.rest = one.line};
        item_data data;
        std::string_view rest;
        take_log();
        EXPECT_EQ(scan_item(&scan, &data, &rest), one.verdict) << one.line;
        expect_logged(one.logged);
    }
    const std::string line = std::string(cases[0].line) + std::string(200, 'x');
    line_scan scan{.rest = line};
    item_data data;
    std::string_view rest;
    ASSERT_EQ(scan_item(&scan, &data, &rest), LINE_OK);
    EXPECT_EQ(scan.count, 8);
    EXPECT_STREQ(data.path, "a.ts");
    EXPECT_TRUE(data.start_tm == 1000 && data.duration == 10 && data.fsize == 5 && data.src_nid == 1);
    EXPECT_EQ(data.ifrm1_pts, 900);
    EXPECT_EQ(rest.size(), 127u);
}

TEST_F(Item, RoundingNeverOutlivesTheItems) {
    pl_source *src = source("~chan");
    src->param.max_plbk_sec = INT64_MAX;
    append(src, {-1e30f, 1e30f, 1e14f}); // their sum is not what is left when they go one by one
    src->param.max_plbk_sec = 100;
    EXPECT_EQ(add_discontinuity(src), 0);
    EXPECT_EQ(dlep_count(src->items), 0u);
    EXPECT_EQ(src->total_sec, 0);
    append(src, {10});
    EXPECT_EQ(src->total_sec, 10);
}

TEST_F(Item, MarkersAndSkippedLines) {
    pl_source *src = source();
    append(src, {MARKER, 10, MARKER, MARKER, 0.5f, 75, MARKER});
    EXPECT_EQ(list_of(src), "s0.ts - s1.ts s2.ts - ");
    const size_t numbers[] = {0, 0, 1, 2, 2};
    for (size_t n = 0; n < std::size(numbers); ++n)
        EXPECT_EQ(item(src, n)->mseq, numbers[n]);
    EXPECT_EQ(src->total_sec, 85.5);
    expect_logged("invalid duration: 75.000000");
    for (const int64_t pts : {0, -1}) { // lines without a time stamp, unless they are the first
        item_data data{};
        strcpy(data.path, "no.ts");
        data.duration = 10;
        data.ifrm1_pts = pts;
        EXPECT_EQ(add_seg(src, &data), 0);
        expect_logged("add_seg: skipping no.ts for src[chan]\n");
    }
    EXPECT_EQ(dlep_count(src->items), 5u);
}

TEST_F(Item, FilesGoOneRetirementLate) {
    for (const bool has_own_dir : {false, true}) {
        const std::string where = has_own_dir ? dir + "/own" : dir;
        fs::create_directories(where);
        const std::string name = has_own_dir ? "own" : "conf";
        pl_source *src = source(name, "max_sec=100" + (has_own_dir ? " data_dir=" + where : ""));
        for (size_t n = 0; n < 14; ++n)
            write_file(where + "/s" + std::to_string(n) + ".ts", "x");
        auto oldest_file = [&] {
            size_t n = 0;
            while (!fs::exists(where + "/s" + std::to_string(n) + ".ts"))
                ++n;
            return n;
        };
        append(src, std::vector<float>(10, 10));
        EXPECT_EQ(dlep_count(src->items), 10u);
        EXPECT_EQ(src->rcy_fpath, nullptr);
        append(src, {10});
        EXPECT_EQ(oldest_item(src)->mseq, 1u);
        EXPECT_EQ(oldest_file(), 0u);
        append(src, {MARKER, 10});
        EXPECT_EQ(oldest_item(src)->mseq, 2u);
        EXPECT_EQ(oldest_file(), 1u);
        append(src, {101}); // empties the list
        EXPECT_EQ(dlep_count(src->items), 0u);
        EXPECT_EQ(src->total_sec, 0);
        EXPECT_STREQ(src->rcy_fpath, "s12.ts");
        EXPECT_EQ(oldest_file(), 12u);
        ASSERT_EQ(xvlst_del(&g_ctx.sources, static_cast<size_t>(src->idx), rm_src_rec), 0);
        EXPECT_TRUE(fs::exists(where + "/s12.ts")) << "the last one stays";
    }
}

TEST_F(Item, FileSizes) {
    write_file(dir + "/a.ts", "12345");
    for (const std::string &where : {dir, dir + "/"}) {
        EXPECT_EQ(verify_item_size(where.c_str(), "a.ts", 5), 0);
        EXPECT_EQ(verify_item_size(where.c_str(), "a.ts", 4), -1);
        EXPECT_EQ(verify_item_size(where.c_str(), "b.ts", 5), -2);
    }
    EXPECT_EQ(verify_item_size("", (dir + "/a.ts").c_str(), 5), 0);
    // A line that fails drops the rest of its read; the next read is taken.
    g_cfg.verify_item_filesize = true;
    pl_source *src = source("chan", "max_sec=100 data_dir=" + dir);
    feed(src, producer, "SEGMENT: a.ts 1 10 5 1 1\nSEGMENT: a.ts 2 10 4 1 2\nSEGMENT: a.ts 3 10 5 1 3\nSEG");
    EXPECT_EQ(dlep_count(src->items), 1u);
    EXPECT_EQ(src->tail, nullptr);
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
        {"\r\n\n", 4, ""},
        {"nonsense\n" + line + "\n", 5, ""},
        {"SEGMENT: ../x 1 10 5 1 1\n" + line + "\n", 6, ""},
        {frag, 6, frag},
        {"\n", 6, ""}, // the fragment, complete: its path is too long
        {frag + "f", 6, ""},
        {line + "\n", 7, ""},
        {line + "\r" + line, 7, line + "\r" + line},
        {"\n", 9, ""},
        {line.substr(0, 12) + std::string("\0evil", 5), 9, "?"}, // not the start of a shorter path
        {line.substr(12) + "\n", 9, ""},
    };
    for (const auto &one : cases) {
        feed(src, producer, one.text);
        EXPECT_EQ(dlep_count(src->items), one.items) << one.text;
        EXPECT_EQ(src->tail ? src->tail : "", one.tail) << one.text;
    }
    // What followed the init line counts, and so does what is read with a full buffer.
    ASSERT_EQ(connect("more", "", "SEGMENT: "), 0);
    pl_source *more = src_by_name("more");
    feed(more, producer, "b.ts 1 10 1 1 1\n" + std::string(239, ' ') + "\n");
    EXPECT_EQ(list_of(more), "b.ts ");
    // Cut anywhere, what arrives makes the same list.
    const std::string text =
        "SEGMENT: a.ts 1 10 1 1 1\nSEGMENT: DISCONTINUITY\r\n\nSEGMENT: b.ts 2 9.5 1 1 1\n";
    for (size_t n = 1; n + 1 < text.size(); ++n) {
        pl_source *cut = source("~cut" + std::to_string(n));
        const size_t second = n + (text.size() - n) / 2;
        feed(cut, producer, text.substr(0, n));
        feed(cut, producer, text.substr(n, second - n));
        feed(cut, producer, text.substr(second));
        EXPECT_EQ(list_of(cut), "a.ts - b.ts ") << n;
    }
}

} // namespace
