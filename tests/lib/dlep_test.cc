#include "lib/dlep.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

namespace {

struct item {
    dlep_elem le;
    int key;
    int serial;
};

int by_key(const dlep_elem *a, const dlep_elem *b) {
    const int x = dlep_as<item>(a)->key, y = dlep_as<item>(b)->key;
    return (x > y) - (x < y);
}

struct Dlep : testing::Test {
    dlep_t l = dlep_create(nullptr);
    item its[64] = {};
    ~Dlep() override {
        dlep_destroy(l, [](dlep_elem *) {});
    }

    // Serial numbers from the tail on; both directions must tell the same list.
    std::vector<int> order() {
        std::vector<int> up, down;
        for (dlep_elem *le = dlep_tail(l); le; le = le->next)
            up.push_back(dlep_as<item>(le)->serial);
        for (dlep_elem *le = dlep_head(l); le; le = le->prev)
            down.insert(down.begin(), dlep_as<item>(le)->serial);
        EXPECT_EQ(up, down);
        EXPECT_EQ(up.size(), dlep_count(l));
        return up;
    }

    dlep_elem *elem(int serial, int key = 0) {
        its[serial].key = key;
        its[serial].serial = serial;
        return &its[serial].le;
    }
};

TEST_F(Dlep, UnlinksEndsAndMiddle) {
    EXPECT_EQ(dlep_rmhead(l), nullptr);
    EXPECT_EQ(dlep_rmtail(l), nullptr);
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(dlep_append(l, elem(i)), &its[i].le);
    EXPECT_EQ(order(), (std::vector<int>{0, 1, 2, 3, 4}));

    EXPECT_EQ(dlep_rm(l, &its[2].le), &its[2].le);
    EXPECT_TRUE(!its[2].le.prev && !its[2].le.next);
    EXPECT_EQ(order(), (std::vector<int>{0, 1, 3, 4}));
    EXPECT_EQ(dlep_rmhead(l), &its[4].le);
    EXPECT_EQ(dlep_rmtail(l), &its[0].le);
    EXPECT_EQ(order(), (std::vector<int>{1, 3}));
    EXPECT_EQ(dlep_rmtail(l), &its[1].le);
    EXPECT_EQ(dlep_rmtail(l), &its[3].le);
    EXPECT_EQ(order(), std::vector<int>{});
    dlep_append(l, &its[2].le);
    EXPECT_EQ(order(), std::vector<int>{2});
}

TEST_F(Dlep, SortsBothWaysAndKeepsEqualsInPlace) {
    for (int asc : {1, 0}) {
        srand(7);
        for (int i = 0; i < 60; ++i) {
            EXPECT_EQ(dlep_sadd(l, elem(i, rand() % 12), asc, by_key), &its[i].le);
            EXPECT_EQ(dlep_sverify(l, asc, by_key), i ? 0 : asc);
        }
        // Equal elements come to rest in front of those that were there before: later ones nearer the head.
        const std::vector<int> up = order();
        for (size_t i = 1; i < up.size(); ++i)
            EXPECT_TRUE(its[up[i - 1]].key != its[up[i]].key || up[i - 1] < up[i]);
        for (int key : {100, -100, 5}) {
            its[30].key = key;
            dlep_repos(l, &its[30].le, asc, by_key);
            EXPECT_EQ(dlep_sverify(l, asc, by_key), 0);
            EXPECT_EQ(order().size(), 60u);
        }
        EXPECT_EQ(dlep_sverify(l, !asc, by_key), -1);
        EXPECT_EQ(dlep_sverify(l, -1, by_key), asc ? 0 : -1);
        dlep_purge(l, [](dlep_elem *) {});
    }
    for (int asc : {1, 0, -1})
        EXPECT_EQ(dlep_sverify(l, asc, by_key), asc);
}

TEST_F(Dlep, PurgeMayFreeAndStartsAtTheTail) {
    std::vector<int> seen;
    for (int i = 0; i < 3; ++i) {
        auto *it = static_cast<item *>(calloc(1, sizeof(item)));
        it->serial = i;
        dlep_append(l, &it->le);
    }
    dlep_purge1(
        l,
        [](dlep_elem *le, void *arg) {
            static_cast<std::vector<int> *>(arg)->push_back(dlep_as<item>(le)->serial);
            free(le);
        },
        &seen);
    EXPECT_EQ(seen, (std::vector<int>{0, 1, 2}));
    EXPECT_EQ(order(), std::vector<int>{});
}

TEST_F(Dlep, RefusesWhatMustNotOccur) {
    dlep_append(l, elem(0));
    EXPECT_DEATH(dlep_rm(l, elem(1)), "l->head == le");
    EXPECT_DEATH((l->count = 2, dlep_rmhead(l)), "1 == l->count");
    dlep_append(l, elem(1));
    EXPECT_DEATH((l->head = &its[0].le, dlep_rm(l, &its[1].le)), "l->head == le");
    EXPECT_DEATH((l->tail = &its[1].le, dlep_rm(l, &its[0].le)), "l->tail == le");
    EXPECT_DEATH((l->tail = nullptr, dlep_rmhead(l)), "`l->tail' failed");
    EXPECT_DEATH(dlep_purge(l, nullptr), "l && f");
    EXPECT_DEATH(dlep_count(nullptr), "`l' failed");
    // A comparison by address sends the element up and down for ever.
    static int turn;
    EXPECT_DEATH(dlep_repos(l, &its[1].le, 1,
                            [](const dlep_elem *, const dlep_elem *) { return ++turn & 1 ? 1 : -1; }),
                 "i <= l->count");
}

} // namespace
