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
        uint32_t tag;
        bool is_live;
        size_t first;
        time_t end_time;
        std::string text;
        bool is_eot;
    } cases[] = {
        {PL_LIV, true, 1, 0, live + s1 + cut + s2 + s3, false},
        {PL_LIV, true, 2, 0, live + s2 + s3, false},
        {PL_VOD, false, 1, 0, vod + s1 + cut + s2 + s3 + end, false},
        {PL_EVE, false, 1, 0, event + s1 + cut + s2 + s3, false},
        {PL_EVE, true, 1, 1030, live + s1 + cut + s2 + end, true},
        {PL_EVE, true, 1, 1039, live + s1 + cut + s2 + end, true},
        {PL_EVE, false, 1, 1040, event + s1 + cut + s2 + s3 + end, true},
        {PL_EVE, true, 1, 1041, live + s1 + cut + s2 + s3, false},
        {PL_EVE, true, 1, 900, live + s1 + end, true},
    };
    strcpy(g_cfg.pl_item_pfx, "http://h/");
    pl_source *src = source();
    append(src, {10, 10, MARKER, 10, 10});
    for (const auto &one : cases)
        for (const bool is_gzipped : {false, true}) {
            SCOPED_TRACE(one.text);
            pl_task *made = task(src, one.tag, one.is_live, item(src, one.first), newest_item(src));
            made->end_time = one.end_time;
            made->is_gzipped = is_gzipped;
            ASSERT_EQ(mk_playlist(made), 0);
            EXPECT_EQ(made->is_eot, one.is_eot);
            EXPECT_EQ(read_file(made->fpath), HEAD + one.text);
            EXPECT_EQ(std::ifstream(made->fpath).get() == 0x1f, is_gzipped);
        }
}

