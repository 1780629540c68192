#include "app/pl_event.h"

#include "app/pl.h"
#include "app/pl_file.h"
#include "app/pl_stretch.h"
#include "app/pl_text.h"
#include "app/rewrite.h"
#include "app/task.h"
#include "lib/check.h"
#include "lib/log.h"
#include "lib/strops.h"
#include "lib/timeop.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>
#include <string_view>

LOG_UNIT(LOG_MOD_APP);

// A key is looked up whole but stored cut: one of more than 30 characters is not found again.
static constexpr size_t LOOKUP_KEY_SIZE = 63;
static constexpr size_t STORED_KEY_SIZE = 31;
static constexpr size_t KEY_BLOCK = 8;

// --- range helpers ---

static pl_item *oldest_segment(const pl_source *src) {
    pl_item *item = oldest_item(src);
    while (item && !is_segment(item))
        item = newer_item(item);
    return item;
}

bool is_eot_reachable(const pl_source *src, time_t end_tm) {
    const pl_item *newest = newest_segment(src);
    return newest && ends_event(newest, end_tm);
}

size_t calc_depth(const pl_item *item, size_t max_depth) {
    const pl_item *forth = item;
    const pl_item *back = item;
    size_t depth = 0;
    while (depth < max_depth && newer_item(forth) && older_item(back)) {
        forth = newer_item(forth);
        back = older_item(back);
        ++depth;
    }
    return depth;
}

pl_item *step_from(bool forth, pl_item *item, size_t nsteps) {
    for (size_t n = 0; n < nsteps; ++n) {
        pl_item *next = forth ? newer_item(item) : older_item(item);
        if (!next)
            break;
        item = next;
    }
    return item;
}

// Passes over all of a stretch that the items behind `reach` begin with, if it surely ends before `max_sec`.
static bool leap(pl_source *src, item_reach *reach, double max_sec) {
    const pl_item *next = newer_item(reach->last);
    const text_span *span = next ? stretch_measured(src, next) : nullptr;
    if (!span || reach->sec + span->total_sec >= max_sec)
        return false;
    reach->last = older_item(span->end);
    reach->sec += span->total_sec;
    return true;
}

// Measures on from where `reach` stands, by leaps in a list that has a source.
static pl_item *stretch(pl_source *src, item_reach *reach, double max_sec) {
    while (reach->sec < max_sec) {
        if (src && leap(src, reach, max_sec))
            continue;
        pl_item *next = newer_item(reach->last);
        if (!next || reach->sec + next->duration > max_sec)
            break;
        reach->last = next;
        reach->sec += next->duration;
    }
    LOG(LL_DEBUG, "%s: found m%zu [%s], playback=%f sec\n", "shift_from", reach->last->mseq,
        is_segment(reach->last) ? reach->last->path : "-", reach->sec);
    return reach->last;
}

pl_item *shift_from(pl_item *first, double max_sec) {
    CHECK(first);
    item_reach reach = {.first = first, .last = first, .sec = 0};
    return stretch(nullptr, &reach, max_sec);
}

pl_item *reach_end(pl_task *task) {
    CHECK(task->ifirst);
    if (task->reach.first != task->ifirst)
        task->reach = {.first = task->ifirst, .last = task->ifirst, .sec = 0};
    return stretch(task->src, &task->reach, static_cast<double>(task->duration));
}

// Whether `utime` lies within the newest segment.
static pl_item *fit_newest(pl_source *src, pl_item *newest, long utime) {
    if (utime <= item_end_time(newest)) {
        LOG(LL_DEBUG, "%s: head M%zu fits utime=%ld\n", "get_event_item", newest->mseq, utime);
        return newest;
    }
    LOG(LL_INFO, "%s: src[%s] head time=%ld < %ld\n", "get_event_item", src->nametag,
        static_cast<long>(newest->start_tm), utime);
    return nullptr;
}

pl_item *get_event_item(pl_source *src, long utime) {
    pl_item *newest = newest_segment(src);
    pl_item *oldest = oldest_segment(src);
    if (!newest)
        return nullptr;
    if (newest->start_tm < utime)
        return fit_newest(src, newest, utime);
    if (oldest->start_tm > utime) {
        LOG_FN(LL_INFO, "%ld is before the earliest time=%ld for src[%s]\n", utime,
               static_cast<long>(oldest->start_tm), src->nametag);
        return nullptr;
    }
    pl_item *item = newest;
    int steps = 0;
    for (; item && !(is_segment(item) && item->start_tm <= utime); item = older_item(item))
        ++steps;
    CHECK(item);
    LOG_FN(LL_DEBUG, "picked [%s] M%zu, start_tm=%ld, %d items back\n", item->path, item->mseq,
           static_cast<long>(item->start_tm), steps);
    return item;
}

