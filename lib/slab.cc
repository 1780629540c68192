#include "lib/slab.h"

#include "lib/check.h"
#include "lib/log.h"

#include <cstdint>
#include <sys/mman.h>

// A freed piece must not be looked at any more.
#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/asan_interface.h>
#else
#define ASAN_POISON_MEMORY_REGION(at, size) ((void)(at), (void)(size))
#define ASAN_UNPOISON_MEMORY_REGION(at, size) ((void)(at), (void)(size))
#endif

LOG_UNIT(LOG_MOD_APP);

static constexpr size_t ALIGNMENT = 8;

struct slab {
    slab_pool *pool;
    size_t live; // pieces
};

static size_t rounded(size_t size) {
    return (size + ALIGNMENT - 1) & ~(ALIGNMENT - 1);
}

static slab *slab_of(void *piece) {
    return reinterpret_cast<slab *>(reinterpret_cast<uintptr_t>(piece) & ~(SLAB_SIZE - 1));
}

// Twice the size holds a whole slab on its multiple; what stands around it goes back.
static slab *map_slab() {
    void *area = mmap(nullptr, 2 * SLAB_SIZE, PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (area == MAP_FAILED)
        return nullptr;
    char *begin = static_cast<char *>(area);
    char *at = reinterpret_cast<char *>(slab_of(begin + SLAB_SIZE - 1));
    if (at > begin)
        munmap(begin, static_cast<size_t>(at - begin));
    size_t behind = static_cast<size_t>(begin + SLAB_SIZE - at);
    if (behind > 0)
        munmap(at + SLAB_SIZE, behind);
    return reinterpret_cast<slab *>(at);
}

static void unmap_slab(slab *one) {
    ASAN_UNPOISON_MEMORY_REGION(one, SLAB_SIZE);
    munmap(one, SLAB_SIZE);
}

static bool next_slab(slab_pool *pool) {
    slab *fresh = map_slab();
    if (!fresh)
        return false;
    *fresh = {.pool = pool, .live = 0};
    ASAN_POISON_MEMORY_REGION(fresh + 1, SLAB_SIZE - sizeof(slab));
    // The old one goes with its last piece; when that went before, it goes here.
    if (pool->current && pool->current->live == 0)
        unmap_slab(pool->current);
    pool->current = fresh;
    pool->used = sizeof(slab);
    return true;
}

void *slab_alloc(slab_pool *pool, size_t size) {
    size = rounded(size);
    CHECK(size > 0 && size <= SLAB_SIZE / 16);
    if ((!pool->current || SLAB_SIZE - pool->used < size) && !next_slab(pool))
        return nullptr;
    void *piece = reinterpret_cast<char *>(pool->current) + pool->used;
    ASAN_UNPOISON_MEMORY_REGION(piece, size);
    pool->used += size;
    ++pool->current->live;
    return piece;
}

void slab_free(void *piece, size_t size) {
    slab *one = slab_of(piece);
    CHECK(one->live > 0);
    size = rounded(size);
    ASAN_POISON_MEMORY_REGION(piece, size);
    // The latest piece makes room for the next, so that what is given up at once costs nothing.
    bool is_latest = one == one->pool->current &&
                     static_cast<char *>(piece) + size == reinterpret_cast<char *>(one) + one->pool->used;
    if (is_latest)
        one->pool->used -= size;
    if (--one->live > 0)
        return;
    if (one != one->pool->current) {
        unmap_slab(one);
        return;
    }
    ASAN_POISON_MEMORY_REGION(one + 1, SLAB_SIZE - sizeof(slab));
    one->pool->used = sizeof(slab);
}

void slab_reset(slab_pool *pool) {
    if (pool->current) {
        CHECK(pool->current->live == 0);
        unmap_slab(pool->current);
    }
    *pool = {};
}
