// Event playlists: a stretch of a source's recorded items, from a wall-clock time or a shift back from now,
// for a duration, open-ended, or rolling forward. A task is found again by its key (requested time, end
// time, peer) or, when it is bound to no peer, by its first item and end time. And the helpers that measure
// ranges of items; markers carry no time and are passed over.
#pragma once

#include "app/plum.h"

inline constexpr double EVENT_DEFAULT_SEC = 30.0;         // playlist of an open-ended event
inline constexpr double EVENT_UNLIMITED_SEC = 10800000.0; // no limit
inline constexpr size_t EVENT_DEPTH = 3;                  // items on either side of a live event's start

// Answers an EVE request. `timestamp` in Unix seconds, or negative as a shift back from now; `duration` in
// seconds, 0 for open-ended. 0 or the result code; leaves a response in the request, also for errors.
int get_event_pl(pl_urq *urq, const char *itag, const char *nametag, long timestamp, long duration,
                 bool is_pseudo_live);

// The item that covers `utime`, or null (logged).
pl_item *get_event_item(pl_source *src, long utime);

// The task stored under a request's key, or null. `uid` is the peer's name, null for none.
pl_task *get_assoc_task(skht_t ht, long timestamp, long duration, const char *uid);
// Stores the request's key for the task; one that is stored already stays as it is, and the task goes
// without. 0; lack of memory is fatal.
int assoc_utime(pl_task *task, long timestamp, const char *uid);

// Makes an event task from item `first` on; null when there are too many tasks or its playlist cannot be
// written (logged). `shift_sec` is what `start_tm` was worked out from, 0 for a clock time.
pl_task *mk_event_task(pl_source *src, pl_item *first, long start_tm, long duration, bool must_gzip,
                       bool is_live, long shift_sec = 0);

// Whether the items reach the end time, or would pass it with the next one.
bool is_eot_reachable(const pl_source *src, time_t end_tm);
// How many items, at most `max_depth`, there are on both sides of `item`.
size_t calc_depth(const pl_item *item, size_t max_depth);
// `nsteps` items newer (`forth`) or older, stopping at the end of the list.
pl_item *step_from(bool forth, pl_item *item, size_t nsteps);
// The last item of a stretch of at most `max_sec` seconds that begins behind `first`.
pl_item *shift_from(pl_item *first, double max_sec);
// The same for a task's window of its `duration`, measured on from where the last call stopped.
pl_item *reach_end(pl_task *task);
