// Backup sources: the standby of source X connects as ~X and takes over when X's connection breaks.
#pragma once

#include "app/plum.h"

// Both producers of a channel name their files below the same data directory: a backup with another one
// cannot take over. Tells so (at err) when the other of the two is known.
void check_partner(const pl_source *src);
// Marks a source disconnected and lets its backup take over. 0, or the roll-over's result. A defunct backup
// stays due for expiry.
int suspend_source(pl_source *src, int err);
// Moves the backup's connection to `src`; 0, or -1 when it cannot be done (logged). The discontinuity marker
// is added in either case.
int roll_over(pl_source *src, pl_source *bkup);
// Tries a take-over again that failed for want of a descriptor, while `src` is still suspended and its backup
// still connected.
void retry_take_over(pl_source *src);
