#include "app/pl_stretch.h"

#include "app/pl_event.h"
#include "tests/app/app_fixture.h"

#include <random>

namespace {

class PlStretch : public App {
  protected:
    size_t upto(size_t n) { return std::uniform_int_distribution<size_t>(0, n)(dice); }
    bool one_in(size_t n) { return upto(n - 1) == 0; }

    std::vector<float> some_durations(size_t count) {
        std::vector<float> out;
        for (size_t i = 0; i < count; ++i)
            out.push_back(one_in(100) ? MARKER : 0.25f + static_cast<float>(upto(9000)) / 1000);
        return out;
    }
    // What a task with that window writes; the number of seconds its lock may stay, and whether it ended.
    std::string written(pl_source *src, const pl_task &like, bool is_gzipped) {
        pl_task *made = add_task("test", src, like.tag.num);
        const pl_task blank = *made;
        *made = like;
        made->tseq = blank.tseq;
        made->src = src;
        made->idx = blank.idx;
        made->pprm_idx = made->lkfd = -1;
        made->is_gzipped = is_gzipped;
        EXPECT_EQ(mk_playlist(made), 0);
        std::string text = is_gzipped ? unpack(made->fpath) : read_file(made->fpath);
        text += std::to_string(made->lk_tmout_sec) + (made->is_eot ? " EOT" : "");
        pprm_task(made);
        pprm_task_cleanup();
        return text;
    }
    // Of exactly one member, as readers see it that stop at its end.
    static std::string unpack(const std::string &path) {
        std::ifstream file(path, std::ios::binary);
        std::string packed((std::istreambuf_iterator<char>(file)), {});
        std::string text(4 << 20, '\0');
        z_stream z{};
        EXPECT_EQ(inflateInit2(&z, MAX_WBITS + 16), Z_OK);
        z.next_in = reinterpret_cast<Bytef *>(packed.data());
        z.avail_in = static_cast<uInt>(packed.size());
        z.next_out = reinterpret_cast<Bytef *>(text.data());
        z.avail_out = static_cast<uInt>(text.size());
        EXPECT_EQ(inflate(&z, Z_FINISH), Z_STREAM_END) << "length or checksum";
        EXPECT_EQ(z.avail_in, 0u) << "a second member";
        text.resize(z.total_out);
        inflateEnd(&z);
        return text;
    }

    std::mt19937 dice{20};
};

// Whatever shapes a playlist is drawn at random: the compressed file says what the plain one does.
TEST_F(PlStretch, SaysWhatPlainTextSays) {
    static constexpr uint32_t TAGS[] = {PL_LIV, PL_VOD, PL_EVE};
    for (const bool is_sorted : {false, true}) {
        pl_source *src = source(is_sorted ? "sorted" : "plain", "max_sec=12000");
        size_t long_ones = 0;
        for (int turn = 0; turn < 60; ++turn) {
            // Start times in disorder give numbers that do not run on.
            src->manif.is_feeding = src->manif.must_sort = is_sorted && turn < 5;
            start += is_sorted && turn < 5 ? -static_cast<long>(upto(3000)) : 0;
            append(src, some_durations(1 + upto(turn < 5 ? 700 : 200)));
            snprintf(g_cfg.pl_item_pfx, sizeof(g_cfg.pl_item_pfx), "http://%s/", one_in(8) ? "b" : "a");
            if (one_in(20))
                stretch_drop(src);
            for (int window = 0; window < 6; ++window) {
                const size_t count = dlep_count(src->items);
                const size_t first = one_in(3) ? 0 : upto(count - 1);
                pl_task like{};
                like.tag.num = TAGS[upto(2)];
                like.ifirst = item(src, first);
                like.ilast = one_in(3) ? newest_item(src) : item(src, first + upto(count - 1 - first));
                like.ilast->le.note |= one_in(10) ? ITEM_ENDS_LIST : 0;
                like.is_live = one_in(2);
                like.is_strict = turn % 20 >= 10;
                like.end_time =
                    one_in(2) ? item(src, upto(count - 1))->start_tm + static_cast<long>(upto(20)) : 0;
                SCOPED_TRACE(testing::Message()
                             << turn << ": " << like.ifirst->mseq << ".." << like.ilast->mseq);
                like.src = src;
                like.duration = static_cast<long>(upto(12000));
                ASSERT_EQ(reach_end(&like), shift_from(like.ifirst, static_cast<double>(like.duration)));
                ASSERT_EQ(written(src, like, true), written(src, like, false));
                long_ones += like.ilast->mseq > like.ifirst->mseq + 2 * STRETCH_ITEMS;
            }
        }
        EXPECT_GT(long_ones, 50u);
        EXPECT_TRUE(src->stretches);
        set_clock(rqs_now().tv_sec + STRETCH_KEEP_SEC);
        stretch_age(src);
        EXPECT_FALSE(src->stretches) << "nobody has used them for an hour";
    }
}

TEST_F(PlStretch, ArePreparedAFewAtATime) {
    pl_source *src = source();
    append(src, std::vector<float>(8 * STRETCH_ITEMS + 1, 2));
    pl_task task{};
    task.src = src;
    task.ifirst = oldest_item(src);
    task.ilast = newest_item(src);
    EXPECT_TRUE(stretch_prepare(&task, 1)) << "plain text needs none";
    task.is_gzipped = true;
    for (const char *prefix : {"a/", "b/"}) {
        strcpy(g_cfg.pl_item_pfx, prefix);
        int calls = 1;
        while (!stretch_prepare(&task, 3) && calls < 9)
            ++calls;
        EXPECT_EQ(calls, 3) << prefix;
    }
}

} // namespace
