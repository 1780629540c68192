#include "app/task.h"

#include "app/discard.h"
#include "app/retry.h"
#include "app/seq.h"
#include "lib/check.h"
#include "lib/log.h"
#include "lib/rqs.h"
#include "lib/syswrap.h"
#include "lib/timeop.h"

#include <cstdlib>

LOG_UNIT(LOG_MOD_APP);

static constexpr size_t TASK_BLOCK = 8;
static constexpr size_t PPRM_BLOCK = 16;
static constexpr time_t IDLE_CLOCK_START = 1'000'000'000;

static bool g_is_expedited = false;

time_t idle_clock() {
    return IDLE_CLOCK_START + rqs_now_ref()->tv_sec;
}

int64_t wall_lead_ms() {
    timespec loop;
    timespec wall;
    set_clk_now(&loop, CLOCK_MONOTONIC);
    set_real_now(&wall);
    return (wall.tv_sec - loop.tv_sec) * 1000 + (wall.tv_nsec - loop.tv_nsec) / 1'000'000;
}

// --- making ---

const void *pre_add_tcheck(const xvlst *list) {
    return list->data;
}

int post_add_check(const xvlst *list, const void *pre, const char *what, const char *setting) {
    if (!pre || list->data == pre)
        return 0;
    LOG_FN(LL_WARN, "memory for [%s] got re-allocated %p->%p, please increase %s\n", what, pre, list->data,
           setting);
    return -1;
}

// The table may have been sized under another limit than the present one.
static size_t task_limit(const pl_source *src) {
    size_t limit = g_cfg.max_src_tasks;
    if (src->tasks.flags & XV_FIXED && src->tasks.max_len < limit)
        limit = src->tasks.max_len;
    return limit;
}

pl_task *add_task(const char *caller, pl_source *src, uint32_t tag) {
    size_t limit = task_limit(src);
    if (src->tasks.len >= limit) {
        LOG(LL_ERROR, "%s: exceeded max=%zu tasks per source\n", caller, limit);
        return nullptr;
    }
    const void *pre = pre_add_tcheck(&src->tasks);
    ssize_t idx = xvlst_add(&src->tasks, sizeof(pl_task), TASK_BLOCK);
    CHECK(idx >= 0);
    post_add_check(&src->tasks, pre, "source tasks", "lum.min_src_tasks");
    pl_task *task = src_task(src, idx);
    init_task(task, src);
    // A reload may have switched strict playlists on since the last segment came.
    if (task->is_strict)
        seq_keep(src);
    task->tag.num = tag;
    task->idx = idx;
    task->lk_tmout_sec = g_cfg.lk_tmout_sec;
    task->last_io_time = time(nullptr);
    return task;
}

void init_task(pl_task *task, pl_source *src) {
    *task = {};
    if (++g_ctx.last_tseq > MAX_TSEQ)
        g_ctx.last_tseq = 1;
    task->tseq = g_ctx.last_tseq;
    task->src = src;
    task->idx = -1;
    task->pprm_idx = -1;
    task->lkfd = -1;
    task->must_sync_playlist = true;
    task->is_strict = g_cfg.strict_hls;
    task->min_target_sec = static_cast<unsigned>(g_cfg.min_target_sec);
}

// --- finding ---

pl_task *ref_task(const taskref *ref) {
    if (!ref || !ref->src || ref->idx < 0 || !xvlst_taken(ref->src->tasks, static_cast<size_t>(ref->idx)))
        return nullptr;
    pl_task *task = src_task(ref->src, ref->idx);
    return task->idx == ref->idx ? task : nullptr;
}

pl_task *get_ref_task(const xvlst *list, size_t i) {
    pl_task *task = ref_task(xvlst_at<taskref>(*list, i));
    return task && task->pprm_idx == static_cast<ssize_t>(i) ? task : nullptr;
}

// --- removing ---

// A task about to go is no longer the one that new requests join, nor keeps its keys from the next one.
static void drop_as_shared(pl_task *task) {
    pl_source *src = task->src;
    rm_from_evht(task);
    if (task->tag.num == PL_LIV && src->live_idx == task->idx) {
        src->live_idx = -1;
        LOG(LL_DEBUG, "%s: idx=%zd dropped as LIVE for src[%s]\n", "pprm_task", task->idx, src->nametag);
    }
    if (task->tag.num == PL_VOD && src->vod_idx == task->idx) {
        src->vod_idx = -1;
        LOG(LL_DEBUG, "%s: idx=%zd dropped as VOD for src[%s]\n", "pprm_task", task->idx, src->nametag);
    }
}

