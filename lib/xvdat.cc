#include "lib/xvdat.h"

#include "lib/check.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>

unsigned long xvdat_flags;

enum : unsigned long { NOMEM_ABORTS = 1 };

static char *at(void *data, size_t i, size_t elemsize) {
    return static_cast<char *>(data) + i * elemsize;
}

// 0 when the result would not fit.
static size_t round_up(size_t count, size_t growblk) {
    const size_t blocks = count / growblk + (count % growblk != 0);
    size_t n;
    return __builtin_mul_overflow(blocks, growblk, &n) ? 0 : n;
}

static void *resize(void *data, size_t count, size_t elemsize) {
    size_t bytes;
    void *p = nullptr;
    if (__builtin_mul_overflow(count, elemsize, &bytes) || bytes == 0 || bytes > PTRDIFF_MAX)
        errno = ENOMEM;
    else
        p = realloc(data, bytes);
    CHECK(p || !(xvdat_flags & NOMEM_ABORTS));
    return p;
}

// How many elements with one taken byte each fit into `bytes`.
static size_t slots_within(size_t bytes, size_t elemsize) {
    return elemsize && elemsize < bytes ? bytes / (elemsize + 1) : 0;
}

// For iterations whose callback takes no argument of its own: the argument is the callback.
static int call_plain(void *data, size_t i, void *arg) {
    return (*static_cast<xv_fn *>(arg))(data, i);
}

int xvec_bind(xvec *v, void *buf, size_t bufsize, size_t elemsize) {
    CHECK(v && buf);
    *v = xvec{};
    const size_t n = elemsize ? bufsize / elemsize : 0;
    if (n == 0)
        return -1;
    memset(buf, 0, bufsize);
    *v = {.data = buf, .len = 0, .max_len = n, .flags = XV_FIXED};
    return 0;
}

int xvec_reserve(xvec *v, size_t count, size_t elemsize, size_t growblk) {
    CHECK(v && (growblk > 0));
    if (v->max_len > count)
        return 0;
    if (v->flags & XV_FIXED)
        return -EAGAIN;
    if (count == 0)
        return 0;

    const size_t max_len = round_up(count, growblk);
    void *data = resize(v->data, max_len, elemsize);
    if (!data)
        return -1;
    memset(at(data, v->max_len, elemsize), 0, (max_len - v->max_len) * elemsize);
    v->data = data;
    v->max_len = max_len;
    return 0;
}

int xvec_expand(xvec *v, size_t plus, size_t elemsize, size_t growblk) {
    CHECK(v && (growblk > 0));
    size_t count;
    // A sum that wraps is asked for as the largest count, which no memory can hold.
    if (__builtin_add_overflow(v->len, plus, &count))
        count = SIZE_MAX;
    return xvec_reserve(v, count, elemsize, growblk);
}

ssize_t xvec_add(xvec *v, size_t elemsize, size_t growblk) {
    CHECK(v);
    if (v->flags & XV_FIXED) {
        if (v->len >= v->max_len)
            return -1;
    } else if (xvec_expand(v, 1, elemsize, growblk)) {
        return -1;
    }
    return static_cast<ssize_t>(v->len++);
}

void xvec_reset(xvec *v) {
    CHECK(v);
    if (!(v->flags & XV_FIXED)) {
        free(v->data);
        v->data = nullptr;
        v->max_len = 0;
    }
    v->len = 0;
}

int xvec_each(xvec *v, xv_fn f, size_t *stop) {
    CHECK(v && f);
    return xvec_each_aux(v, call_plain, &f, stop);
}

int xvec_each_aux(xvec *v, xv_aux_fn f, void *arg, size_t *stop) {
    CHECK(v && f);
    int rc = 0;
    for (size_t i = 0; i < v->len; ++i) {
        rc = f(v->data, i, arg);
        if (rc && stop) {
            *stop = i;
            break;
        }
    }
    return rc;
}

int xvec_find(xvec *v, void *key, xv_aux_fn f, size_t *stop) {
    return xvec_each_aux(v, f, key, stop);
}

// What the two kinds of slot list have in common.
struct slots {
    unsigned char *taken;
    size_t max_len;
    size_t *len;
    size_t *last;
    ssize_t *avail;
};

