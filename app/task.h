// A task's life: making its record, listing it for removal, destroying it with its files and keys.
//
// A task found dead is only listed (pprm) and destroyed at the end of the loop pass, so that no code that
// still holds a pointer to it in that pass sees it vanish.
#pragma once

#include "app/plum.h"

// Seconds of the loop's clock, counted from far enough in the past that a stamp of 1 is older than any
// time-out. Idle times are measured with it: it does not jump when the wall clock is set.
time_t idle_clock();
// Milliseconds by which the wall clock is before the loop's kind of clock: constant while nobody sets it.
int64_t wall_lead_ms();

// --- making ---

// The storage of a list, to be compared after an add.
const void *pre_add_tcheck(const xvlst *list);
// -1 (logged, naming the list and the setting that sizes it) when the add moved the storage, else 0.
int post_add_check(const xvlst *list, const void *pre, const char *what, const char *setting);

// A new task of the source, numbered and initialised, its slot in `idx`; null when the source has as many as
// it may have (logged in the name of `caller`). Pointers to other tasks of the source may have moved.
pl_task *add_task(const char *caller, pl_source *src, uint32_t tag);
void init_task(pl_task *task, pl_source *src);

// --- finding ---

// The task a reference names, or null when its slot does not hold a living task.
pl_task *ref_task(const taskref *ref);
// The task of entry `i` of the removal list, or null when the slot was reused since.
pl_task *get_ref_task(const xvlst *list, size_t i);

// --- removing ---

// Lists a task for removal at the end of the pass; new requests no longer join it. A task listed twice is
// listed once (logged). 0.
int pprm_task(pl_task *task);
// Removes all listed tasks.
void pprm_task_cleanup();
// Removes a task from its source now. 0, or an error (logged).
int rm_task(pl_task *task);
// The element destructor behind it.
int rm_task_rec(void *tasks, size_t i);
// Releases a task's keys, files and texts, and marks its tag expired.
void destroy_task(pl_task *task);
// Takes the task's keys out of its source's event keys.
void rm_from_evht(pl_task *task);

// Deletes the playlist file and the lock file, as far as there are any: the task is then without either.
void drop_playlist(pl_task *task);
// Resets the lock file through its descriptor: no owner any more.
void rm_lock(pl_task *task);

// --- periodic checks ---

// Makes the next periodic check run at once.
void schedule_time_out();
// True when `interval_sec` seconds have passed since `*last` (which then becomes now) or the check was
// expedited.
bool is_iocheck_time(timespec *last, long interval_sec);
