#include "app/expiry.h"

#include "app/app.h"
#include "app/backup.h"
#include "app/discard.h"
#include "app/pl_stretch.h"
#include "app/retry.h"
#include "app/task.h"
#include "lib/check.h"
#include "lib/log.h"
#include "lib/timeop.h"
#include "lib/tmout.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <sys/stat.h>

LOG_UNIT(LOG_MOD_APP);

static constexpr int64_t MAX_CLOCK_DRIFT_MS = 1000; // of the clocks between two checks; beyond, one was set
static constexpr timespec SLICE_TIME = {0, 3'000'000};
static constexpr size_t SLICE_REMOVALS = 64;
static constexpr size_t LOOKS_PER_CLOCK = 32;

void time_out_requests() {
    if (is_iocheck_time(&g_ctx.last_rq_check, g_cfg.urq_tmout_sec))
        rui_tmout_all(&g_ctx.rui, g_cfg.urq_tmout_sec * 1000L);
}

// What was touched before the wall clock was set has no age by it: until the next touch, idle time counts
// from here.
static void note_step(pl_task *task) {
    struct stat st;
    task->step_idle_tm = idle_clock();
    task->step_touch = task->lkfd >= 0 && fstat(task->lkfd, &st) == 0 ? st.st_mtime : task->last_io_time;
}

static bool is_clock_set() {
    int64_t lead = wall_lead_ms();
    int64_t step = lead - g_ctx.wall_lead_ms;
    g_ctx.wall_lead_ms = lead;
    if (step <= MAX_CLOCK_DRIFT_MS && step >= -MAX_CLOCK_DRIFT_MS)
        return false;
    LOG(LL_WARN, "%s: the wall clock was set by %.3f sec, idle times count from now\n", "time_out_src_tasks",
        static_cast<double>(step) / 1000);
    return true;
}

// --- the sweep over the tasks ---

static long idle_sec(const pl_source *src) {
    return idle_clock() - src->last_item_tm;
}

static long idle_limit(const pl_source *src) {
    return src->tmout_sec != 0 ? src->tmout_sec : g_cfg.src_tmout_sec;
}

// What one pass gives to the sweep. Listed tasks cost more at the end of the pass, when they are removed,
// than looking at them does.
struct slice {
    timespec begin;
    size_t looks = 0;
    size_t listed_before = g_ctx.pprm_tasks.len;
    slice() { set_clk_now(&begin, CLOCK_MONOTONIC); }
};

static bool is_over(const slice &s) {
    if (g_ctx.pprm_tasks.len - s.listed_before >= SLICE_REMOVALS)
        return true;
    if (s.looks % LOOKS_PER_CLOCK != 0)
        return false;
    timespec now;
    set_clk_now(&now, CLOCK_MONOTONIC);
    return timed_out_ext(s.begin, SLICE_TIME, now);
}

static void look_at_task(const pl_source *src, pl_task *task) {
    if (g_ctx.sweep.is_after_step)
        note_step(task);
    if (idle_sec(src) >= idle_limit(src))
        pprm_task(task);
    else
        task_xpire(task);
}

// The files that are due, as of discard_next_due; false when the slice ended first.
static bool sweep_files(pl_source *src, slice *s) {
    while (discard_next_due(src)) {
        s->looks = 0; // a disk may be slow: the clock is asked each time
        if (is_over(*s))
            return false;
    }
    return true;
}

// The source's files, and its tasks from the sweep's place on; false when the slice ended first.
static bool sweep_source(pl_source *src, slice *s) {
    if (!sweep_files(src, s))
        return false;
    size_t &i = g_ctx.sweep.task;
    if (i == 0 && !is_empty_src(src))
        LOG(LL_DEBUG, "%s: [%s] checking %zu tasks\n", "src_expired", src->nametag, src->tasks.len);
    for (; src->tasks.len > 0 && i <= src->tasks.last; ++i) {
        if (!xvlst_taken(src->tasks, i))
            continue;
        if (is_over(*s))
            return false;
        look_at_task(src, src_task(src, static_cast<ssize_t>(i)));
        ++s->looks;
    }
    return true;
}

static void begin_sweep() {
    sweep_ctx &sweep = g_ctx.sweep;
    keep_timeout(TMO_SWEEP, 0, true);
    bool is_after_step = is_clock_set() || (sweep.is_under_way && sweep.is_after_step);
    sweep = {.is_under_way = true, .is_after_step = is_after_step, .src = 0, .task = 0};
}

