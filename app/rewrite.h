// When the playlists that a new segment leaves behind are written. Short windows are written at once, as long
// as the pass has time for it; long ones, and what is over, wait here, and the idle step works them off,
// those first that were asked for last. It writes for some milliseconds or one playlist, whichever is longer,
// and then leaves the loop to others for longer than that, so that answers keep most of their rate. A
// playlist that is asked for while it waits is written for the answer.
//
// The queue names tasks by source and slot: one that went, or whose file is fresh by then, is passed over.
#pragma once

#include "app/plum.h"

// The task's file is behind its window.
void rewrite_task(pl_task *task);
// Before the task is named in an answer: writes what waits. 0, or -1 when it cannot be written (logged).
int rewrite_now(pl_task *task);
// One slice; called once in each pass of the loop.
void rewrite_step();
// Forgets all that waits.
void rewrite_clear();