// --- keys ---

static std::string_view print_long(char (&buf)[24], long n) {
    return {buf, std::to_chars(buf, std::end(buf), n).ptr};
}

// "%ld:%ld/%s", cut to what the buffer holds.
static void mk_key(char *buf, size_t size, long timestamp, long end_time, const char *uid) {
    char at[24];
    char end[24];
    join_cut(buf, size, {print_long(at, timestamp), ":", print_long(end, end_time), "/", uid ? uid : "-"});
}

pl_task *get_assoc_task(skht_t ht, long timestamp, long duration, const char *uid) {
    char key[LOOKUP_KEY_SIZE];
    mk_key(key, sizeof(key), timestamp, duration > 0 ? add_seconds(timestamp, duration) : 0, uid);
    void *data = nullptr;
    int rc = skht_get(ht, key, &data);
    if (rc == ESRCH) {
        LOG_FN(LL_DEBUG, "found no task by key=%s\n", key);
        return nullptr;
    }
    if (rc != 0) {
        LOG_FN(LL_ERROR, "ERROR(%d) looking up [%s]\n", rc, key);
        return nullptr;
    }
    pl_task *task = ref_task(static_cast<taskref *>(data));
    CHECK(task && task->tag.num == PL_EVE && task->pprm_idx < 0);
    LOG_FN(LL_DEBUG, "%s%u M%zu found by key=%s\n", task->tag.sym, task->tseq,
           task->ifirst ? task->ifirst->mseq : 0, key);
    return task;
}

// 0, EBUSY when the key is stored already, or ENOMEM.
static int store_key(pl_task *task, const char *key) {
    auto *ref = static_cast<taskref *>(malloc(sizeof(taskref)));
    if (!ref)
        return ENOMEM;
    *ref = {.src = task->src, .idx = task->idx};
    void *data = ref;
    int rc = skht_add(task->src->ev_ht, key, &data);
    if (rc != 0)
        free(ref);
    return rc;
}

int assoc_utime(pl_task *task, long timestamp, const char *uid) {
    char key[STORED_KEY_SIZE];
    mk_key(key, sizeof(key), timestamp, task->end_time, uid);
    int rc = store_key(task, key);
    if (rc == EBUSY) {
        LOG_FN(LL_DEBUG, "key=%s is taken already\n", key);
        return 0;
    }
    if (rc != 0) {
        LOG_FN(LL_ERROR, "ERROR(%d) adding key=%s\n", rc, key);
        log_abort();
    }
    ssize_t idx = xvec_add(&task->utms, sizeof(char *), KEY_BLOCK);
    CHECK(idx >= 0);
    char **u = xvec_at<char *>(task->utms, 0);
    u[idx] = strdup(key);
    CHECK(u[idx]);
    LOG_FN(LL_DEBUG, "task (%p) u[%zd]='%s'\n", static_cast<void *>(task), idx, key);
    return 0;
}

// --- making ---

static void set_event_end(pl_task *task, bool *can_eot) {
    *can_eot = false;
    if (task->duration == 0) {
        LOG(LL_DEBUG, "%s: %s%u is open-ended\n", "mk_event_task", task->tag.sym, task->tseq);
        return;
    }
    long base = task->start_time < 0 ? add_seconds(time(nullptr), task->start_time) : task->start_time;
    task->end_time = add_seconds(base, task->duration);
    *can_eot = is_eot_reachable(task->src, task->end_time);
    LOG(LL_DEBUG, "%s: %s%u EOT=%ld (%s)\n", "mk_event_task", task->tag.sym, task->tseq,
        static_cast<long>(task->end_time), *can_eot ? "REACHABLE" : "");
}

// The window of a continuous event: centred on its start, or as long as the playlist may be.
static void set_live_range(pl_task *task, pl_item *first, bool can_eot) {
    if (!can_eot && task->duration == 0) {
        // A strict list ends with the newest anyway; where it begins must not depend on when it is asked for.
        size_t depth = task->is_strict ? EVENT_DEPTH : calc_depth(first, EVENT_DEPTH);
        if (depth > 0) {
            task->ifirst = step_from(false, first, depth);
            task->ilast = task->is_strict ? newest_item(task->src) : step_from(true, first, depth);
            CHECK(task->ifirst && task->ilast);
            LOG(LL_DEBUG, "%s: using depth-shift: m%zu..m%zu\n", "mk_event_task", task->ifirst->mseq,
                task->ilast->mseq);
            return;
        }
        LOG(LL_DEBUG, "%s: TOO SHALLOW, depth=%zu\n", "mk_event_task", depth);
    }
    double ext = task->max_pl_duration;
    if (!can_eot && ext > EVENT_DEFAULT_SEC)
        ext = EVENT_DEFAULT_SEC;
    LOG(LL_DEBUG, "%s: using ext-dur=%f\n", "mk_event_task", ext);
    // A strict player finds its place in the list itself.
    task->ilast = task->is_strict && !can_eot ? newest_item(task->src) : shift_from(task->ifirst, ext);
}