static void continue_sweep() {
    sweep_ctx &sweep = g_ctx.sweep;
    slice s;
    if (!sweep_files(nullptr, &s))
        return;
    for (; g_ctx.sources.len > 0 && sweep.src <= g_ctx.sources.last; ++sweep.src, sweep.task = 0)
        if (xvlst_taken(g_ctx.sources, sweep.src) &&
            !sweep_source(xvlst_at<pl_source>(g_ctx.sources, sweep.src), &s))
            return;
    sweep = {};
    rm_timeout(TMO_SWEEP);
}

void time_out_src_tasks() {
    if (is_iocheck_time(&g_ctx.last_task_check, g_cfg.lk_tmout_sec)) {
        begin_sweep();
        retry_deletions();
        int removed = xvlst_rmif(&g_ctx.sources, nullptr, src_expired, nullptr);
        if (removed > 0)
            LOG_FN(LL_INFO, "removed %d source(s)\n", removed);
        // With the last source the loop's reason to wake up for them would be gone.
        keep_timeout(TMO_FILES, g_cfg.lk_tmout_sec * 1000L, deletions_left() > 0 || has_orphans());
    }
    if (g_ctx.sweep.is_under_way)
        continue_sweep();
}

bool is_empty_src(const pl_source *src) {
    return src->tasks.len == 0;
}

int src_expired(void *sources, size_t i, void *) {
    pl_source *src = static_cast<pl_source *>(sources) + i;
    stretch_age(src);
    retry_take_over(src);
    long idle = idle_sec(src);
    long limit = idle_limit(src);
    if (idle < limit)
        return 0;
    LOG_FN(LL_WARN, "[%s] expired after %ld/%ld sec, %zu tasks\n", src->nametag, idle, limit, src->tasks.len);
    if (is_empty_src(src)) {
        destroy_src(src);
        return 1;
    }
    LOG_FN(LL_DEBUG, "[%s] expiring %zu tasks\n", src->nametag, src->tasks.len);
    return 0;
}

// When the consumer's side last showed a sign of life: the lock file's modification time, or for a task
// whose files could not be written the time of its last answer. False when it cannot be told.
static bool read_touch(const pl_task *task, time_t *touched) {
    if (task->lkfd < 0) {
        *touched = task->last_io_time;
        return true;
    }
    struct stat st;
    if (fstat(task->lkfd, &st) != 0) {
        LOG(LL_ERROR, "%s: [%s] fstat(fd%d,..) ERROR(%d): %s\n", "task_xpire", task->lpath, task->lkfd, errno,
            strerror(errno));
        return false;
    }
    *touched = st.st_mtime;
    return true;
}

// The same in terms of the present wall clock.
static bool last_touch(pl_task *task, time_t now, time_t *touched) {
    if (!read_touch(task, touched))
        return false;
    if (task->step_idle_tm != 0 && *touched == task->step_touch)
        *touched = now - (idle_clock() - task->step_idle_tm);
    else
        task->step_idle_tm = 0;
    return true;
}

int task_xpire(pl_task *task) {
    time_t now = time(nullptr);
    time_t touched = 0;
    if (!last_touch(task, now, &touched)) {
        LOG_FN(LL_WARN, "will expire [%s%u] on I/O error\n", task->tag.sym, task->tseq);
        return pprm_task(task);
    }
    // The wall clock may have been set back since: such a file counts as touched now.
    if (touched > now)
        touched = now;
    task->last_io_time = touched;
    long tdiff = now - touched;
    CHECK(tdiff >= 0);
    if (tdiff >= task->lk_tmout_sec) {
        LOG(LL_WARN, "task [%s%u] expired after %ld >= %d sec: playlist=[%s]\n", task->tag.sym, task->tseq,
            tdiff, task->lk_tmout_sec, task->fpath);
        return pprm_task(task);
    }
    LOG_FN(LL_DEBUG, "task [%s%u] is alive, ltime=%ld tdiff=%ld lk_tmout=%d sec\n", task->tag.sym, task->tseq,
           static_cast<long>(touched), tdiff, task->lk_tmout_sec);
    return 0;
}

void pprm_requests() {
    LOG_FN(LL_DEBUG, "BEGIN\n");
    rui_pprm_all(&g_ctx.rui);
    LOG_FN(LL_DEBUG, "END\n");
}
