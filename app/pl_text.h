// What a playlist says: its head, the lines of its items and its end, formatted into a sink. No file is
// touched here. The lines of an item in the middle of a window depend on nothing but the items and the style,
// so that the text of a stretch of them is the same in every playlist.
#pragma once

#include "app/plum.h"

#include <string_view>

inline constexpr size_t TEXT_LINE_ROOM = 512; // more than one item's lines can take

// Where text goes: a caller's buffer, emptied when it runs full. What is left in it at the end is the
// caller's to drain.
struct text_sink {
    char *buf;
    size_t size; // at least TEXT_LINE_ROOM
    size_t len;
    void (*drain)(text_sink *); // takes the first `len` bytes and sets `len` to 0
};

// What shapes the lines of an item.
struct pl_style {
    std::string_view prefix; // of each media-segment URL
    bool is_strict;
};

struct pl_totals {
    unsigned target_sec; // target duration
    double total_sec;    // durations of the written segments
    size_t items;        // in the window
    bool is_at_end;      // the event's end was among them
};

// Items in a row whose text is kept ready elsewhere, with what they add to a playlist.
struct text_span {
    const pl_item *first; // a segment; null = none
    const pl_item *end;   // the item behind the last one
    size_t items;
    double total_sec;   // durations of the segments
    double longest_sec; // longest duration
    time_t reach;       // latest end of an event that ends within, as event_reach
    bool has_lead;      // strict: its text begins with the breaks before `first`
};

// Where ready spans come from. Both look for one that begins with `item` and ends in front of `last`; `make`
// also makes it.
struct text_spans {
    pl_source *src;
    pl_style style;
    const text_span *(*find)(const text_spans *, const pl_item *item, const pl_item *last);
    const text_span *(*make)(const text_spans *, const pl_item *item, const pl_item *last);
    void (*put)(const text_span *); // its text; what came before was drained from the sink
};

// The style of the task's playlist; the prefix is its source's or the configured one.
pl_style text_style(const pl_task *task);
// Fills target duration and number of items of the task's window; the total comes with put_items. Both take
// what `spans` has of it, null for nothing.
void measure_window(const pl_task *task, const text_spans *spans, pl_totals *totals);

void put_head(text_sink *out, const pl_task *task, const pl_totals &totals);
// The lines of one item that stands behind the first segment of its window. In the strict style the breaks
// before a segment are its own lines, so that none is left at the end of a list.
void put_item(text_sink *out, const pl_item *item, const pl_style &style);
// The lines of the window, up to the item that ends the event. Fills what is left of the totals.
void put_items(text_sink *out, const pl_task *task, const pl_style &style, const text_spans *spans,
               pl_totals *totals);
// The closing line, for a list to which nothing will be added.
void put_end(text_sink *out, const pl_task *task, const pl_totals &totals);

// The Unix time at which an item ends, its duration rounded up.
time_t item_end_time(const pl_item *item);
// Whole seconds of the next newer item, 0 when there is none.
long next_item_sec(const pl_item *item);
// Adds an item to a span.
void span_item(text_span *span, const pl_item *item);
// The latest end of an event that ends with this item, or before the next one does; Unix seconds.
time_t event_reach(const pl_item *item);
// Whether an event that ends at `end_time` ends with this item, or before the next one does.
bool ends_event(const pl_item *item, time_t end_time);