int pprm_task(pl_task *task) {
    if (task->pprm_idx >= 0) {
        LOG_FN(LL_WARN, "task [%s%u] (%p) is already listed, skipping\n", task->tag.sym, task->tseq,
               static_cast<void *>(task));
        return 0;
    }
    ssize_t slot = xvlst_add(&g_ctx.pprm_tasks, sizeof(taskref), PPRM_BLOCK);
    if (slot < 0)
        LOG_FN(LL_ERROR, "FAILED on [%s%u] (%p)\n", task->tag.sym, task->tseq, static_cast<void *>(task));
    CHECK(slot >= 0);
    task->pprm_idx = slot;
    drop_as_shared(task);
    *xvlst_at<taskref>(g_ctx.pprm_tasks, static_cast<size_t>(slot)) = {.src = task->src, .idx = task->idx};
    LOG_FN(LL_DEBUG, "[%s%u] (%p) idx=%zd OK\n", task->tag.sym, task->tseq, static_cast<void *>(task),
           task->idx);
    return 0;
}

static int purge_ref(void *, size_t i) {
    if (pl_task *task = get_ref_task(&g_ctx.pprm_tasks, i))
        rm_task(task);
    return 0;
}

void pprm_task_cleanup() {
    LOG_FN(LL_DEBUG, "%zu pprm tasks\n", g_ctx.pprm_tasks.len);
    xvlst_purge_all(&g_ctx.pprm_tasks, purge_ref);
}

int rm_task(pl_task *task) {
    CHECK(task->src && task->idx >= 0);
    size_t idx = static_cast<size_t>(task->idx);
    n32_tag tag = task->tag;
    int rc = xvlst_del(&task->src->tasks, idx, rm_task_rec);
    if (rc != 0)
        LOG_FN(LL_ERROR, "failed to remove %s task (%p), idx=%zu\n", tag.sym, static_cast<void *>(task), idx);
    return rc;
}

int rm_task_rec(void *tasks, size_t i) {
    destroy_task(static_cast<pl_task *>(tasks) + i);
    return 0;
}

void rm_from_evht(pl_task *task) {
    for (size_t i = 0; i < task->utms.len; ++i) {
        char *key = *xvec_at<char *>(task->utms, i);
        void *data = nullptr;
        if (skht_rm(task->src->ev_ht, key, &data) == 0) {
            taskref *ref = static_cast<taskref *>(data);
            CHECK(ref && ref->src == task->src && ref->idx == task->idx);
            free(ref);
            LOG_FN(LL_DEBUG, "key=%s removed\n", key);
        } else {
            LOG_FN(LL_ERROR, "key=%s not in events for src[%s]\n", key, task->src->nametag);
        }
        free(key);
    }
    xvec_reset(&task->utms);
}

void rm_lock(pl_task *task) {
    const int64_t no_owner[2] = {};
    if (W_lseek(__func__, task->lkfd, 0, SEEK_SET) == 0)
        W_write_f(__func__, task->lkfd, no_owner, sizeof(no_owner), 1);
}

static void drop_lock(pl_task *task) {
    if (task->lkfd < 0)
        return;
    if (task->lpath[0])
        delete_file(__func__, task->lpath);
    rm_lock(task);
    W_close(__func__, task->lkfd);
    task->lpath[0] = '\0';
    task->lkfd = -1;
}

void drop_playlist(pl_task *task) {
    if (task->fpath[0])
        delete_file(__func__, task->fpath);
    task->fpath[0] = '\0';
    drop_lock(task);
}

// Viewers may still hold it: it goes with its segments.
static void leave_playlist(pl_task *task) {
    for (char *path : {task->fpath, task->lpath}) {
        if (path[0])
            discard_file(task->src, path);
        path[0] = '\0';
    }
}

void destroy_task(pl_task *task) {
    CHECK(task->tag.num == PL_LIV || task->tag.num == PL_VOD || task->tag.num == PL_EVE);
    LOG_FN(LL_DEBUG, "(%p) %s%u [%s] of [%s], idx=%zd, peer=[%s]\n", static_cast<void *>(task), task->tag.sym,
           task->tseq, task->fpath, task->src->nametag, task->idx, task->peer_tag ? task->peer_tag : "");
    rm_from_evht(task);
    if (task->keeps_files && is_discard_on())
        leave_playlist(task);
    drop_playlist(task);
    free(task->peer_tag);
    task->peer_tag = nullptr;
    LOG_FN(LL_DEBUG, "%s%u (%p) done\n", task->tag.sym, task->tseq, static_cast<void *>(task));
    tag_expire(task->tag);
    task->pprm_idx = -1;
}

// --- periodic checks ---

void schedule_time_out() {
    g_is_expedited = true;
    LOG_FN(LL_DEBUG, "done\n");
}

bool is_iocheck_time(timespec *last, long interval_sec) {
    bool is_expedited = g_is_expedited;
    g_is_expedited = false;
    if (is_expedited)
        LOG_FN(LL_DEBUG, "expedited\n");
    timespec now = rqs_now();
    bool is_early = now.tv_sec - last->tv_sec < interval_sec ||
                    (now.tv_sec - last->tv_sec == interval_sec && now.tv_nsec < last->tv_nsec);
    if (is_early && !is_expedited)
        return false;
    *last = now;
    return true;
}
