#include "lib/xvdat.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <set>
#include <vector>

namespace {

struct rec {
    uint64_t a;
    uint32_t b;
};

// Answers 1 at the index that `arg` points to, and counts its calls.
size_t calls;
int at_index(void *, size_t i, void *arg) {
    ++calls;
    return i == *static_cast<size_t *>(arg);
}

int note(void *, size_t i, void *arg) {
    static_cast<std::vector<size_t> *>(arg)->push_back(i);
    return 0;
}

TEST(Xvec, GrowthIsStrictLinearAndZeroed) {
    xvec v{};
    EXPECT_EQ(xvec_reserve(&v, 0, sizeof(rec), 10), 0);
    const size_t steps[][3] = {{1, 10, 10}, {9, 10, 10}, {10, 10, 10},
                               {10, 4, 12}, {12, 5, 15}, {31, 10, 40}};
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
    EXPECT_EQ(v.max_len, 50u);
    EXPECT_EQ(xvec_at<rec>(v, 39)->a, 39u);

    const xvec kept = v;
    EXPECT_EQ(xvec_reserve(&v, SIZE_MAX, sizeof(rec), 10), -1);
    EXPECT_EQ(xvec_reserve(&v, SIZE_MAX / sizeof(rec), sizeof(rec), 10), -1);
    EXPECT_EQ(xvec_expand(&v, SIZE_MAX, sizeof(rec), 10), -1);
    EXPECT_TRUE(v.data == kept.data && v.max_len == kept.max_len && v.len == 45);
    EXPECT_DEATH((xvdat_flags = 1, xvec_reserve(&v, SIZE_MAX, sizeof(rec), 10)), "xvdat_flags");
    EXPECT_DEATH(xvec_reserve(&v, 1, sizeof(rec), 0), "v && \\(growblk > 0\\)");
    xvec_reset(&v);
    EXPECT_TRUE(!v.data && v.max_len == 0 && v.len == 0);
}

TEST(Xvec, BoundVectorNeverGrows) {
    rec buf[3];
    xvec v;
    EXPECT_EQ(xvec_bind(&v, buf, sizeof(rec) - 1, sizeof(rec)), -1);
    memset(buf, 0xff, sizeof(buf));
    ASSERT_EQ(xvec_bind(&v, buf, sizeof(buf), sizeof(rec)), 0);
    EXPECT_EQ(buf[2].a, 0u);
    for (ssize_t i : {0, 1, 2, -1})
        EXPECT_EQ(xvec_add(&v, sizeof(rec), 8), i);
    EXPECT_EQ(xvec_reserve(&v, 2, sizeof(rec), 8), 0);
    EXPECT_EQ(xvec_reserve(&v, 3, sizeof(rec), 8), -11);
    xvec_reset(&v);
    EXPECT_TRUE(v.data == buf && v.max_len == 3 && v.len == 0);
}

TEST(Xvec, IterationRule) {
    xvec v{};
    for (int i = 0; i < 5; ++i)
        xvec_add(&v, 4, 8);
    size_t hit = 2, stop = 99;
    calls = 0;
    EXPECT_EQ(xvec_each_aux(&v, at_index, &hit, &stop), 1);
    EXPECT_EQ(stop, 2u);
    EXPECT_EQ(calls, 3u);
    EXPECT_EQ(xvec_find(&v, &hit, at_index, nullptr), 0); // the last call's value
    EXPECT_EQ(calls, 8u);
    EXPECT_EQ(xvec_each(
                  &v, [](void *, size_t i) { return i == 3 ? 5 : 0; }, &stop),
              5);
    EXPECT_EQ(stop, 3u);
    xvec_reset(&v);
}

TEST(Xvlst, ReusesTheLowestFreeSlot) {
    xvlst l{};
    EXPECT_EQ(xvlst_del(&l, 0, nullptr), EALREADY);
    for (ssize_t i = 0; i < 5; ++i)
        EXPECT_EQ(xvlst_add(&l, sizeof(rec), 5), i);
    EXPECT_EQ(l.max_len, 5u);
    EXPECT_EQ(l.avail, -1);
    EXPECT_EQ(xvlst_reserve(&l, 5, sizeof(rec), 5), 0);
    EXPECT_EQ(l.max_len, 5u);
    xvlst_at<rec>(l, 2)->a = 42;
    EXPECT_EQ(
        xvlst_del(&l, 2,
                  [](void *data, size_t i) { return static_cast<int>(++static_cast<rec *>(data)[i].a); }),
        0);
    EXPECT_EQ(xvlst_at<rec>(l, 2)->a, 43u);
    EXPECT_EQ(xvlst_del(&l, 2, nullptr), EALREADY);
    EXPECT_EQ(xvlst_del(&l, 5, nullptr), ERANGE);
    EXPECT_EQ(xvlst_add(&l, sizeof(rec), 5), 2);
    EXPECT_EQ(xvlst_add(&l, sizeof(rec), 5), 5);
    EXPECT_EQ(l.max_len, 10u);
    EXPECT_EQ(xvlst_expand(&l, SIZE_MAX, sizeof(rec), 5), -1);
    EXPECT_EQ(xvlst_add(&l, SIZE_MAX / 6, 5), 6); // room is left, nothing is allocated
    xvlst_reset(&l);
    xvlst_reset(&l);
    EXPECT_TRUE(!l.data && !l.taken && l.max_len == 0);
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

TEST(Xvlst, FindsRemovesAndPurges) {
    constexpr auto even = [](void *, size_t i, void *) { return i % 2 ? 0 : 1; };
    constexpr auto delete_it = [](void *, size_t i, void *l) {
        return xvlst_del(static_cast<xvlst *>(l), i, nullptr) + 1;
    };
    constexpr auto reset_it = [](void *, size_t, void *l) { return xvlst_reset(static_cast<xvlst *>(l)), 6; };
    static std::vector<size_t> purged;
    xvlst l{};
    for (int i = 0; i < 8; ++i)
        xvlst_add(&l, 4, 3);
    xvlst_del(&l, 0, nullptr);

    size_t hit = 2, stop = 99;
    calls = 0;
    EXPECT_EQ(xvlst_find(&l, &hit, at_index, nullptr), 1); // stops, also without an index
    EXPECT_EQ(calls, 2u);
    EXPECT_EQ(xvlst_each_aux(&l, &hit, at_index, nullptr), 0);
    EXPECT_EQ(calls, 9u);
    EXPECT_EQ(xvlst_find(&l, &hit, at_index, &stop), 1);
    EXPECT_EQ(stop, 2u);

    EXPECT_EQ(xvlst_rmif(&l, nullptr, even, &stop), 3);
    EXPECT_EQ(l.len, 4u);
    EXPECT_EQ(xvlst_rmif(&l, &l, delete_it, &stop), -1); // nothing is left for the list to delete
    EXPECT_EQ(stop, 1u);

    xvlst_purge_all(&l, [](void *, size_t i) { return purged.push_back(i), 1; });
    EXPECT_EQ(purged, (std::vector<size_t>{3, 5, 7}));
    EXPECT_TRUE(l.len == 0 && l.last == 0 && l.avail == 0);
    for (ssize_t i = 0; i < 8; ++i)
        EXPECT_EQ(xvlst_add(&l, 4, 3), i);

    EXPECT_EQ(xvlst_each_aux(&l, &l, reset_it, nullptr), 6); // and the iteration ends there
    xvlst_purge_all(&l, nullptr);
    EXPECT_EQ(l.avail, -1);
    EXPECT_EQ(xvlst_add(&l, 4, 3), 0);
    EXPECT_EQ(xvlst_each(
                  &l, [](void *, size_t i) { return i ? 0 : 3; }, &stop),
              3);
    xvlst_reset(&l);
}

TEST(Xvlst, FixedStorageBorders) {
    alignas(8) unsigned char buf[64];
    xvlst l;
    EXPECT_EQ(xvlst_bind(&l, buf, 12, 12), -1);
    EXPECT_EQ(xvlst_bind(&l, buf, 25, 12), 0); // two elements would fit, their taken bytes would not
    EXPECT_EQ(l.max_len, 1u);
    EXPECT_EQ(l.taken, buf + 12);
    xvlst_reset(&l);

    EXPECT_EQ(xvlst_mmap_fixed(&l, (size_t{1} << 60) + 1, 15), ENOMEM); // would wrap to 16 bytes
    EXPECT_EQ(xvlst_mmap_fixed(&l, size_t{1} << 50, 16), ENOMEM);
    EXPECT_EQ(xvlst_mmap_fixed(&l, 0, 16), ENOMEM);
    ASSERT_EQ(xvlst_mmap_fixed(&l, 100'000'000, 1000), 0); // reserved, not used
    EXPECT_TRUE(l.flags == 6 && l.meta.num == 1000 && xvlst_add(&l, 1000, 1) == 0);
    EXPECT_DEATH((l.data = static_cast<char *>(l.data) + 1, xvlst_reset(&l)), "0 == rc");
    xvlst_reset(&l);
}

TEST(Emblst, LayoutAndCopy) {
    alignas(8) unsigned char buf[48 + 3 * 9 - 1], copy[48 + 2 * 9];
    EXPECT_EQ(emblst_create(buf, 48, 8), nullptr);
    EXPECT_EQ(emblst_create(buf, 48 + 8, 8), nullptr);
    emblst *el = emblst_create(buf, sizeof(buf), 8);
    ASSERT_TRUE(el);
    EXPECT_TRUE(el->max_count == 2 && el->taken_offt == 48 + 16);
    EXPECT_EQ(emblst_add(el), 0);
    EXPECT_EQ(emblst_add(el), 1);
    EXPECT_EQ(emblst_add(el), -1);
    static_cast<uint64_t *>(emblst_data(el))[1] = 77;

    errno = 0;
    EXPECT_EQ(emblst_copy(el, copy, sizeof(copy) - 1), nullptr);
    EXPECT_EQ(errno, EINVAL);
    emblst *twin = emblst_copy(el, copy, sizeof(copy));
    ASSERT_EQ(static_cast<void *>(twin), copy);
    EXPECT_EQ(emblst_del(el, 1, nullptr), 0);
    size_t stop = 9;
    EXPECT_EQ(emblst_each(
                  twin,
                  [](void *data, size_t i) { return static_cast<int>(static_cast<uint64_t *>(data)[i]); },
                  &stop),
              77);
    EXPECT_EQ(stop, 1u);
    EXPECT_DEATH(emblst_create(buf + 1, 60, 1), "0 == \\(\\(u_long\\)buf % sizeof\\(long\\)\\)");
}

} // namespace
