// The periodic sweeps: tasks live as long as their lock file is refreshed, sources as long as they deliver,
// requests as long as they do not wait too long.
#pragma once

#include "app/plum.h"

// Each runs when its interval has passed or when it was expedited: requests every `urq_tmout_sec`, sources
// and their tasks, and files that could not be deleted, every `lk_tmout_sec`.
void time_out_requests();
void time_out_src_tasks();

// Looks at source `i`: 1 when it was destroyed and its slot is to be freed. An idle source with tasks has
// them listed for removal; of a busy one each task is looked at.
int src_expired(void *sources, size_t i, void *unused);
bool is_empty_src(const pl_source *src);
// Looks at a task's lock file and lists the task for removal when it is stale. 0.
int task_xpire(pl_task *task);

// Lets the listener layer free the requests that have ended.
void pprm_requests();
