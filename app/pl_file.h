// The playlist files: one M3U8 file per task, rewritten whole through a ".tmp" file and a rename, and the
// lock file beside it whose modification time the consumer's side refreshes while somebody is watching.
#pragma once

#include "app/plum.h"

// The lock file's content, native byte order.
struct lock_data {
    int64_t owner; // process id of the daemon, 0 once the playlist is gone
    int64_t touch; // 0 when created
};
static_assert(sizeof(lock_data) == 16);

// Writes the task's playlist; the first time it also names it and makes the lock file. -1 when it cannot be
// written (logged): where not even a temporary file can be made, the task keeps the files it has and stays to
// be synchronised, otherwise it is then without, and the next call builds both afresh. 0; the task is at its
// end once the file that says so is in place. A finished task without a window keeps the file it has.
int mk_playlist(pl_task *task);

// Characters of the shortest path that a playlist of such a source has.
size_t shortest_path(const char *dir, const char *nametag);

// Creates the lock file beside the playlist; 0 or -1 (logged). A task that has one is an assertion failure.
int mk_lockfile(pl_task *task);

// Tunes the seconds the lock file may stay untouched: `max_dur` is the target duration, `total_dur` the
// playlist's length, both in seconds, `item_count` its items.
void adjust_lk_timeout(pl_task *task, int max_dur, int total_dur, size_t item_count);
