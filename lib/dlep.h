// An intrusive doubly-linked list of element pointers. The header below is the first member of the user's
// own record, so an element is the user's record itself; the list never allocates or copies one.
//
// Elements are appended at `head`. `prev` points toward `tail`, `next` toward `head`: walking from the tail
// along `next` gives insertion order, walking from the head along `prev` gives newest first.
// Null handles are assertion failures. Nothing is logged.
#pragma once

#include "lib/tag.h"

#include <cstddef>
#include <cstdint>

struct dlep_elem {
    union {
        int32_t type_id; // free for the user
        n32_tag tag;
    };
    uint32_t note;   // the owner's, in what would be padding
    dlep_elem *prev; // toward the tail
    dlep_elem *next; // toward the head
};
using dlep_hdr = dlep_elem;

struct dlep_list {
    dlep_elem *head;
    dlep_elem *tail;
    size_t count;
};
using dlep_t = dlep_list *;

using dlep_fn = void (*)(dlep_elem *elem);
using dlep_fn1 = void (*)(dlep_elem *elem, void *arg);
using dlep_cmp = int (*)(const dlep_elem *a, const dlep_elem *b); // exactly -1, 0 or 1

// A zeroed list, owned by the caller until dlep_destroy; null and 12 in `err` (if given) without memory.
dlep_t dlep_create(int *err);
size_t dlep_count(const dlep_list *l);
dlep_elem *dlep_head(const dlep_list *l);
dlep_elem *dlep_tail(const dlep_list *l);

// Inserts at the head; returns the element.
dlep_elem *dlep_append(dlep_t l, dlep_elem *elem);
// Appends, then moves the element to its sorted place; returns the element.
dlep_elem *dlep_sadd(dlep_t l, dlep_elem *elem, int asc, dlep_cmp cmp);
// Moves the element to its place: asc 1 = ascending from head to tail, 0 = descending. Equal neighbours
// keep their order.
void dlep_repos(dlep_t l, dlep_elem *elem, int asc, dlep_cmp cmp);

// Unlink and return the element (the head, the tail; null when empty), its links cleared.
dlep_elem *dlep_rm(dlep_t l, dlep_elem *elem);
dlep_elem *dlep_rmhead(dlep_t l);
dlep_elem *dlep_rmtail(dlep_t l);

// Call `fn` on every element from tail to head (it may free the element), then zero the list record.
void dlep_purge(dlep_t l, dlep_fn fn);
void dlep_purge1(dlep_t l, dlep_fn1 fn, void *arg);
// Purges, then frees the list record.
void dlep_destroy(dlep_t l, dlep_fn fn);

// Checks the order from the head along `prev`: `asc` itself for fewer than two elements, -1 when out of
// order, else 0. 1 and -1 both mean ascending, 0 descending.
int dlep_sverify(const dlep_list *l, int asc, dlep_cmp cmp);

// Diagnostic dumps to standard error: the list record; every element.
void dlep_print(const dlep_list *l);
void dlep_debug_print(const dlep_list *l);

// Typed views for records whose first member is a dlep_elem.
template <class T> T *dlep_as(dlep_elem *elem) {
    return static_cast<T *>(static_cast<void *>(elem));
}
template <class T> const T *dlep_as(const dlep_elem *elem) {
    return static_cast<const T *>(static_cast<const void *>(elem));
}
