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
    EXPECT_TRUE(!dlep_rmhead(l) && !dlep_rmtail(l));
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(dlep_append(l, elem(i)), &its[i].le);
    EXPECT_EQ(dlep_rm(l, &its[2].le), &its[2].le);
    EXPECT_TRUE(!its[2].le.prev && !its[2].le.next);
    EXPECT_EQ(dlep_rmhead(l), &its[4].le);
    EXPECT_EQ(dlep_rmtail(l), &its[0].le);
    EXPECT_EQ(order(), (std::vector<int>{1, 3}));
    EXPECT_TRUE(dlep_rmtail(l) == &its[1].le && dlep_rmhead(l) == &its[3].le);
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
        dlep_purge(l, [](dlep_elem *) {});
    }
}

} // namespace
