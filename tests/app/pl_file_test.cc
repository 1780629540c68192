#include "app/pl_file.h"

#include "tests/app/app_fixture.h"

#include <algorithm>
#include <random>
#include <sys/stat.h>

namespace {

using PlFile = App;

constexpr char HEAD[] = "#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-ALLOW-CACHE:YES\n";

TEST_F(PlFile, TextByteForByte) {
    const std::string ten = "#EXTINF:10.000000,\n";
    const std::string live = "#EXT-X-TARGETDURATION:10\n#EXT-X-MEDIA-SEQUENCE:1\n";
    const std::string fixed = "#EXT-X-TARGETDURATION:10\n#EXT-X-MEDIA-SEQUENCE:0\n";
    const std::string vod = "#EXT-X-PLAYLIST-TYPE:VOD\n" + fixed;
    const std::string event = "#EXT-X-PLAYLIST-TYPE:EVENT\n" + fixed;
    const std::string end = "#EXT-X-ENDLIST\n";
    const std::string cut = "#EXT-X-DISCONTINUITY\n";
    const std::string s1 = ten + "http://h/s1.ts\n";
    const std::string s2 = ten + "http://h/s2.ts\n";
    const std::string s3 = ten + "http://h/s3.ts\n";
    // Items: s0, s1, -, s2, s3 at 1000, 1010, (none), 1020, 1030; windows begin behind s0.
    const struct {
        const char *what;
        uint32_t tag;
        bool is_live;
        size_t first;
        time_t end_time;
        bool is_endlist;
        std::string text;
        bool is_eot;
    } cases[] = {
        {"live", PL_LIV, true, 1, 0, false, live + s1 + cut + s2 + s3, false},
        {"live with an end", PL_LIV, true, 1, 0, true, live + s1 + cut + s2 + s3 + end, false},
        {"leading marker", PL_LIV, true, 2, 0, false, live + s2 + s3, false},
        {"vod", PL_VOD, false, 1, 0, false, vod + s1 + cut + s2 + s3 + end, false},
        {"event", PL_EVE, false, 1, 0, false, event + s1 + cut + s2 + s3, false},
        {"live event", PL_EVE, true, 1, 0, false, live + s1 + cut + s2 + s3, false},
        {"end with an item", PL_EVE, true, 1, 1030, false, live + s1 + cut + s2 + end, true},
        {"end inside an item", PL_EVE, true, 1, 1039, false, live + s1 + cut + s2 + end, true},
        {"end with the last", PL_EVE, false, 1, 1040, false, event + s1 + cut + s2 + s3 + end, true},
        {"end beyond the list", PL_EVE, true, 1, 1041, false, live + s1 + cut + s2 + s3, false},
        {"end before all", PL_EVE, true, 1, 900, false, live + s1 + end, true},
    };
    strcpy(g_cfg.pl_item_pfx, "http://h/");
    pl_source *src = source();
    append(src, {10, 10, MARKER, 10, 10});
    for (const auto &one : cases)
        for (const bool is_gzipped : {false, true}) {
            SCOPED_TRACE(one.what);
            pl_task *made = task(src, one.tag, one.is_live, item(src, one.first), newest_item(src));
            made->end_time = one.end_time;
            made->is_gzipped = is_gzipped;
            newest_item(src)->is_endlist = one.is_endlist;
            ASSERT_EQ(mk_playlist(made), 0);
            EXPECT_FALSE(made->must_sync_playlist);
            EXPECT_EQ(made->is_eot, one.is_eot);
            EXPECT_EQ(read_file(made->fpath), HEAD + one.text);
            EXPECT_EQ(std::ifstream(made->fpath).get() == 0x1f, is_gzipped);
            EXPECT_FALSE(fs::exists(made->fpath + std::string(".tmp")));
        }
    newest_item(src)->is_endlist = false;
    src->item_pfx = strdup("own/");
    pl_task *own = task(src, PL_LIV, true, newest_item(src), newest_item(src));
    ASSERT_EQ(mk_playlist(own), 0);
    EXPECT_NE(read_file(own->fpath).find("\nown/s3.ts\n"), std::string::npos);
}

TEST_F(PlFile, DurationsAsPrintfWritesThem) {
    std::vector<float> durations = {0.0f,       -0.0f,       1e-45f,    4.9e-7f,    5e-7f,
                                    0.9999995f, 0.99999994f, 999999.9f, 999999.94f, 1e6f,
                                    -1.5f,      16777216.f,  3.4e38f,   59.999996f};
    for (int n = 1; n < 1024; n += 2)
        durations.push_back(static_cast<float>(n) / 128); // ties at the seventh digit
    std::mt19937 random(1);
    for (int n = 0; n < 4000; ++n) {
        const uint32_t bits = static_cast<uint32_t>(random());
        float any;
        memcpy(&any, &bits, sizeof(any));
        durations.push_back(std::isfinite(any) && n % 2 ? any : static_cast<float>(random()) / 7e7f);
    }
    g_mod_ll[LOG_MOD_APP] = LL_ERROR;
    pl_source *src = source();
    append(src, std::vector<float>(durations.size(), 1));
    std::string expected;
    pl_item *at = oldest_item(src);
    for (size_t n = 0; n < durations.size(); ++n, at = newer_item(at)) {
        char line[128];
        at->duration = durations[n];
        snprintf(line, sizeof(line), "#EXTINF:%f,\ns%zu.ts\n", at->duration, n);
        expected += line;
    }
    pl_task *made = task(src, PL_LIV, true, oldest_item(src), newest_item(src));
    ASSERT_EQ(mk_playlist(made), 0);
    const std::string text = read_file(made->fpath);
    EXPECT_TRUE(text.find(expected) == text.find("#EXTINF"));
}

TEST_F(PlFile, TargetDurationIsTheLongestRoundedHalfToEven) {
    const struct {
        std::vector<float> durations;
        const char *target;
    } cases[] = {{{9.5f, 10.4f}, "10"}, {{10.5f}, "10"}, {{11.5f}, "12"},         {{0.3f}, "1"},
                 {{0.5f}, "1"},         {{-3}, "1"},     {{1e18f}, "4294967295"}, {{2.4f, 7.6f, 3}, "8"}};
    g_cfg.max_plbk_sec = SIZE_MAX;
    for (const auto &one : cases) {
        pl_source *src = source("t" + std::to_string(g_ctx.sources.len));
        src->param.max_plbk_sec = SIZE_MAX;
        append(src, one.durations);
        pl_task *made = task(src, PL_LIV, true, oldest_item(src), newest_item(src));
        ASSERT_EQ(mk_playlist(made), 0);
        EXPECT_NE(read_file(made->fpath).find("TARGETDURATION:" + std::string(one.target) + "\n"),
                  std::string::npos)
            << one.target;
    }
}

// What is kept of the longest duration agrees with the list, through ties, markers and retirements.
TEST_F(PlFile, TargetDurationOfAWholeListThatMoves) {
    g_mod_ll[LOG_MOD_APP] = LL_ERROR;
    std::mt19937 random(3);
    pl_source *src = source("chan", "max_sec=100");
    for (int n = 0; n < 2000; ++n) {
        append(src,
               {n % 400 == 399 ? 101.0f : static_cast<float>(random() % 12) * (random() % 4 ? 1.0f : 3.0f)});
        if (!newest_item(src) || random() % 3 == 0)
            continue;
        double longest = 1;
        for (const pl_item *at = oldest_item(src); at; at = newer_item(at))
            longest = std::max(longest, at->duration);
        pl_task *made = task(src, PL_VOD, false, oldest_item(src), newest_item(src));
        ASSERT_EQ(mk_playlist(made), 0);
        const std::string target = "TARGETDURATION:" + std::to_string(static_cast<int>(longest)) + "\n";
        ASSERT_NE(read_file(made->fpath).find(target), std::string::npos) << n << ": " << target;
        ASSERT_EQ(rm_task(made), 0);
    }
}

TEST_F(PlFile, NamesAndTheirLimit) {
    const size_t others = dir.size() + strlen("/-LIV1-M0.m3u8");
    for (const size_t length : {126u, 127u, 128u})
        for (const bool use_dir : {false, true}) {
            g_cfg.use_sid_pl_dir = use_dir;
            g_ctx.last_tseq = 0;
            const std::string name = "~" + std::string(length - others - 1, use_dir ? 'd' : 'n');
            pl_source *src = source(name);
            append(src, {10});
            pl_task *made = task(src, PL_LIV, true, oldest_item(src), newest_item(src));
            const std::string full = dir + "/" + name + (use_dir ? "/" : "-") + "LIV1-M0.m3u8";
            take_log();
            EXPECT_EQ(mk_playlist(made), length > 127 ? -1 : 0);
            if (length > 127) {
                EXPECT_STREQ(made->fpath, "");
                expect_logged("mk_playlist: file path is too long: 128 bytes, max=127\n");
                continue;
            }
            EXPECT_EQ(made->fpath, full.substr(0, 126));
            EXPECT_TRUE(fs::exists(made->fpath));
            EXPECT_EQ(made->lpath, made->fpath + std::string(".alk"));
            EXPECT_TRUE(fs::exists(made->lpath));
        }
}

TEST_F(PlFile, LockFileContentAndEnd) {
    pl_source *src = source();
    append(src, {10});
    pl_task *made = task(src, PL_LIV, true, oldest_item(src), newest_item(src));
    ASSERT_EQ(mk_playlist(made), 0);
    const std::string fpath = made->fpath;
    const std::string lpath = made->lpath;
    struct stat st;
    ASSERT_EQ(stat(lpath.c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 16);
    EXPECT_EQ(st.st_mode & 0777 & ~0644u, 0u);
    std::ifstream held(lpath, std::ios::binary);
    lock_data lock{-1, -1};
    held.read(reinterpret_cast<char *>(&lock), sizeof(lock));
    EXPECT_EQ(lock.owner, getpid());
    EXPECT_EQ(lock.touch, 0);
    ASSERT_EQ(rm_task(made), 0);
    EXPECT_FALSE(fs::exists(fpath) || fs::exists(lpath));
    held.clear();
    held.seekg(0);
    held.sync();
    held.read(reinterpret_cast<char *>(&lock), sizeof(lock));
    EXPECT_EQ(lock.owner, 0) << "who still holds the file sees that nobody owns it";
}

TEST_F(PlFile, AFailedWriteLeavesNothingAndRecovers) {
    enum fault { DISK_FULL, NO_TMP, NO_RENAME, NO_LOCK, NO_DIR };
    const struct {
        fault what;
        bool is_later; // the task has a file already
    } cases[] = {{DISK_FULL, false}, {DISK_FULL, true}, {NO_TMP, false},  {NO_TMP, true},
                 {NO_RENAME, false}, {NO_RENAME, true}, {NO_LOCK, false}, {NO_DIR, false}};
    pl_source *src = source();
    append(src, {10, 10});
    const std::string path = dir + "/chan-LIV1-M0.m3u8";
    for (const auto &one : cases)
        for (const bool is_gzipped : {false, true}) {
            SCOPED_TRACE(one.what);
            g_ctx.last_tseq = 0;
            pl_task *made = task(src, PL_LIV, true, oldest_item(src), newest_item(src));
            made->is_gzipped = is_gzipped;
            ASSERT_TRUE(!one.is_later || mk_playlist(made) == 0);
            if (one.what == DISK_FULL)
                fs::create_symlink("/dev/full", path + ".tmp");
            else if (one.what == NO_DIR)
                fs::remove(dir);
            else if (one.what == NO_RENAME)
                fs::remove(path), fs::create_directories(path + "/x");
            else
                fs::create_directory(path + (one.what == NO_TMP ? ".tmp" : ".alk"));
            EXPECT_EQ(mk_playlist(made), -1);
            EXPECT_FALSE(made->must_sync_playlist);
            EXPECT_TRUE(!made->fpath[0] && !made->lpath[0] && made->lkfd == -1);
            for (const char *left : {one.what == NO_TMP ? "" : ".tmp", one.what == NO_LOCK ? "" : ".alk"})
                EXPECT_TRUE(!*left || !fs::exists(path + left)) << left;
            EXPECT_EQ(fs::exists(path), one.what == NO_RENAME);
            fs::remove_all(dir), fs::create_directory(dir);
            EXPECT_EQ(mk_playlist(made), 0);
            EXPECT_EQ(made->fpath, path);
            EXPECT_TRUE(fs::exists(path) && fs::exists(path + ".alk"));
            ASSERT_EQ(rm_task(made), 0);
            EXPECT_TRUE(fs::is_empty(dir));
        }
}

TEST_F(PlFile, LockTimeOutFollowsTheList) {
    pl_source *src = source();
    append(src, {10});
    const struct {
        uint32_t tag;
        int lk_tmout;
        long io_gap; // 0 = never
        int max_dur;
        int total_dur;
        size_t items;
        int expected;
    } cases[] = {
        {PL_LIV, 20, 5, 20, 100, 5, 20}, {PL_LIV, 20, 5, 21, 100, 5, 100}, {PL_VOD, 20, 9999, 21, 15, 5, 15},
        {PL_EVE, 20, 50, 5, 21, 3, 21},  {PL_EVE, 20, 50, 5, 20, 3, 20},   {PL_EVE, 40, 50, 5, 30, 3, 40},
        {PL_EVE, 20, 51, 5, 100, 3, 5},  {PL_EVE, 20, 51, 5, 100, 10, 5},  {PL_EVE, 20, 55, 5, 100, 11, 100},
        {PL_EVE, 20, 56, 5, 100, 11, 5}, {PL_EVE, 20, 0, 5, 100, 1, 100},  {PL_EVE, 3, 51, 5, 100, 1, 5},
    };
    pl_task *made = task(src, PL_LIV, true, oldest_item(src), newest_item(src));
    for (const auto &one : cases) {
        time_t now = 0;
        do { // within one second
            now = time(nullptr);
            made->tag.num = one.tag;
            made->lk_tmout_sec = one.lk_tmout;
            made->last_io_time = one.io_gap ? now - one.io_gap : 0;
            adjust_lk_timeout(made, one.max_dur, one.total_dur, one.items);
        } while (time(nullptr) != now);
        EXPECT_EQ(made->lk_tmout_sec, one.expected) << made->tag.sym << " gap " << one.io_gap;
    }
}

} // namespace
