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
    gz_piece piece;
};

struct pl_stretches {
    char prefix[MAX_ITEM_PFX]; // the style that they were made in
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

// --- the text of one ---

static bool g_is_overfull;

static void refuse_more(text_sink *out) {
    g_is_overfull = true;
    out->len = 0;
}

static bool is_foreign(const pl_item *item, size_t expected, size_t first) {
    return is_segment(item) ? item->mseq != expected
                            : item->mseq < first || item->mseq >= first + STRETCH_ITEMS;
}

// Text and durations from `item` on; false when the numbers do not run on, or the list ends.
static bool tell_stretch(const pl_item *item, const pl_style &style, text_sink *out, text_span *span) {
    size_t first = item->mseq;
    *span = {};
    span->first = item;
    span->has_lead = follows_break(item);
    for (size_t segments = 0;; item = newer_item(item)) {
        if (!item || is_foreign(item, first + segments, first))
            return false;
        if (is_segment(item) && segments == STRETCH_ITEMS)
            break;
        put_item(out, item, style);
        span_item(span, item);
        segments += is_segment(item);
    }
    span->end = item;
    return !g_is_overfull;
}

static const text_span *make_stretch(pl_stretch *place, const pl_item *item, const pl_style &style) {
    static char text[GZ_PIECE_TEXT];
    text_sink out = {.buf = text, .size = sizeof(text), .len = 0, .drain = refuse_more};
    clear_place(place);
    g_is_overfull = false;
    text_span span;
    if (!tell_stretch(item, style, &out, &span) || !gz_press({text, out.len}, &place->piece))
        return nullptr;
    place->span = span;
    return &place->span;
}

// --- in a playlist ---

// Where the stretch that begins with the item has its place; null when none can begin there, or it does not
// end within the window.
static pl_stretch *place_within(const pl_source *src, const pl_item *item, const pl_item *last) {
    if (!is_segment(item) || item->mseq % STRETCH_ITEMS != 0 || last->mseq < item->mseq + STRETCH_ITEMS)
        return nullptr;
    return place_of(src->stretches, item->mseq);
}

static const text_span *find_stretch(const text_spans *spans, const pl_item *item, const pl_item *last) {
    const pl_stretch *place = place_within(spans->src, item, last);
    return place && place->span.first == item ? &place->span : nullptr;
}

static const text_span *find_or_make(const text_spans *spans, const pl_item *item, const pl_item *last) {
    pl_stretch *place = place_within(spans->src, item, last);
    if (!place)
        return nullptr;
    return place->span.first == item ? &place->span : make_stretch(place, item, spans->style);
}

static void put_stretch(const text_span *span) {
    gz_splice(reinterpret_cast<const pl_stretch *>(span)->piece);
}

// --- the store ---

// Room for every stretch of the list; false without memory.
static bool make_room(pl_stretches *kept, size_t items) {
    size_t room = std::bit_ceil(items / STRETCH_ITEMS + 2);
    if (room <= kept->room)
        return true;
    pl_stretches more = *kept;
    more.room = room;
    more.at = static_cast<pl_stretch *>(W_calloc(__func__, room, sizeof(pl_stretch)));
    if (!more.at)
        return false;
    for (size_t i = 0; i < kept->room; ++i)
        if (const pl_item *first = kept->at[i].span.first)
            *place_of(&more, first->mseq) = kept->at[i];
    free(kept->at);
    *kept = more;
    return true;
}

static bool open_store(pl_source *src, const pl_style &style) {
    if (src->stretches &&
        (style.prefix != src->stretches->prefix || style.is_strict != src->stretches->is_strict))
        stretch_drop(src);
    if (!src->stretches) {
        src->stretches = static_cast<pl_stretches *>(W_calloc(__func__, 1, sizeof(pl_stretches)));
        if (!src->stretches)
            return false;
        copy_cut(src->stretches->prefix, sizeof(src->stretches->prefix), style.prefix);
        src->stretches->is_strict = style.is_strict;
    }
    src->stretches->used = idle_clock();
    return make_room(src->stretches, dlep_count(src->items));
}

bool stretch_open(const pl_task *task, const pl_style &style, text_spans *spans) {
    bool is_long = task->ilast->mseq >= task->ifirst->mseq + LONG_WINDOW;
    if (!task->is_gzipped || !is_long || !open_store(task->src, style))
        return false;
    *spans = {
        .src = task->src, .style = style, .find = find_stretch, .make = find_or_make, .put = put_stretch};
    return true;
}

void stretch_retire(pl_source *src, const pl_item *item) {
    if (!src->stretches || item->mseq % STRETCH_ITEMS != 0)
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
