#include "app/pl_text.h"

#include "lib/check.h"
#include "lib/log.h"
#include "lib/timeop.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

LOG_UNIT(LOG_MOD_APP);

// --- durations ---

// A duration that a line may carry can be larger than any clock.
static long whole_sec(double sec) {
    if (sec >= 9e18)
        return LONG_MAX;
    return sec <= -9e18 ? LONG_MIN : static_cast<long>(sec);
}

time_t item_end_time(const pl_item *item) {
    return add_seconds(item->start_tm, whole_sec(std::ceil(item->duration)));
}

long next_item_sec(const pl_item *item) {
    const pl_item *next = newer_item(item);
    return next ? whole_sec(next->duration) : 0;
}

time_t event_reach(const pl_item *item) {
    time_t item_end = item_end_time(item);
    time_t next_end = add_seconds(item_end, next_item_sec(item));
    return next_end > item_end ? next_end - 1 : item_end;
}

bool ends_event(const pl_item *item, time_t end_time) {
    return end_time <= event_reach(item);
}

// --- the sink ---

static char *sink_room(text_sink *out) {
    if (out->size - out->len < TEXT_LINE_ROOM)
        out->drain(out);
    return out->buf + out->len;
}

static void sink_advance(text_sink *out, const char *end) {
    out->len = static_cast<size_t>(end - out->buf);
}

__attribute__((format(printf, 2, 3))) static void sink_printf(text_sink *out, const char *format, ...) {
    char *at = sink_room(out);
    va_list args;
    va_start(args, format);
    int n = vsnprintf(at, TEXT_LINE_ROOM, format, args);
    va_end(args);
    CHECK(n >= 0 && n < static_cast<int>(TEXT_LINE_ROOM));
    sink_advance(out, at + n);
}

static char *put_text(char *at, std::string_view text) {
    memcpy(at, text.data(), text.size());
    return at + text.size();
}

// Two digits at a time; `n` below 100.
static char *put_pair(char *at, unsigned n) {
    static constexpr auto PAIRS = [] {
        struct {
            char text[200];
        } out{};
        for (unsigned i = 0; i < 100; ++i) {
            out.text[2 * i] = static_cast<char>('0' + i / 10);
            out.text[2 * i + 1] = static_cast<char>('0' + i % 10);
        }
        return out;
    }();
    memcpy(at, PAIRS.text + 2 * n, 2);
    return at + 2;
}

