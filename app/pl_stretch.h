// Kept compressed stretches: a stretch is the text of STRETCH_ITEMS segments in a row, from one whose media
// sequence number is a multiple of that up to the next such one, with the markers between. It never changes
// while its items are in the list, so it is compressed once per source, by the first long gzip playlist that
// covers it, and spliced into every other. It goes when its first item retires; all of a source's go when the
// style of its items changes and when no long playlist was written for STRETCH_KEEP_SEC. Where numbers do not
// run on (a manifest that was sorted), nothing is kept, and items are written one by one.
//
// What the items of a stretch add to durations is kept with it, compressed or not: nothing of it is walked
// again.
#pragma once

#include "app/pl_text.h"

inline constexpr size_t STRETCH_ITEMS = 256; // 13 to 32 KB of text
inline constexpr long STRETCH_KEEP_SEC = 3600;

// Whether the task's window is worth it: compressed, and long. Fills `spans` then, for this one writing. Text
// that spans put goes through pl_gzip.
bool stretch_open(const pl_task *task, const pl_style &style, text_spans *spans);

// Compresses at most `max` of the stretches that the task's playlist lacks; true when it lacks none, or does
// not use any.
bool stretch_prepare(const pl_task *task, size_t max);

// The durations of the stretch that begins with the item, measured on first use; null when none does.
const text_span *stretch_measured(pl_source *src, const pl_item *item);

// An item leaves the list.
void stretch_retire(pl_source *src, const pl_item *item);
// Drops what was not used for long.
void stretch_age(pl_source *src);
void stretch_drop(pl_source *src);
