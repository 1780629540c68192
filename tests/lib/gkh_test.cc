#include "lib/gkh.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

namespace {

void *ptr(uintptr_t n) {
    return reinterpret_cast<void *>(n);
}

uint64_t same(const char *, uint64_t) {
    return 0;
}

std::vector<std::string> keys_of(skht_t t) {
    std::vector<std::string> keys;
    const size_t n = skht_iter(
        t,
        [](const char *key, void *, void *arg) {
            static_cast<std::vector<std::string> *>(arg)->push_back(key);
        },
        &keys);
    EXPECT_EQ(n, keys.size());
    EXPECT_EQ(n, skht_count(t));
    return keys;
}

// The table against a model, with chains from crowded (one bucket for all) to short.
TEST(Gkh, BehavesLikeAMap) {
    struct {
        size_t capacity;
        str_hash hash;
    } const table[] = {{1, nullptr}, {64, same}, {16, plHash}, {400, elfHash}};
    for (const auto &row : table) {
        skht_t s;
        nkht_t n;
        ASSERT_EQ(skht_create(&s, row.capacity, row.hash, nullptr, 0), 0);
        ASSERT_EQ(nkht_create(&n, row.capacity, row.capacity < 100 ? nullptr : tw_shift), 0);
        std::map<uint64_t, void *> model;
        srand(3);
        for (uintptr_t i = 1; i < 3000; ++i) {
            const uint64_t key = static_cast<uint64_t>(rand() % 300);
            const std::string text = "key " + std::to_string(key);
            const bool known = model.count(key) > 0;
            void *const want = known ? model[key] : ptr(i);
            void *sd = ptr(i), *nd = ptr(i);
            switch (rand() % 5) {
            case 0:
                EXPECT_EQ(skht_get(s, text.c_str(), &sd), known ? 0 : ESRCH);
                EXPECT_EQ(nkht_get(n, key, &nd), known ? 0 : ESRCH);
                break;
            case 1:
                EXPECT_EQ(skht_rm(s, text.c_str(), &sd), known ? 0 : ESRCH);
                EXPECT_EQ(nkht_rm(n, key, &nd), known ? 0 : ESRCH);
                model.erase(key);
                break;
            default:
                EXPECT_EQ(skht_add(s, text.c_str(), &sd), known ? EBUSY : 0);
                EXPECT_EQ(nkht_add(n, key, &nd), known ? EBUSY : 0);
                model.emplace(key, ptr(i));
            }
            EXPECT_TRUE(sd == want && nd == want);
            EXPECT_TRUE(skht_count(s) == model.size() && nkht_count(n) == model.size());
        }
        EXPECT_EQ(keys_of(s).size(), model.size());
        static size_t freed;
        freed = 0;
        skht_destroy(s, [](void *) { ++freed; });
        nkht_destroy(n, [](void *) { ++freed; });
        EXPECT_EQ(freed, 2 * model.size());
    }
}

TEST(Gkh, ChainsAreSortedAndMayShrinkUnderIteration) {
    const char *const keys[] = {"m", "b", "z", "b", "a"};
    skht_t t;
    ASSERT_EQ(skht_create(&t, 1, nullptr, keys, 5), 0);
    EXPECT_EQ(keys_of(t), (std::vector<std::string>{"a", "b", "m", "z"}));
    constexpr auto take_out = [](const char *key, void *, void *arg) {
        skht_rm(static_cast<skht_t>(arg), key, nullptr);
    };
    EXPECT_EQ(skht_iter(t, take_out, t), 4u);
    EXPECT_EQ(skht_count(t), 0u);
    skht_destroy(t, nullptr);
}

} // namespace
