#include "lib/dlep.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

struct item {
    dlep_elem le;
    int serial;
};

struct Dlep : testing::Test {
    dlep_t l = dlep_create(nullptr);
    item its[5] = {};
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

    dlep_elem *elem(int serial) {
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

} // namespace