static double media_sec(const pl_item *from, const pl_item *to) {
    double sec = 0;
    for (const pl_item *item = from; item != to; item = newer_item(item))
        if (is_segment(item))
            sec += item->duration;
    return sec;
}

// Measured here, so that no writing needs to: where in the window `first` begins to cover the time asked for,
// and how long the window is.
static void measure_event(pl_task *task, const pl_item *first) {
    double within = static_cast<double>(task->start_time) - static_cast<double>(first->start_tm);
    task->lead_sec =
        media_sec(task->ifirst, first) + std::max(0.0, std::min<double>(within, first->duration));
    task->window_sec =
        media_sec(task->ifirst, task->ilast) + (is_segment(task->ilast) ? task->ilast->duration : 0);
}

static void set_event_range(pl_task *task, pl_item *first) {
    bool can_eot = false;
    set_event_end(task, &can_eot);
    task->max_pl_duration = task->duration != 0 ? static_cast<double>(task->duration) : EVENT_DEFAULT_SEC;
    if (task->start_time > 0 && (task->duration == 0 || can_eot))
        task->max_pl_duration = EVENT_UNLIMITED_SEC;
    LOG(LL_DEBUG, "%s: %s%u max playlist duration: %f\n", "mk_event_task", task->tag.sym, task->tseq,
        task->max_pl_duration);
    task->ifirst = first;
    if (task->is_live)
        set_live_range(task, first, can_eot);
    else
        task->ilast = newest_item(task->src);
    if (task->is_strict)
        measure_event(task, first);
}

pl_task *mk_event_task(pl_source *src, pl_item *first, long start_tm, long duration, bool must_gzip,
                       bool is_live, long shift_sec) {
    LOG_FN(LL_DEBUG, "src[%s], first=[%s] M%zu %s\n", src->nametag, is_segment(first) ? first->path : "-",
           first->mseq, is_live ? "LIVE" : "");
    pl_task *task = add_task(__func__, src, PL_EVE);
    if (!task)
        return nullptr;
    task->is_gzipped = must_gzip;
    task->is_live = is_live;
    task->start_time = start_tm;
    task->duration = duration;
    task->shift_sec = shift_sec;
    set_event_range(task, first);
    if (xvec_reserve(&task->utms, KEY_BLOCK, sizeof(char *), KEY_BLOCK) != 0) {
        LOG_FN(LL_ERROR, "cannot reserve memory for utms\n");
        log_abort();
    }
    if (mk_playlist(task) != 0) {
        pprm_task(task);
        return nullptr;
    }
    LOG_FN(LL_INFO, "created %s%u from M%zu, total: %zu tasks\n", task->tag.sym, task->tseq,
           task->ifirst->mseq, src->tasks.len);
    return task;
}

// --- requests ---

// One request, as it is worked out step by step.
struct event_rq {
    pl_source *src;
    long timestamp; // as requested
    long duration;
    bool is_pseudo_live;
    bool can_roll;   // bound to its peer, moving on with the source
    const char *uid; // the peer then; a task that takes the peer over keeps it alive
};

static long shift_of(const event_rq &rq) {
    return rq.timestamp < 0 ? -std::max(rq.timestamp, -LONG_MAX) : 0;
}

static void weigh_request(event_rq *rq, const pl_urq *urq) {
    if (rq->timestamp < 0 && rq->duration != 0) {
        LOG(LL_WARN, "%s: shift time=%ld discards non-zero duration=%ld\n", "get_event_pl", rq->timestamp,
            rq->duration);
        rq->duration = 0;
    }
    if (rq->duration < 0) {
        LOG(LL_WARN, "%s: negative duration=%ld, the event is open-ended\n", "get_event_pl", rq->duration);
        rq->duration = 0;
    }
    bool can_eot = false;
    if (rq->duration != 0) {
        time_t end = add_seconds(rq->timestamp, rq->duration);
        can_eot = is_eot_reachable(rq->src, end);
        if (can_eot)
            LOG(LL_DEBUG, "%s: EOT (%ld) is reachable\n", "get_event_pl", static_cast<long>(end));
    }
    rq->can_roll = rq->timestamp != 0 && !can_eot && urq->peer_tag;
    rq->uid = rq->can_roll ? urq->peer_tag : nullptr;
    if (rq->can_roll)
        LOG(LL_DEBUG, "%s: can ROLL, uid=%s\n", "get_event_pl", rq->uid);
}

