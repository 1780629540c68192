// The sequence file: "DATA_DIR/NAME/NAME.seq", beside the manifest, names one segment of the list with its
// media and its discontinuity sequence, so that a restarted daemon goes on counting where the playlists that
// viewers hold were. One line of text, "PATH MEDIA BREAKS", with " DISCONTINUITY" behind it when a marker
// stands right before the segment: the producer's manifest does not know of the breaks that the daemon found.
// It is replaced by a rename.
//
// Kept with `strict_hls`, and not for backups. The file is written before the playlists that list its
// segment: with a source's first segment, with the first one behind each discontinuity, and when the named
// segment has come into the older half of a list that loses its oldest, so that it is also in a manifest that
// was pruned some time ago.
#pragma once

#include "app/plum.h"

struct seq_anchor {
    char path[MAX_ITEM_PATH];
    int64_t mseq;   // of that segment
    int64_t breaks; // discontinuities before it
    bool is_behind_break;
};

// Reads a source's file. False without `strict_hls`, for a backup, and when the file is missing or not valid
// (logged).
bool seq_read(const pl_source *src, seq_anchor *anchor);
// The list has a new item, or has lost some, or a strict playlist is made of it: writes the file when another
// segment is to be named. A file that cannot be written is told once per source; a missing directory is not.
void seq_keep(pl_source *src);
// An item leaves the list.
void seq_retire(pl_source *src, const pl_item *item);
