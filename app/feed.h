// The feed: reads the lines of a connected source.
#pragma once

#include "app/plum.h"

// Reads what is available on the source's socket, at most 255 bytes with the partial line of the last read,
// and turns its lines into items. Bad lines are logged and skipped; a segment that fails drops the rest of
// the read; a reset connection suspends the source. 0.
int read_source(pl_source *src);
// Reads what a connection that has hung up or failed still holds, which does not suspend the source.
void drain_source(pl_source *src);
// The complete lines behind an init line are input; what follows the last of them waits for its rest.
void feed_carried(pl_source *src);