static slots slots_of(xvlst *l) {
    return {l->taken, l->max_len, &l->len, &l->last, &l->avail};
}

static slots slots_of(emblst *el) {
    return {reinterpret_cast<unsigned char *>(el) + el->taken_offt, el->max_count, &el->count, &el->last,
            &el->avail};
}

// `avail` is the lowest free slot, so the next one lies above it.
static ssize_t slot_take(const slots &s) {
    if (*s.avail < 0)
        return -1;
    const size_t i = static_cast<size_t>(*s.avail);
    s.taken[i] = 1;
    *s.last = std::max(*s.last, i);
    const void *next = memchr(s.taken + i + 1, 0, s.max_len - i - 1);
    *s.avail = next ? static_cast<const unsigned char *>(next) - s.taken : -1;
    ++*s.len;
    return static_cast<ssize_t>(i);
}

static int slot_release(const slots &s, size_t index, void *data, xv_fn fn) {
    if (index > *s.last)
        return ERANGE;
    if (!s.taken || !s.taken[index])
        return EALREADY;
    s.taken[index] = 0;
    if (fn)
        fn(data, index);
    if (*s.avail < 0 || static_cast<size_t>(*s.avail) > index)
        *s.avail = static_cast<ssize_t>(index);
    --*s.len;
    return 0;
}

int xvlst_bind(xvlst *l, void *buf, size_t bufsize, size_t elemsize) {
    CHECK(l && buf);
    *l = xvlst{};
    const size_t n = slots_within(bufsize, elemsize);
    if (n == 0)
        return -1;
    memset(buf, 0, bufsize);
    l->data = buf;
    l->max_len = n;
    l->flags = XV_FIXED;
    l->taken = reinterpret_cast<unsigned char *>(at(buf, n, elemsize));
    return 0;
}

int xvlst_mmap_fixed(xvlst *l, size_t count, size_t elemsize) {
    CHECK(l);
    *l = xvlst{};
    size_t bytes;
    if (elemsize == SIZE_MAX || __builtin_mul_overflow(elemsize + 1, count, &bytes))
        return ENOMEM;
    void *data =
        mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (data == MAP_FAILED)
        return ENOMEM;
    l->data = data;
    l->max_len = count;
    l->flags = XV_FIXED | XV_MAPPED;
    l->taken = reinterpret_cast<unsigned char *>(at(data, count, elemsize));
    l->meta.num = elemsize;
    return 0;
}

int xvlst_reserve(xvlst *l, size_t count, size_t elemsize, size_t growblk) {
    CHECK(l && (growblk > 0));
    if (l->max_len >= count)
        return 0;
    if (l->flags & XV_FIXED)
        return -EAGAIN;

    const size_t max_len = round_up(count, growblk);
    void *data = resize(l->data, max_len, elemsize);
    if (!data)
        return -1;
    l->data = data;
    void *taken = resize(l->taken, max_len, 1);
    if (!taken)
        return -1;
    l->taken = static_cast<unsigned char *>(taken);
    memset(at(data, l->max_len, elemsize), 0, (max_len - l->max_len) * elemsize);
    memset(l->taken + l->max_len, 0, max_len - l->max_len);
    if (l->avail < 0)
        l->avail = static_cast<ssize_t>(l->max_len);
    l->max_len = max_len;
    return 0;
}

int xvlst_expand(xvlst *l, size_t plus, size_t elemsize, size_t growblk) {
    CHECK(l && (growblk > 0));
    size_t count;
    if (__builtin_add_overflow(l->len, plus, &count))
        count = SIZE_MAX;
    return xvlst_reserve(l, count, elemsize, growblk);
}

ssize_t xvlst_add(xvlst *l, size_t elemsize, size_t growblk) {
    const int rc = xvlst_expand(l, 1, elemsize, growblk);
    return rc ? rc : slot_take(slots_of(l));
}

int xvlst_del(xvlst *l, size_t index, xv_fn fn) {
    CHECK(l);
    return slot_release(slots_of(l), index, l->data, fn);
}

