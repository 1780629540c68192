#include "app/adjust.h"

#include "app/pl_event.h"
#include "app/pl_text.h"
#include "app/rewrite.h"
#include "app/task.h"
#include "lib/check.h"
#include "lib/log.h"

LOG_UNIT(LOG_MOD_APP);

// Without its first item the list still holds the shift, and what players hold back.
static bool has_time_to_spare(const pl_task *task) {
    double rest = task->window_sec - task->ifirst->duration;
    return newer_item(task->ifirst) && rest >= static_cast<double>(task->shift_sec) + hold_back_sec(task);
}

// A strict event from a clock time begins where it began, until that retires.
static bool may_begin_later(const pl_task *task) {
    if (task->tag.num == PL_EVE && (task->shift_sec == 0 || !task->peer_tag))
        return task->shift_sec > 0;
    return has_time_to_spare(task);
}

bool must_advance_ifirst(const pl_task *task) {
    const pl_source *src = task->src;
    bool must = false;
    bool is_decided = false;
    if (task->start_time > 0) {
        must = task->ifirst == oldest_item(src);
        if (must)
            LOG_FN(LL_DEBUG, "%s%u reached TOP-SHIFT point\n", task->tag.sym, task->tseq);
        LOG_FN(LL_DEBUG, "src[%s] %s%u utime=%ld itail(%zu), stail(%zu) peer[%s]\n", src->nametag,
               task->tag.sym, task->tseq, task->start_time, task->ifirst->mseq, oldest_item(src)->mseq,
               task->peer_tag ? task->peer_tag : "");
        is_decided = !task->peer_tag;
    }
    if (!is_decided) {
        size_t d = task->ilast->mseq - task->ifirst->mseq + 1;
        must = d > g_cfg.max_live_items;
        LOG_FN(LL_DEBUG, "%s%u %zu..%zu (d=%zu max=%zu)\n", task->tag.sym, task->tseq, task->ifirst->mseq,
               task->ilast->mseq, d, g_cfg.max_live_items);
    }
    if (must && task->is_strict)
        must = may_begin_later(task);
    LOG_FN(LL_DEBUG, "%s%u %s\n", task->tag.sym, task->tseq, must ? "ADVANCE" : "skip");
    return must;
}

int adjust_task_rec(void *tasks, size_t i, void *must_trim) {
    return adjust_task(static_cast<pl_task *>(tasks) + i, *static_cast<const bool *>(must_trim));
}

static void advance_ifirst(pl_task *task) {
    pl_item *next = newer_item(task->ifirst);
    if (!next)
        return;
    item_reach &reach = task->reach;
    if (reach.first == task->ifirst && reach.last != task->ifirst) {
        reach.first = next;
        reach.sec -= next->duration;
    } else {
        reach = {};
    }
    task->lead_sec -= task->ifirst->duration;
    task->window_sec -= task->ifirst->duration;
    task->ifirst = next;
    LOG(LL_DEBUG, "%s: advancing ifirst to mseq=%zu\n", "adjust_task", next->mseq);
}

static void move_window(pl_task *task, bool must_trim, bool is_pseudo_live, bool is_end_reachable) {
    // A window never begins on the item that is about to go.
    if (must_advance_ifirst(task) || (must_trim && task->ifirst == oldest_item(task->src)))
        advance_ifirst(task);
    // Markers took turns that segments did not get.
    while (task->is_strict && task->shift_sec > 0 && task->peer_tag && must_advance_ifirst(task))
        advance_ifirst(task);
    // A strict list ends with what is written: it never shrinks to what the duration reaches.
    if (is_pseudo_live && is_end_reachable && !task->is_strict) {
        LOG(LL_DEBUG, "%s: shift-to EOT duration=%ld\n", "adjust_task", task->duration);
        task->ilast = reach_end(task);
    }
    LOG(LL_DEBUG, "%s: %s%u %s/%s [%s] is mseq=%zu..%zu now\n", "adjust_task", task->tag.sym, task->tseq,
        task->src->nametag, task->tag.sym, is_pseudo_live ? "pseudo-live" : "", task->ifirst->mseq,
        task->ilast->mseq);
}

static void follow_newest(pl_task *task) {
    pl_item *newest = newest_item(task->src);
    if (task->is_strict)
        for (const pl_item *item = task->ilast; item != newest; item = newer_item(item))
            task->window_sec += newer_item(item)->duration;
    task->ilast = newest;
}

