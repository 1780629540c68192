// Growable arrays: `xvec`, an array; `xvlst`, an array of slots with reuse of freed ones, also in one fixed
// memory mapping whose elements never move; `emblst`, the same slot list inside one caller-supplied buffer.
//
// Elements are plain bytes of `elemsize` each: they may be moved by growth and must be trivially copyable.
// Callbacks receive the array base and the index. Every iteration runs in index order; a non-zero result
// stops it when a stop pointer was given (the index is stored there, the value returned); without one it
// runs to the end and returns the last value. Errors: -1 (full or no memory), -11 (a fixed container cannot
// grow), 34 (index above `last`), 114 (slot not taken), 12 (no mapping). Null containers and a growth step
// of 0 are assertion failures. Nothing is logged.
#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/types.h>
#include <type_traits>

// Bit 0: a failed reallocation aborts the process instead of returning -1.
extern unsigned long xvdat_flags;

enum : unsigned { XV_FIXED = 2, XV_MAPPED = 4 };

using xv_fn = int (*)(void *data, size_t i);
using xv_aux_fn = int (*)(void *data, size_t i, void *arg);

struct xvec {
    void *data;
    size_t len;     // elements in use
    size_t max_len; // elements allocated
    unsigned flags; // XV_FIXED = bound to a caller's buffer
};

// Uses the caller's buffer, zeroed, which must outlive the vector; it never grows. 0 or -1.
int xvec_bind(xvec *v, void *buf, size_t bufsize, size_t elemsize);
// Room for `count` elements, in steps of `growblk`; one with a single element to spare is reallocated all the
// same. New elements are zeroed. 0, -1 or -11.
int xvec_reserve(xvec *v, size_t count, size_t elemsize, size_t growblk);
// Room for `plus` more elements.
int xvec_expand(xvec *v, size_t plus, size_t elemsize, size_t growblk);
// Takes the next element; its index or -1.
ssize_t xvec_add(xvec *v, size_t elemsize, size_t growblk);
// Empties it and frees an array of its own.
void xvec_reset(xvec *v);
int xvec_each(xvec *v, xv_fn fn, size_t *stop);
int xvec_each_aux(xvec *v, xv_aux_fn fn, void *arg, size_t *stop);
// Calls fn (data, i, key); follows the rule of the iterations.
int xvec_find(xvec *v, void *key, xv_aux_fn fn, size_t *stop);

union wordata {
    uint64_t num;
    void *ptr;
    char str[8];
};

struct xvlst {
    void *data;
    size_t len;           // slots taken
    size_t max_len;       // slots allocated
    unsigned flags;       // XV_FIXED, XV_MAPPED
    unsigned char *taken; // one byte per slot, 1 = taken
    size_t last;          // highest slot ever taken; not lowered by a delete
    ssize_t avail;        // lowest free slot, -1 = none
    wordata meta;         // element size of a mapped list
};

int xvlst_bind(xvlst *l, void *buf, size_t bufsize, size_t elemsize);
// One private mapping for exactly `count` elements that never move; 0 or 12.
int xvlst_mmap_fixed(xvlst *l, size_t count, size_t elemsize);
int xvlst_reserve(xvlst *l, size_t count, size_t elemsize, size_t growblk);
int xvlst_expand(xvlst *l, size_t plus, size_t elemsize, size_t growblk);
// Takes the lowest free slot; its index, or a negative code. The slot's bytes are as its last user left them.
ssize_t xvlst_add(xvlst *l, size_t elemsize, size_t growblk);
// Frees a slot after calling fn (data, index), if given. 0, 34 or 114.
int xvlst_del(xvlst *l, size_t index, xv_fn fn);
int xvlst_each(xvlst *l, xv_fn fn, size_t *stop);
int xvlst_each_aux(xvlst *l, void *arg, xv_aux_fn fn, size_t *stop);
// Deletes every taken slot for which match (data, i, ctx) is non-zero; how many, or -1 and the index.
int xvlst_rmif(xvlst *l, void *ctx, xv_aux_fn match, size_t *bad);
// Stops at the first non-zero fn (data, i, key) and returns it, storing the index through `index` if given.
int xvlst_find(xvlst *l, void *key, xv_aux_fn fn, size_t *index);
// Calls fn (data, i) on every taken slot, then frees them all.
void xvlst_purge_all(xvlst *l, xv_fn fn);
// Frees or unmaps the storage and zeroes the record; a list that was never set up is fine.
void xvlst_reset(xvlst *l);

// Typed views.
template <class T> T *xvec_at(const xvec &v, size_t i) {
    static_assert(std::is_trivially_copyable_v<T>);
    return static_cast<T *>(v.data) + i;
}
template <class T> T *xvlst_at(const xvlst &l, size_t i) {
    static_assert(std::is_trivially_copyable_v<T>);
    return static_cast<T *>(l.data) + i;
}
inline bool xvlst_taken(const xvlst &l, size_t i) {
    return l.len > 0 && i <= l.last && l.taken[i];
}

// The head of a self-contained block that may be copied byte for byte; the elements follow at offset 48.
struct emblst {
    uint64_t count;
    uint64_t max_count;
    uint64_t last;
    int64_t avail;
    uint32_t flags;
    uint32_t unused;
    uint64_t taken_offt; // of the taken bytes from the block's start
};
static_assert(sizeof(emblst) == 48 && std::is_trivially_copyable_v<emblst>);

// Lays a list out inside `buf` (8-byte aligned, longer than 48 bytes); null when not one element fits.
emblst *emblst_create(void *buf, size_t len, size_t elemsize);
ssize_t emblst_add(emblst *el);
int emblst_del(emblst *el, size_t index, xv_fn fn);
// Copies the block; null and EINVAL when `dst` is too small.
emblst *emblst_copy(const emblst *el, void *dst, size_t dstlen);
int emblst_each(emblst *el, xv_fn fn, size_t *stop);
int emblst_each_aux(emblst *el, void *arg, xv_aux_fn fn, size_t *stop);
void *emblst_data(emblst *el);