// "%f". A duration that is a float has at most 24 significant bits, so that its product with a million is
// exact and rounding it to an integer gives the digits that printf gives.
static char *put_duration(char *at, double sec) {
    bool is_simple = sec < 1e6 && !std::signbit(sec) && static_cast<double>(static_cast<float>(sec)) == sec;
    if (!is_simple)
        return at + snprintf(at, TEXT_LINE_ROOM / 2, "%f", sec);
    uint64_t micros = static_cast<uint64_t>(llrint(sec * 1e6));
    unsigned whole = static_cast<unsigned>(micros / 1'000'000);
    unsigned frac = static_cast<unsigned>(micros % 1'000'000);
    at = std::to_chars(at, at + TEXT_LINE_ROOM / 2, whole).ptr;
    *at++ = '.';
    at = put_pair(at, frac / 10'000);
    at = put_pair(at, frac / 100 % 100);
    return put_pair(at, frac % 100);
}

// --- the text ---

void span_item(text_span *span, const pl_item *item) {
    ++span->items;
    if (is_segment(item))
        span->total_sec += item->duration;
    if (item->duration > span->longest_sec)
        span->longest_sec = item->duration;
    if (time_t reach = event_reach(item); span->items == 1 || reach > span->reach)
        span->reach = reach;
}

static double window_longest(const pl_task *task, size_t *items) {
    double longest = 0;
    *items = 0;
    for (const pl_item *item = task->ifirst;; item = newer_item(item)) {
        ++*items;
        longest = std::max<double>(longest, item->duration);
        if (item == task->ilast || !item->le.next)
            return longest;
    }
}

// The same by spans, which are made here.
static double span_longest(const pl_task *task, const text_spans *spans, size_t *items) {
    double longest = 0;
    *items = 0;
    for (const pl_item *item = task->ifirst; item;) {
        const text_span *span = spans->make(spans, item, task->ilast);
        *items += span ? span->items : 1;
        longest = std::max<double>(longest, span ? span->longest_sec : item->duration);
        if (item == task->ilast)
            break;
        item = span ? span->end : newer_item(item);
    }
    return longest;
}

void measure_window(const pl_task *task, const text_spans *spans, pl_totals *totals) {
    double longest = spans ? span_longest(task, spans, &totals->items) : window_longest(task, &totals->items);
    double rounded = nearbyint(longest);
    unsigned max_duration = rounded < 1 ? 1 : rounded >= UINT_MAX ? UINT_MAX : static_cast<unsigned>(rounded);
    CHECK(max_duration > 0);
    totals->target_sec = task->is_strict ? strict_target(task) : max_duration;
}

static const char *playlist_type(const pl_task *task) {
    if (task->tag.num == PL_VOD)
        return "VOD";
    return task->tag.num == PL_EVE && !task->is_live ? "EVENT" : nullptr;
}

pl_style text_style(const pl_task *task) {
    const char *prefix = task->src->item_pfx ? task->src->item_pfx : g_cfg.pl_item_pfx;
    LOG(LL_DEBUG, "%s: using pfx=%s\n", "mk_playlist", prefix);
    return {.prefix = prefix, .is_strict = task->is_strict};
}

static const pl_item *first_segment(const pl_task *task) {
    const pl_item *item = task->ifirst;
    while (item != task->ilast && !is_segment(item))
        item = newer_item(item);
    return is_segment(item) ? item : nullptr;
}

// Without a segment, those of the one that is to come.
static void put_strict_numbers(text_sink *out, const pl_task *task) {
    const pl_item *first = first_segment(task);
    const uint32_t breaks = first ? item_breaks(first) : item_breaks(task->ilast) + 1;
    sink_printf(out, "#EXT-X-MEDIA-SEQUENCE:%zu\n", first ? first->mseq : task->ilast->mseq + 1);
    if (breaks > 0)
        sink_printf(out, "#EXT-X-DISCONTINUITY-SEQUENCE:%u\n", breaks);
    if (task->tag.num != PL_EVE)
        return;
    // A shift counts from the end, so that it is right for whoever joins later.
    double offset =
        task->shift_sec > 0 ? -static_cast<double>(task->shift_sec) : std::max(task->lead_sec, 0.0);
    sink_printf(out, "#EXT-X-START:TIME-OFFSET=%.3f,PRECISE=YES\n", offset);
}

void put_head(text_sink *out, const pl_task *task, const pl_totals &totals) {
    sink_printf(out, "#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-ALLOW-CACHE:YES\n");
    if (const char *type = playlist_type(task))
        sink_printf(out, "#EXT-X-PLAYLIST-TYPE:%s\n", type);
    sink_printf(out, "#EXT-X-TARGETDURATION:%u\n", totals.target_sec);
    if (task->is_strict)
        put_strict_numbers(out, task);
    else
        sink_printf(out, "#EXT-X-MEDIA-SEQUENCE:%zu\n", task->is_live ? task->ifirst->mseq : 0);
}

static void put_segment(text_sink *out, const pl_item *item, const pl_style &style) {
    char *at = put_text(sink_room(out), "#EXTINF:");
    at = put_duration(at, item->duration);
    at = put_text(at, ",\n");
    at = put_text(at, style.prefix);
    at = put_text(at, item->path);
    *at++ = '\n';
    sink_advance(out, at);
}

// Nothing for a time that has no date with four digits of the year.
static void put_date(text_sink *out, const pl_item *item) {
    static constexpr time_t LAST_DATE = 253402300799; // 9999-12-31T23:59:59
    tm date{};
    if (item->start_tm <= 0 || item->start_tm > LAST_DATE || !gmtime_r(&item->start_tm, &date))
        return;
    sink_printf(out, "#EXT-X-PROGRAM-DATE-TIME:%04d-%02d-%02dT%02d:%02d:%02d.000Z\n", date.tm_year + 1900,
                date.tm_mon + 1, date.tm_mday, date.tm_hour, date.tm_min, date.tm_sec);
}

static void put_break(text_sink *out) {
    sink_printf(out, "#EXT-X-DISCONTINUITY\n");
}

static void put_breaks_before(text_sink *out, const pl_item *segment) {
    if (!follows_break(segment))
        return;
    for (const pl_item *older = older_item(segment); older && !is_segment(older); older = older_item(older))
        put_break(out);
    put_date(out, segment);
}

void put_item(text_sink *out, const pl_item *item, const pl_style &style) {
    if (!is_segment(item)) {
        if (!style.is_strict)
            put_break(out);
        return;
    }
    if (style.is_strict)
        put_breaks_before(out, item);
    put_segment(out, item, style);
}

static void put_first_item(text_sink *out, const pl_item *item, const pl_style &style) {
    if (!is_segment(item)) {
        LOG(LL_DEBUG, "%s: skipping DISCONTINUITY as 1st item\n", "mk_playlist");
        return;
    }
    if (style.is_strict)
        put_date(out, item);
    put_segment(out, item, style);
}

// The ready text that begins with the item and does not hold the event's end.
static const text_span *put_span(text_sink *out, const pl_task *task, const pl_item *item,
                                 const text_spans *spans, bool is_first) {
    const text_span *span = spans->find(spans, item, task->ilast);
    if (!span || (task->end_time > 0 && task->end_time <= span->reach))
        return nullptr;
    if (is_first && task->is_strict) {
        if (span->has_lead)
            return nullptr;
        put_date(out, item);
    }
    out->drain(out);
    spans->put(span);
    return span;
}

void put_items(text_sink *out, const pl_task *task, const pl_style &style, const text_spans *spans,
               pl_totals *totals) {
    bool is_first = true;
    for (const pl_item *item = task->ifirst;; item = newer_item(item)) {
        while (const text_span *span = spans ? put_span(out, task, item, spans, is_first) : nullptr) {
            totals->total_sec += span->total_sec;
            item = span->end;
            is_first = false;
        }
        if (is_segment(item))
            totals->total_sec += item->duration;
        if (is_first)
            put_first_item(out, item, style);
        else
            put_item(out, item, style);
        is_first = is_first && style.is_strict && !is_segment(item);
        if (task->end_time > 0 && ends_event(item, task->end_time)) {
            totals->is_at_end = true;
            LOG(LL_DEBUG, "%s: EOT task (%p) %s%u\n", "mk_playlist", static_cast<const void *>(task),
                task->tag.sym, task->tseq);
            break;
        }
        if (item == task->ilast || !item->le.next)
            break;
    }
}

void put_end(text_sink *out, const pl_task *task, const pl_totals &totals) {
    if (totals.is_at_end || task->is_eot || ends_list(task->ilast) || task->tag.num == PL_VOD)
        sink_printf(out, "#EXT-X-ENDLIST\n");
}
