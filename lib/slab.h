// Memory for the pieces of a queue: many small ones that go roughly in the order in which they came. They
// stand behind each other in slabs without anything between, and a slab goes back to the system with its last
// piece. A slab lies on a multiple of its size, so that a piece leads to its slab, which counts those that
// live.
#pragma once

#include <cstddef>

inline constexpr size_t SLAB_SIZE = 64 * 1024; // what a queue holds beyond its living pieces, at most

struct slab;

// One queue's slabs; all zero to begin with. Must stay where it is while pieces live.
struct slab_pool {
    slab *current; // where the next piece goes
    size_t used;   // bytes of it
};

// `size` bytes of any content, aligned to 8; at most SLAB_SIZE / 16. Null without memory.
void *slab_alloc(slab_pool *pool, size_t size);
// `size` as it was asked for.
void slab_free(void *piece, size_t size);
// Gives back what is kept for the next piece, once no piece lives.
void slab_reset(slab_pool *pool);
