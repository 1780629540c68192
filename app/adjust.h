// Task adjustment: every new item moves each task of its source along before the oldest item may go.
#pragma once

#include "app/plum.h"

// Moves one task: a live task's window slides forward, a time-shifted event follows the live edge until it
// reaches its end, the shared VOD task is detached, and a task whose first item is about to go
// (`must_trim`: the oldest one is) is listed for removal. 0.
// With `refresh_playlists`, an event whose window has come to hold its end is written here; all others wait
// for write_moved_tasks, however often they move until then.
int adjust_task(pl_task *task, bool must_trim);
// Writes the playlists that are behind their windows, with `refresh_playlists`.
void write_moved_tasks(pl_source *src);
// adjust_task for slot `i`; `must_trim` points at a bool.
int adjust_task_rec(void *tasks, size_t i, void *must_trim);
// Whether the window's first item must move one item forward.
bool must_advance_ifirst(const pl_task *task);
