#include "app/pl_stretch.h"

#include "app/pl_gzip.h"
#include "app/task.h"
#include "lib/log.h"
#include "lib/strops.h"
#include "lib/syswrap.h"

#include <bit>
#include <cstdlib>
#include <cstring>

LOG_UNIT(LOG_MOD_APP);

static constexpr size_t LONG_WINDOW = 2 * STRETCH_ITEMS; // segments; shorter ones may hold no stretch

struct pl_stretch {
    text_span span; // .first null = none
    gz_piece piece; // .data null = not compressed
};

struct pl_stretches {
    char prefix[MAX_ITEM_PFX]; // the style that they were compressed in
    bool is_strict;
    time_t used;    // idle clock's seconds
    size_t room;    // a power of two, above the number of stretches that the list can hold
    pl_stretch *at; // owned; a stretch has one place, given by its number
};

static pl_stretch *place_of(const pl_stretches *kept, size_t mseq) {
    return &kept->at[mseq / STRETCH_ITEMS & (kept->room - 1)];
}

static void clear_place(pl_stretch *stretch) {
    free(stretch->piece.data);
    *stretch = {};
}

// --- the store ---

static bool has_room(const pl_source *src) {
    return src->stretches && dlep_count(src->items) / STRETCH_ITEMS + 2 <= src->stretches->room;
}

// For every stretch that the list can hold; false without memory.
static bool make_room(pl_source *src) {
    if (!src->stretches)
        src->stretches = static_cast<pl_stretches *>(W_calloc(__func__, 1, sizeof(pl_stretches)));
    pl_stretches *kept = src->stretches;
    if (!kept)
        return false;
    const pl_stretches old = *kept;
    size_t room = std::bit_ceil(dlep_count(src->items) / STRETCH_ITEMS + 2);
    auto *at = static_cast<pl_stretch *>(W_calloc(__func__, room, sizeof(pl_stretch)));
    if (!at)
        return false;
    kept->used = idle_clock();
    kept->room = room;
    kept->at = at;
    for (size_t n = 0; n < old.room; ++n)
        if (const pl_item *first = old.at[n].span.first)
            *place_of(kept, first->mseq) = old.at[n];
    free(old.at);
    return true;
}

// --- one stretch ---

static bool is_foreign(const pl_item *item, size_t expected, size_t first) {
    return is_segment(item) ? item->mseq != expected
                            : item->mseq < first || item->mseq >= first + STRETCH_ITEMS;
}

// Durations from `item` on; false when the numbers do not run on, or the list ends.
static bool measure_stretch(const pl_item *item, text_span *span) {
    *span = {};
    span->first = item;
    for (size_t segments = 0;; item = newer_item(item)) {
        if (!item || is_foreign(item, span->first->mseq + segments, span->first->mseq))
            return false;
        if (is_segment(item) && segments == STRETCH_ITEMS)
            break;
        span_item(span, item);
        segments += is_segment(item);
    }
    span->end = item;
    return true;
}

static bool g_is_overfull;

static void refuse_more(text_sink *out) {
    g_is_overfull = true;
    out->len = 0;
}

static void press_stretch(pl_stretch *place, const pl_style &style) {
    static char text[GZ_PIECE_TEXT];
    text_sink out = {.buf = text, .size = sizeof(text), .len = 0, .drain = refuse_more};
    g_is_overfull = false;
    place->span.has_lead = follows_break(place->span.first);
    for (const pl_item *item = place->span.first; item != place->span.end; item = newer_item(item))
        put_item(&out, item, style);
    if (!g_is_overfull)
        gz_press({text, out.len}, &place->piece);
}

// Where the stretch that begins with the item has its place, measured; null when none can begin there, or it
// does not end within the window.
static pl_stretch *stretch_at(pl_source *src, const pl_item *item, const pl_item *last) {
    if (!is_segment(item) || item->mseq % STRETCH_ITEMS != 0 || last->mseq < item->mseq + STRETCH_ITEMS)
        return nullptr;
    if (!has_room(src) && !make_room(src))
        return nullptr;
    pl_stretch *place = place_of(src->stretches, item->mseq);
    if (place->span.first == item)
        return place;
    text_span span;
    if (!measure_stretch(item, &span))
        return nullptr;
    clear_place(place);
    place->span = span;
    return place;
}

// --- in a playlist ---

static const text_span *find_stretch(const text_spans *spans, const pl_item *item, const pl_item *last) {
    const pl_stretch *place = stretch_at(spans->src, item, last);
    return place && place->piece.data ? &place->span : nullptr;
}

static const text_span *find_or_make(const text_spans *spans, const pl_item *item, const pl_item *last) {
    pl_stretch *place = stretch_at(spans->src, item, last);
    if (!place)
        return nullptr;
    if (!place->piece.data)
        press_stretch(place, spans->style);
    return &place->span;
}

static void put_stretch(const text_span *span) {
    gz_splice(reinterpret_cast<const pl_stretch *>(span)->piece);
}

bool stretch_open(const pl_task *task, const pl_style &style, text_spans *spans) {
    bool is_long = task->ilast->mseq >= task->ifirst->mseq + LONG_WINDOW;
    if (!task->is_gzipped || !is_long)
        return false;
    pl_source *src = task->src;
    if (src->stretches &&
        (style.prefix != src->stretches->prefix || style.is_strict != src->stretches->is_strict))
        stretch_drop(src);
    if (!has_room(src) && !make_room(src))
        return false;
    copy_cut(src->stretches->prefix, sizeof(src->stretches->prefix), style.prefix);
    src->stretches->is_strict = style.is_strict;
    src->stretches->used = idle_clock();
    *spans = {.src = src, .style = style, .find = find_stretch, .make = find_or_make, .put = put_stretch};
    return true;
}

bool stretch_prepare(const pl_task *task, size_t max) {
    text_spans spans;
    if (!stretch_open(task, text_style(task), &spans))
        return true;
    size_t pressed = 0;
    for (const pl_item *item = task->ifirst; item && pressed < max;) {
        pl_stretch *place = stretch_at(task->src, item, task->ilast);
        if (place && !place->piece.data) {
            press_stretch(place, spans.style);
            pressed += place->piece.data != nullptr;
        }
        item = place ? place->span.end : newer_item(item);
    }
    return pressed < max;
}

const text_span *stretch_measured(pl_source *src, const pl_item *item) {
    const pl_stretch *place = stretch_at(src, item, newest_item(src));
    return place ? &place->span : nullptr;
}

// --- their end ---

void stretch_retire(pl_source *src, const pl_item *item) {
    if (!src->stretches || !src->stretches->at || item->mseq % STRETCH_ITEMS != 0)
        return;
    pl_stretch *place = place_of(src->stretches, item->mseq);
    if (place->span.first == item)
        clear_place(place);
}

void stretch_age(pl_source *src) {
    if (src->stretches && idle_clock() - src->stretches->used >= STRETCH_KEEP_SEC)
        stretch_drop(src);
}

void stretch_drop(pl_source *src) {
    pl_stretches *kept = src->stretches;
    src->stretches = nullptr;
    if (!kept)
        return;
    for (size_t i = 0; i < kept->room; ++i)
        free(kept->at[i].piece.data);
    free(kept->at);
    free(kept);
    LOG_FN(LL_DEBUG, "src[%s] keeps no compressed text\n", src->nametag);
}