static pl_task *find_match(const event_rq &rq, const pl_item *item, long utime) {
    pl_tspec spec = {.tag = {.num = PL_EVE},
                     .ifirst = item,
                     .end_time = rq.duration > 0 ? add_seconds(utime, rq.duration) : 0,
                     .is_strict = g_cfg.strict_hls,
                     .shift_sec = shift_of(rq),
                     .start_time = utime};
    LOG(LL_DEBUG, "%s: will try to match ent-time:%ld\n", "get_event_pl", static_cast<long>(spec.end_time));
    size_t idx = 0;
    if (xvlst_find(&rq.src->tasks, &spec, match_task, &idx) == 0)
        return nullptr;
    pl_task *task = src_task(rq.src, static_cast<ssize_t>(idx));
    LOG(LL_DEBUG, "%s: matched task to %s%u\n", "get_event_pl", task->tag.sym, task->tseq);
    return task;
}

static pl_task *make_task(const event_rq &rq, pl_urq *urq, pl_item *item, long utime) {
    bool must_gzip = !rq.is_pseudo_live || g_cfg.has_gzip_pl;
    LOG(LL_DEBUG, "%s: %s GZIP\n", "get_event_pl", must_gzip ? "must" : "not doing");
    pl_task *task =
        mk_event_task(rq.src, item, utime, rq.duration, must_gzip, rq.is_pseudo_live, shift_of(rq));
    if (!task)
        return nullptr;
    if (rq.duration != 0) {
        task->end_time = add_seconds(rq.timestamp, rq.duration);
        LOG(LL_DEBUG, "%s: %s%u end-time=%ld\n", "get_event_pl", task->tag.sym, task->tseq,
            static_cast<long>(task->end_time));
    }
    if (rq.can_roll) {
        task->peer_tag = urq->peer_tag;
        urq->peer_tag = nullptr;
        LOG(LL_DEBUG, "%s: %s%u acquired peer_tag=[%s]\n", "get_event_pl", task->tag.sym, task->tseq,
            task->peer_tag);
    }
    return task;
}

// By range: an existing task that can be shared, or a new one.
static pl_task *match_or_make(const event_rq &rq, pl_urq *urq, const char **errmsg, int *code) {
    long utime = rq.timestamp;
    if (utime < 0) {
        utime = add_seconds(time(nullptr), utime);
        LOG(LL_DEBUG, "%s: converted time from t-shift=%ld to u-time=%ld\n", "get_event_pl", rq.timestamp,
            utime);
    }
    pl_item *item = get_event_item(rq.src, utime);
    if (!item) {
        *errmsg = "no data for the event";
        *code = PL_NOT_FOUND;
        return nullptr;
    }
    pl_task *task = rq.can_roll ? nullptr : find_match(rq, item, utime);
    return task ? task : make_task(rq, urq, item, utime);
}

// Its key, and a playlist file for a task that lost it; what is strict or waits is brought up to date.
static void settle_task(const event_rq &rq, pl_task *task, bool is_found_by_key, int *code) {
    CHECK(task->tag.num == PL_EVE);
    if (!is_found_by_key)
        assoc_utime(task, rq.timestamp, rq.uid);
    const bool is_behind = task->is_strict && task->must_sync_playlist;
    *code = is_behind || task->fpath[0] == '\0' ? mk_playlist(task) : rewrite_now(task);
}

int get_event_pl(pl_urq *urq, const char *itag, const char *nametag, long timestamp, long duration,
                 bool is_pseudo_live) {
    LOG_FN(LL_DEBUG, "for src[%s] itag=%s, URQ [%s] (%p), utime/duration=%ld/%ld %s\n", nametag, itag,
           urq->rq.trk_tag.sym8, static_cast<void *>(urq), timestamp, duration,
           timestamp < 0   ? "(TIME-SHIFT)"
           : timestamp > 0 ? "(utime)"
                           : "-");
    int code = PL_OK;
    const char *errmsg = nullptr;
    pl_task *task = nullptr;
    event_rq rq = {.src = find_pl_source(nametag, &errmsg, &code),
                   .timestamp = timestamp,
                   .duration = duration,
                   .is_pseudo_live = is_pseudo_live,
                   .can_roll = false,
                   .uid = nullptr};
    if (rq.src) {
        LOG_FN(LL_DEBUG, "located src[%s] with %zu items\n", nametag, dlep_count(rq.src->items));
        weigh_request(&rq, urq);
        task = get_assoc_task(rq.src->ev_ht, rq.timestamp, rq.duration, rq.uid);
        bool is_found_by_key = task != nullptr;
        if (!task)
            task = match_or_make(rq, urq, &errmsg, &code);
        if (task)
            settle_task(rq, task, is_found_by_key, &code);
    }
    set_response(urq, task, itag, errmsg, &code);
    return code;
}
