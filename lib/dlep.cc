#include "lib/dlep.h"

#include "lib/check.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

dlep_t dlep_create(int *err) {
    dlep_t l = static_cast<dlep_t>(calloc(1, sizeof(dlep_list)));
    if (!l && err)
        *err = ENOMEM;
    return l;
}

size_t dlep_count(const dlep_list *l) {
    CHECK(l);
    return l->count;
}

dlep_elem *dlep_head(const dlep_list *l) {
    CHECK(l);
    return l->head;
}

dlep_elem *dlep_tail(const dlep_list *l) {
    CHECK(l);
    return l->tail;
}

dlep_elem *dlep_append(dlep_t l, dlep_elem *le) {
    CHECK(l && le);
    le->prev = l->head;
    le->next = nullptr;
    (l->head ? l->head->next : l->tail) = le;
    l->head = le;
    ++l->count;
    return le;
}

dlep_elem *dlep_sadd(dlep_t l, dlep_elem *le, int asc, dlep_cmp cmp) {
    dlep_append(l, le);
    dlep_repos(l, le, asc, cmp);
    return le;
}

// Exchanges `le` with its neighbour toward the head, which must exist.
static void swap_with_next(dlep_t l, dlep_elem *le) {
    dlep_elem *up = le->next;
    dlep_elem *below = le->prev;
    dlep_elem *above = up->next;

    up->prev = below;
    up->next = le;
    le->prev = up;
    le->next = above;
    (below ? below->next : l->tail) = up;
    (above ? above->prev : l->head) = le;
}

static bool move_one(dlep_t l, dlep_elem *le, int sign, dlep_cmp cmp) {
    if (le->prev && cmp(le, le->prev) == sign)
        swap_with_next(l, le->prev);
    else if (le->next && cmp(le, le->next) == -sign)
        swap_with_next(l, le);
    else
        return false;
    return true;
}

void dlep_repos(dlep_t l, dlep_elem *le, int asc, dlep_cmp cmp) {
    CHECK(l && le && cmp);
    size_t i = 0;
    while (i <= l->count && move_one(l, le, asc ? 1 : -1, cmp))
        ++i;
    // A comparison that contradicts itself would move the element to and fro without end.
    CHECK(i <= l->count);
}

dlep_elem *dlep_rm(dlep_t l, dlep_elem *le) {
    CHECK(l && le);
    // The ends are told by the element's own links, so one that is in no list is noticed before any write.
    if (!le->next)
        CHECK(l->head == le);
    if (!le->prev)
        CHECK(l->tail == le);
    if (!le->next && !le->prev)
        CHECK(1 == l->count);
    else
        CHECK(l->tail);

    (le->next ? le->next->prev : l->head) = le->prev;
    (le->prev ? le->prev->next : l->tail) = le->next;
    le->prev = le->next = nullptr;
    --l->count;
    return le;
}

dlep_elem *dlep_rmhead(dlep_t l) {
    CHECK(l);
    return l->head ? dlep_rm(l, l->head) : nullptr;
}

dlep_elem *dlep_rmtail(dlep_t l) {
    CHECK(l);
    return l->tail ? dlep_rm(l, l->tail) : nullptr;
}

void dlep_purge(dlep_t l, dlep_fn f) {
    CHECK(l && f);
    dlep_purge1(
        l, [](dlep_elem *le, void *arg) { (*static_cast<dlep_fn *>(arg))(le); }, &f);
}

void dlep_purge1(dlep_t l, dlep_fn1 f, void *arg) {
    CHECK(l && f);
    for (dlep_elem *le = l->tail, *next; le; le = next) {
        next = le->next;
        f(le, arg);
    }
    *l = dlep_list{};
}

void dlep_destroy(dlep_t l, dlep_fn f) {
    dlep_purge(l, f);
    free(l);
}

int dlep_sverify(const dlep_list *l, int asc, dlep_cmp cmp) {
    CHECK(l && cmp);
    if (l->count < 2)
        return asc;
    const int sign = asc ? 1 : -1;
    for (const dlep_elem *seen = l->head, *le; (le = seen->prev); seen = le) {
        const int c = cmp(le, seen);
        if (c != 0 && c != sign)
            return -1;
    }
    return 0;
}

static void print_elem(const char *name, const dlep_elem *le) {
    if (le)
        fprintf(stderr, "  %s %p: type %d prev %p next %p\n", name, static_cast<const void *>(le),
                le->type_id, static_cast<void *>(le->prev), static_cast<void *>(le->next));
    else
        fprintf(stderr, "  %s none\n", name);
}

void dlep_print(const dlep_list *l) {
    CHECK(l);
    fprintf(stderr, "list %p: %zu elements\n", static_cast<const void *>(l), l->count);
    print_elem("head", l->head);
    print_elem("tail", l->tail);
}

void dlep_debug_print(const dlep_list *l) {
    dlep_print(l);
    for (const dlep_elem *le = l->tail; le; le = le->next)
        print_elem("elem", le);
}