TEST_F(PlFile, DurationsAsPrintfWritesThem) {
    std::vector<float> durations = {0.0f,       -0.0f, 4.9e-7f, 5e-7f,   0.9999995f,
                                    999999.94f, 1e6f,  -1.5f,   3.4e38f, 59.999996f};
    for (int n = 1; n < 1024; n += 2)
        durations.push_back(static_cast<float>(n) / 128); // ties at the seventh digit
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

TEST_F(PlFile, TargetDurationIsRoundedHalfToEven) {
    const std::pair<float, int> cases[] = {{10.4f, 10}, {10.5f, 10}, {11.5f, 12}, {0.5f, 1}, {-3, 1}};
    pl_source *src = source("chan", "max_sec=100");
    append(src, {10, 10});
    for (const auto &[duration, target] : cases) {
        newest_item(src)->duration = duration;
        pl_task *made = task(src, PL_LIV, true, newest_item(src), newest_item(src));
        ASSERT_EQ(mk_playlist(made), 0);
        EXPECT_NE(read_file(made->fpath).find("DURATION:" + std::to_string(target) + "\n"),
                  std::string::npos);
    }
}

TEST_F(PlFile, NamesAndTheirLimit) {
    const size_t others = dir.size() + strlen("/~-LIV1-M0.m3u8");
    for (const size_t length : {126u, 127u, 128u})
        for (const bool use_dir : {false, true}) {
            g_cfg.use_sid_pl_dir = use_dir;
            g_ctx.last_tseq = 0;
            const std::string name = "~" + std::string(length - others, use_dir ? 'd' : 'n');
            pl_source *src = source(name);
            append(src, {10});
            pl_task *made = task(src, PL_LIV, true, oldest_item(src), newest_item(src));
            const std::string full = dir + "/" + name + (use_dir ? "/" : "-") + "LIV1-M0.m3u8";
            EXPECT_EQ(mk_playlist(made), length > 127 ? -1 : 0);
            EXPECT_EQ(made->fpath, length > 127 ? "" : full.substr(0, 126));
            EXPECT_TRUE(length > 127 ||
                        (fs::exists(made->fpath) && fs::exists(made->fpath + std::string(".alk"))));
        }
}

TEST_F(PlFile, AHeldLockFileTellsThatNobodyOwnsIt) {
    pl_source *src = source();
    append(src, {10});
    pl_task *made = task(src, PL_LIV, true, oldest_item(src), newest_item(src));
    ASSERT_EQ(mk_playlist(made), 0);
    std::ifstream held(made->lpath, std::ios::binary);
    for (const int64_t owner : {static_cast<int64_t>(getpid()), int64_t{0}}) {
        lock_data lock{-1, -1};
        held.seekg(0);
        held.sync();
        held.read(reinterpret_cast<char *>(&lock), sizeof(lock));
        EXPECT_EQ(lock.owner, owner);
        ASSERT_EQ(owner ? rm_task(made) : 0, 0);
    }
    EXPECT_TRUE(fs::is_empty(dir));
}

TEST_F(PlFile, AFailedWriteLeavesNothingHalfAndRecovers) {
    enum fault { DISK_FULL, NO_TMP, NO_RENAME, NO_LOCK, NO_DIR };
    // What happens, and whether the task has a file already: it keeps that only where nothing was begun.
    const std::pair<fault, bool> cases[] = {{DISK_FULL, false}, {DISK_FULL, true}, {NO_TMP, true},
                                            {NO_TMP, false},    {NO_RENAME, true}, {NO_LOCK, false},
                                            {NO_DIR, false}};
    pl_source *src = source();
    append(src, {10, 10});
    const std::string path = dir + "/chan-EVE1-M0.m3u8";
    const mode_t mask = umask(0); // as in the daemon
    for (const auto &[what, is_later] : cases)
        for (const bool is_gzipped : {false, true}) {
            SCOPED_TRACE(what);
            g_ctx.last_tseq = 0;
            pl_task *made = task(src, PL_EVE, true, oldest_item(src), newest_item(src));
            made->is_gzipped = is_gzipped;
            ASSERT_TRUE(!is_later || mk_playlist(made) == 0);
            made->end_time = start; // the end is in the list
            made->must_sync_playlist = true;
            if (what == DISK_FULL)
                fs::create_symlink("/dev/full", path + ".tmp");
            else if (what == NO_DIR)
                fs::remove(dir);
            else if (what == NO_RENAME)
                fs::remove(path), fs::create_directories(path + "/x");
            else
                fs::create_directory(path + (what == NO_TMP ? ".tmp" : ".alk"));
            EXPECT_EQ(mk_playlist(made), -1);
            EXPECT_FALSE(made->is_eot);
            const bool is_kept = what == NO_TMP && is_later;
            EXPECT_EQ(made->fpath[0] && made->lpath[0] && made->lkfd >= 0 && made->must_sync_playlist,
                      is_kept);
            EXPECT_TRUE(is_kept || (!made->fpath[0] && !made->lpath[0] && made->lkfd == -1));
            EXPECT_EQ(fs::exists(path), is_kept || what == NO_RENAME);
            EXPECT_EQ(fs::exists(path + ".alk"), is_kept || what == NO_LOCK);
            EXPECT_EQ(fs::exists(path + ".tmp"), what == NO_TMP);
            fs::remove_all(dir), fs::create_directory(dir);
            EXPECT_EQ(mk_playlist(made), 0);
            EXPECT_TRUE(made->is_eot);
            EXPECT_EQ(made->fpath, path);
            EXPECT_EQ(fs::status(path).permissions(), fs::perms{0644});
            ASSERT_EQ(rm_task(made), 0);
        }
    umask(mask);
}

TEST_F(PlFile, LockTimeOutFollowsTheList) {
    pl_source *src = source();
    append(src, {10});
    const struct {
        uint32_t tag;
        long io_gap; // 0 = never
        int max_dur;
        int total_dur;
        size_t items;
        int expected; // from 20 on
    } cases[] = {{PL_LIV, 5, 20, 100, 5, 20}, {PL_LIV, 5, 21, 100, 5, 100}, {PL_VOD, 9999, 21, 15, 5, 15},
                 {PL_EVE, 50, 5, 21, 3, 21},  {PL_EVE, 51, 5, 100, 10, 5},  {PL_EVE, 55, 5, 100, 11, 100},
                 {PL_EVE, 56, 5, 100, 11, 5}, {PL_EVE, 0, 5, 100, 1, 100}};
    pl_task *made = task(src, PL_LIV, true, oldest_item(src), newest_item(src));
    for (const auto &one : cases) {
        time_t now = 0;
        do { // within one second
            now = time(nullptr);
            made->tag.num = one.tag;
            made->lk_tmout_sec = 20;
            made->last_io_time = one.io_gap ? now - one.io_gap : 0;
            adjust_lk_timeout(made, one.max_dur, one.total_dur, one.items);
        } while (time(nullptr) != now);
        EXPECT_EQ(made->lk_tmout_sec, one.expected) << &one - cases;
    }
}

} // namespace
