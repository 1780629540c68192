// Backup sources: the standby of source X connects as ~X and takes over when X's connection breaks.
#pragma once

#include "app/plum.h"

// Marks a source disconnected and lets its backup take over. 0, or the roll-over's result.
int suspend_source(pl_source *src, int err);
// Moves the backup's connection to `src`; 0, or -1 when it cannot be done (logged). The discontinuity marker
// is added in either case.
int roll_over(pl_source *src, pl_source *bkup);
