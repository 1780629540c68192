// Late deletion, with `keep_retired_sec`: files that leave the playlists stay that long, for viewers who
// still hold a list that names them. Each source keeps its files in a queue, in the order in which they are
// due; the periodic sweep deletes from the front, and nothing is scanned. What an expired source leaves waits
// on without it.
//
// At a clean end the queue goes to "DATA_DIR/NAME/NAME.pending", a line "UNIX_TIME PATH" for each file; it is
// read and removed when the source comes back. What cannot be written there, and what a stand-in has
// listed, is deleted at once.
#pragma once

#include "app/plum.h"

// Whether files are deleted late; they are not with `keep_retired_sec` 0.
bool is_discard_on();
// Takes over the deletion of a file, given by its full path, that was listed until `age_sec` ago.
void discard_file(pl_source *src, const char *path, int64_t age_sec = 0);
// The name is in use again: what bears it stays.
void discard_forget(pl_source *src, const char *path);
// Deletes the next file that is due, of a source or, with null, of those that have expired. False when none
// is.
bool discard_next_due(pl_source *src);
// Whether files of expired sources wait.
bool has_orphans();

// The source goes, the daemon goes on.
void discard_orphan(pl_source *src);
// The daemon ends.
void discard_save(pl_source *src);
void discard_end();
// The source is new: takes up what an earlier daemon left to be deleted.
void discard_resume(pl_source *src);
// ... and has its list: what that names stays, since it may reach further back than the last one did.
void discard_keep_listed(pl_source *src);
