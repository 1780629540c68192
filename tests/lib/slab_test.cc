#include "lib/slab.h"

#include <cstdint>
#include <cstring>
#include <deque>
#include <gtest/gtest.h>
#include <random>
#include <string>

namespace {

// A queue that grows, shrinks and empties: every piece keeps what was written to it, and the slabs are no
// more than those that living pieces need.
TEST(Slab, PiecesOfAQueue) {
    std::mt19937 dice(5);
    slab_pool pool{};
    std::deque<std::pair<char *, std::string>> queue;
    for (int turn = 0; turn < 40; ++turn) {
        const size_t goal = turn % 8 == 7 ? 0 : dice() % 30000;
        while (queue.size() < goal) {
            const std::string text(1 + dice() % 130, static_cast<char>('a' + dice() % 26));
            char *piece = static_cast<char *>(slab_alloc(&pool, text.size()));
            ASSERT_TRUE(piece && reinterpret_cast<uintptr_t>(piece) % 8 == 0);
            memcpy(piece, text.data(), text.size());
            queue.emplace_back(piece, text);
            if (dice() % 50 == 0) { // given up at once: the place is the next one's
                char *given_up = static_cast<char *>(slab_alloc(&pool, 64));
                slab_free(given_up, 64);
                EXPECT_EQ(slab_alloc(&pool, 32), given_up);
                slab_free(given_up, 32);
            }
        }
        for (; queue.size() > goal; queue.pop_front()) {
            ASSERT_EQ(std::string(queue.front().first, queue.front().second.size()), queue.front().second);
            slab_free(queue.front().first, queue.front().second.size());
        }
        EXPECT_LE(pool.used, SLAB_SIZE);
    }
    for (const auto &[piece, text] : queue)
        slab_free(piece, text.size());
    slab_reset(&pool);
    EXPECT_FALSE(pool.current);
}

} // namespace