static void let_go_of_items(pl_task *task) {
    task->ifirst = nullptr;
    task->ilast = nullptr;
    task->reach = {};
}

static int leave_with_items(pl_task *task) {
    let_go_of_items(task);
    task->keeps_files = true;
    return pprm_task(task);
}

// A finished task keeps its file, but not the items that go; a strict one goes with its first segment, since
// nothing that it lists could be fetched for long.
static int pass_over_finished(pl_task *task, bool must_trim) {
    LOG(LL_DEBUG, "%s: %s%u is EOT, skipping\n", "adjust_task", task->tag.sym, task->tseq);
    const pl_item *oldest = oldest_item(task->src);
    if (!must_trim || (task->ifirst != oldest && task->ilast != oldest))
        return 0;
    if (task->is_strict)
        return leave_with_items(task);
    let_go_of_items(task);
    return 0;
}

static void detach_vod(pl_task *task) {
    bool is_shared = task->src->vod_idx == task->idx;
    if (is_shared)
        task->src->vod_idx = -1;
    LOG(LL_DEBUG, "%s: %s%u %s\n", "adjust_task", task->tag.sym, task->tseq,
        is_shared ? "detached" : "ignored");
}

static const pl_item *last_segment(const pl_task *task) {
    const pl_item *last = task->ilast;
    while (last != task->ifirst && !is_segment(last))
        last = older_item(last);
    return last;
}

// Whether writing the task's window finishes it; where durations and start times disagree, a window as long
// as the event need not reach its end.
static bool holds_end(const pl_task *task) {
    return task->end_time > 0 && ends_event(last_segment(task), task->end_time);
}

// A strict list goes with its first segment also when nobody has asked for it since its event ended.
static bool goes_unfinished(const pl_task *task) {
    return task->is_strict && task->end_time > 0 && task->ifirst == oldest_item(task->src) &&
           task->end_time <= item_end_time(last_segment(task));
}

int adjust_task(pl_task *task, bool must_trim) {
    if (task->pprm_idx >= 0)
        return 0; // it goes at the end of the pass and has no window any more
    // So an end that still waits to be written comes first.
    if (task->is_queued && !task->is_eot && holds_end(task))
        rewrite_now(task);
    if (task->is_eot)
        return pass_over_finished(task, must_trim);
    pl_source *src = task->src;
    CHECK(newest_item(src) && task->ifirst && task->ilast);
    bool is_vod = task->tag.num == PL_VOD;
    bool is_pseudo_live = task->tag.num == PL_EVE && task->is_live;
    bool is_moving = task->tag.num == PL_LIV || is_pseudo_live;
    if (must_trim && goes_unfinished(task))
        return leave_with_items(task);
    if (!is_vod)
        follow_newest(task);
    bool is_end_reachable = is_moving && task->end_time > 0 && is_eot_reachable(src, task->end_time);
    if (is_moving)
        move_window(task, must_trim, is_pseudo_live, is_end_reachable);
    if (is_vod) {
        detach_vod(task);
    } else {
        task->must_sync_playlist = true;
        LOG_FN(LL_DEBUG, "[%s] must sync\n", task->tag.sym);
    }
    // Only a moving window over the last item left still begins there.
    if (must_trim && task->ifirst == oldest_item(src)) {
        LOG_FN(LL_WARN, "(%s) t%u references tail (m%zu), must RETIRE\n", task->tag.sym, task->tseq,
               task->ifirst->mseq);
        return leave_with_items(task);
    }
    // Writing finishes an event, which then moves no more: not after its items have retired.
    if (is_end_reachable && g_cfg.refresh_pl_files && holds_end(task))
        rewrite_task(task);
    return 0;
}

static int write_moved(void *tasks, size_t i) {
    pl_task *task = static_cast<pl_task *>(tasks) + i;
    // A playlist that cannot be written is told by its writer and tried again; the feed goes on.
    if (task->must_sync_playlist && task->tag.num != PL_VOD && task->pprm_idx < 0 && !task->is_eot)
        rewrite_task(task);
    return 0;
}

void write_moved_tasks(pl_source *src) {
    if (g_cfg.refresh_pl_files && src->tasks.len > 0)
        xvlst_each(&src->tasks, write_moved, nullptr);
}
