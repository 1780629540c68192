#include "lib/xvdat.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <set>
#include <vector>

namespace {

struct rec {
    uint64_t a;
    uint32_t b;
};

int note(void *, size_t i, void *arg) {
    static_cast<std::vector<size_t> *>(arg)->push_back(i);
    return 0;
}

TEST(Xvec, GrowthIsStrictLinearAndZeroed) {
    xvec v{};
    const size_t steps[][3] = {{9, 10, 10}, {10, 10, 10}, {10, 4, 12}, {12, 5, 15}, {31, 10, 40}};
    for (const auto &[count, growblk, max_len] : steps) {
        const size_t before = v.max_len;
        ASSERT_EQ(xvec_reserve(&v, count, sizeof(rec), growblk), 0);
        EXPECT_EQ(v.max_len, max_len) << count;
        for (size_t i = before; i < v.max_len; ++i) {
            EXPECT_EQ(xvec_at<rec>(v, i)->a | xvec_at<rec>(v, i)->b, 0u);
            *xvec_at<rec>(v, i) = {i, 7};
        }
    }
    for (ssize_t i = 0; i < 45; ++i)
        EXPECT_EQ(xvec_add(&v, sizeof(rec), 10), i);
    EXPECT_EQ(xvec_at<rec>(v, 39)->a, 39u);

    const xvec kept = v;
    EXPECT_EQ(xvec_reserve(&v, SIZE_MAX, sizeof(rec), 10), -1);
    EXPECT_EQ(xvec_reserve(&v, SIZE_MAX / sizeof(rec), sizeof(rec), 10), -1);
    EXPECT_TRUE(v.data == kept.data && v.max_len == kept.max_len && v.len == 45);
    xvec_reset(&v);
}

// Every kind of list against a model of the taken slots.
TEST(Xvlst, SlotsFollowTheModel) {
    enum { GROWING, BOUND, MAPPED, EMBEDDED };
    alignas(8) static unsigned char buf[48 + 40 * 13 + 12];
    for (int kind : {GROWING, BOUND, MAPPED, EMBEDDED}) {
        xvlst l{};
        emblst *el = nullptr;
        int rc = kind == BOUND ? xvlst_bind(&l, buf, 40 * 13 + 12, 12) : 0;
        rc |= kind == MAPPED ? xvlst_mmap_fixed(&l, 40, 12) : 0;
        ASSERT_EQ(rc, 0);
        if (kind == EMBEDDED)
            el = emblst_create(buf, sizeof(buf), 12);
        std::set<size_t> taken;
        srand(11);
        for (int i = 0; i < 4000; ++i) {
            if (rand() % 100 < (i / 500 % 2 ? 30 : 70)) {
                ssize_t want = 0;
                while (taken.count(static_cast<size_t>(want)))
                    ++want;
                if (want == 40 && kind != GROWING)
                    want = kind == EMBEDDED ? -1 : -11;
                else
                    taken.insert(static_cast<size_t>(want));
                ASSERT_EQ(el ? emblst_add(el) : xvlst_add(&l, 12, 7), want);
            } else {
                const size_t slot = static_cast<size_t>(rand() % 40);
                const size_t last = el ? el->last : l.last;
                const int want = slot > last ? ERANGE : taken.erase(slot) ? 0 : EALREADY;
                ASSERT_EQ(el ? emblst_del(el, slot, nullptr) : xvlst_del(&l, slot, nullptr), want);
            }
            ASSERT_EQ(el ? el->count : l.len, taken.size());
        }
        std::vector<size_t> seen;
        el ? emblst_each_aux(el, &seen, note, nullptr) : xvlst_each_aux(&l, &seen, note, nullptr);
        EXPECT_EQ(seen, std::vector<size_t>(taken.begin(), taken.end()));
        xvlst_reset(&l);
    }
}

TEST(Xvlst, FixedStorageBorders) {
    alignas(8) unsigned char buf[64];
    xvlst l;
    EXPECT_EQ(xvlst_bind(&l, buf, 12, 12), -1);
    EXPECT_EQ(xvlst_bind(&l, buf, 25, 12), 0); // two elements would fit, their taken bytes would not
    EXPECT_EQ(l.max_len, 1u);
    xvlst_reset(&l);
    EXPECT_EQ(xvlst_mmap_fixed(&l, (size_t{1} << 60) + 1, 15), ENOMEM); // would wrap to 16 bytes
    EXPECT_EQ(xvlst_mmap_fixed(&l, 0, 16), ENOMEM);
    ASSERT_EQ(xvlst_mmap_fixed(&l, 100'000'000, 1000), 0); // reserved, not used
    xvlst_reset(&l);
}

} // namespace
