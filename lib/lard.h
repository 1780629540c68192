// The shared-memory log ring: the daemon's most recent log records, whatever the log level let through to
// the file, kept where another process can read them, also after a crash.
#pragma once

#include <cstddef>
#include <ctime>
#include <sys/types.h>

inline constexpr size_t LARD_NAME_MAX = 254;
inline constexpr size_t LARD_TEMP_SLOTS = 64;

// The last pushed severities; `sum` is their total, never negative.
struct temp_sensors {
    size_t idx; // next slot
    int val[LARD_TEMP_SLOTS];
    int sum;
};

// The record shared with readers, the whole of the "/NAME.meta" object.
struct lard_meta {
    size_t seg_pages;  // size of the data buffer, pages
    size_t pld_start;  // offset of the oldest byte kept
    size_t pld_len;    // bytes kept, at most the buffer's length
    pid_t owner_pid;   // the process that created the ring
    timespec write_tm; // monotonic time of the last append
    temp_sensors sns;
    bool is_closed; // the owner has closed the ring
};

struct lard_ctx; // process-local handle; its fields are told in lard.cc
using lard_t = lard_ctx *;

// The owner's constructor: makes "/NAME.meta" and "/NAME.dat" anew with `npages` pages of data. Null when
// it fails, with everything undone and the failure printed on standard error.
lard_t lard_create(const char *name, size_t npages);
// A reader's constructor: maps both objects read-only; null (printed on standard error) when they are
// missing or not those of a ring. Objects that an owner is replacing meanwhile are opened again.
lard_t lard_open(const char *name);

// Appends `text`; returns the bytes appended, or -7 when nothing could be written.
ssize_t lard_puts(lard_t ring, const char *text);
// The same for a text of known length; what exceeds the buffer's length less one is cut.
ssize_t lard_write(lard_t ring, const char *text, size_t len);
// Appends a formatted text; one that does not fit gives -7.
ssize_t lard_printf(lard_t ring, const char *format, ...) __attribute__((format(printf, 2, 3)));

// Writes the kept bytes to `fd` in chronological order with one gathered write; the write's result.
ssize_t lard_snapshot(lard_t ring, int fd);

// Pushes one severity value into the sensors; the sum of the last 64 is the ring's temperature. Values
// outside 0..INT_MAX/64 are brought to the nearer end.
void lard_set_temp(lard_t ring, int value);
int lard_get_ctemp(lard_t ring);

pid_t lard_owner_pid(lard_t ring);
// True while the owner has not closed the ring (a crashed owner never does).
bool lard_is_active(lard_t ring);
// The shared record, for readers that watch the ring grow.
const lard_meta *lard_get_meta(lard_t ring);
// The data buffer, `*len` bytes of it; the same bytes are mapped once more right behind, so that whatever
// starts in the buffer reads straight on past its end.
const char *lard_get_data(lard_t ring, size_t *len);

// What is kept at this moment, checked against the buffer's length whatever the shared record says: `len`
// bytes from offset `start`. When `len` is the buffer's length the ring has wrapped. The writer stores the
// zero byte that ends a record before the record's text: whatever stands before the last zero byte of a copy
// taken in ascending order, and the rest of the line behind it, may be half a record.
struct lard_span {
    size_t start;
    size_t len;
};
lard_span lard_kept(lard_t ring);

// Unmap, close the descriptors, free the handle; the owner marks the ring closed first. The objects stay
// for readers until the next owner replaces them. Null is accepted.
void lard_close(lard_t ring);
void lard_destroy(lard_t ring);
