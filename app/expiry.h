// The periodic sweeps: tasks live as long as their lock file is refreshed, sources as long as they deliver,
// requests as long as they do not wait too long.
#pragma once

#include "app/plum.h"

// Each runs when its interval has passed or when it was expedited: requests every `urq_tmout_sec`, sources
// and their tasks, and files that wait for their deletion, every `lk_tmout_sec`; such files wake the loop.
void time_out_requests();
// The tasks are looked at, and files deleted, in slices that take a pass a few milliseconds: a sweep that is
// not through goes on with the next call where it stopped, and keeps the loop from sleeping until it is. The
// tasks of a busy source are checked, those of an idle one are listed for removal.
void time_out_src_tasks();

// Looks at source `i`, after what is due of it: kept text to drop, a take-over to try again.
// 1 when it was idle and without tasks, so that it was destroyed and its slot is to be freed.
int src_expired(void *sources, size_t i, void *unused);
bool is_empty_src(const pl_source *src);
// Looks at a task's lock file and lists the task for removal when it is stale. 0.
int task_xpire(pl_task *task);

// Lets the listener layer free the requests that have ended.
void pprm_requests();