// Asked anew in each round: the callback may free slots, grow the list or reset it. A first growth that ran
// out of memory half-way leaves elements without taken bytes.
static bool within(const xvlst *l, size_t i) {
    return l->data && l->taken && i <= l->last;
}

int xvlst_each(xvlst *l, xv_fn f, size_t *stop) {
    CHECK(l && f);
    return xvlst_each_aux(l, &f, call_plain, stop);
}

int xvlst_each_aux(xvlst *l, void *arg, xv_aux_fn f, size_t *stop) {
    CHECK(l && f);
    int rc = 0;
    for (size_t i = 0; within(l, i); ++i) {
        if (!l->taken[i])
            continue;
        rc = f(l->data, i, arg);
        if (rc && stop) {
            *stop = i;
            break;
        }
    }
    return rc;
}

int xvlst_rmif(xvlst *l, void *ctx, xv_aux_fn match, size_t *bad) {
    CHECK(l && match);
    int n = 0;
    for (size_t i = 0; within(l, i); ++i) {
        if (!l->taken[i] || !match(l->data, i, ctx))
            continue;
        if (xvlst_del(l, i, nullptr)) {
            if (bad)
                *bad = i;
            return -1;
        }
        ++n;
    }
    return n;
}

int xvlst_find(xvlst *l, void *key, xv_aux_fn f, size_t *index) {
    size_t found;
    return xvlst_each_aux(l, key, f, index ? index : &found);
}

void xvlst_purge_all(xvlst *l, xv_fn fn) {
    CHECK(l);
    if (l->len == 0 && l->last == 0)
        return; // as mostly, in lists that are purged in every pass
    if (l->len > 0 && fn)
        xvlst_each(l, fn, nullptr);
    // Only the bytes that were ever set: a mapped list must not touch the pages it has not used.
    if (l->taken)
        memset(l->taken, 0, l->last + 1);
    l->last = 0;
    l->len = 0;
    l->avail = l->max_len ? 0 : -1;
}

void xvlst_reset(xvlst *l) {
    CHECK(l);
    if (l->flags & XV_MAPPED) {
        const int rc = munmap(l->data, (l->meta.num + 1) * l->max_len);
        CHECK(0 == rc);
    } else if (!(l->flags & XV_FIXED)) {
        free(l->data);
        free(l->taken);
    }
    *l = xvlst{};
}

emblst *emblst_create(void *buf, size_t len, size_t elemsize) {
    CHECK(buf);
    CHECK(0 == ((u_long)buf % sizeof(long)));
    const size_t n = len > sizeof(emblst) ? slots_within(len - sizeof(emblst), elemsize) : 0;
    if (n == 0)
        return nullptr;
    const uint64_t taken_offt = sizeof(emblst) + n * elemsize;
    memset(buf, 0, taken_offt + n);
    auto *el = static_cast<emblst *>(buf);
    el->max_count = n;
    el->flags = XV_FIXED;
    el->taken_offt = taken_offt;
    return el;
}

ssize_t emblst_add(emblst *el) {
    CHECK(el);
    return slot_take(slots_of(el));
}

int emblst_del(emblst *el, size_t index, xv_fn fn) {
    CHECK(el);
    return slot_release(slots_of(el), index, emblst_data(el), fn);
}

emblst *emblst_copy(const emblst *el, void *dst, size_t dstlen) {
    CHECK(el && dst);
    const size_t bytes = el->taken_offt + el->max_count;
    if (dstlen < bytes) {
        errno = EINVAL;
        return nullptr;
    }
    return static_cast<emblst *>(memcpy(dst, el, bytes));
}

int emblst_each(emblst *el, xv_fn f, size_t *stop) {
    CHECK(el && f);
    return emblst_each_aux(el, &f, call_plain, stop);
}

int emblst_each_aux(emblst *el, void *arg, xv_aux_fn f, size_t *stop) {
    CHECK(el && f);
    const unsigned char *taken = slots_of(el).taken;
    int rc = 0;
    for (size_t i = 0; i <= el->last; ++i) {
        if (!taken[i])
            continue;
        rc = f(emblst_data(el), i, arg);
        if (rc && stop) {
            *stop = i;
            break;
        }
    }
    return rc;
}

void *emblst_data(emblst *el) {
    CHECK(el);
    return el + 1;
}
