// Items of a source: from a parsed line into the list, and out of it again. Items beyond the playback depth
// retire, and their files are deleted one retirement later.
#pragma once

#include "app/plum.h"
#include "lib/strops.h"

inline constexpr char KEYWORD[] = "SEGMENT:"; // of the lines of sources and manifests

enum line_verdict : int { LINE_OK, LINE_INVALID, LINE_REFUSED };
// Scans "KEYWORD PATH START DURATION SIZE ID PTS [REST]" into `data`. LINE_INVALID without a keyword
// "SEGMENT:", without a path, or with a zero byte; LINE_REFUSED (logged) for a path that does not fit or
// leaves the data directory, or a duration that is negative or not finite.
line_verdict scan_item(line_scan *scan, item_data *data, std::string_view *rest);

// Turns a parsed line into an item of the source and moves its tasks. 0 (also for a line that is skipped),
// ENOMEM, -1 for a file of another size, -2 for one that cannot be read, -1 when the item cannot be added.
int add_seg(pl_source *src, const item_data *data);
// Adds a discontinuity marker; the result of add_seg.
int add_discontinuity(pl_source *src);

// 0 when the file's size is the reported one, -1 for another (logged), -2 when it cannot be read.
int verify_item_size(const char *data_dir, const char *path, off_t size);
// Order by start time: -1, 0, 1. Both are pl_item.
int plitem_cmp(const dlep_elem *a, const dlep_elem *b);
// The partial line that a source's connection has carried so far; keeping a text replaces it by a copy, an
// empty one drops it.
std::string_view partial_line(const pl_source *src);
void keep_partial(pl_source *src, std::string_view text);
// When a segment that starts at `start_tm` leaves the playback window, Unix seconds.
time_t seg_expiry_time(const src_params *params, long start_tm);
// Frees an item and its path; files are not touched.
void free_item(pl_item *item);

// Moves the source's tasks and, with `must_trim`, retires the oldest item. 0 or a task's failure.
int apply_src_changes(pl_source *src, bool must_trim);
// Takes over the retired item's path: its file is deleted when the next one retires, or
// `keep_retired_sec` from now.
void recycle_segfile(pl_source *src, pl_item *item);
// With late deletion on: no next one will retire, so the file whose path was taken over joins the others that
// wait.
void discard_last_segfile(pl_source *src);
// With late deletion on: the file of an entry that is too old to be listed, and so left in no list, goes too,
// unless it has been written again since.
void discard_stale(pl_source *src, const item_data *data);
