#include "app/expiry.h"

#include "app/app.h"
#include "app/backup.h"
#include "app/pl_stretch.h"
#include "app/retry.h"
#include "app/task.h"
#include "lib/check.h"
#include "lib/log.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <sys/stat.h>

LOG_UNIT(LOG_MOD_APP);

static constexpr int64_t MAX_CLOCK_DRIFT_MS = 1000; // of the clocks between two checks; beyond, one was set

void time_out_requests() {
    if (is_iocheck_time(&g_ctx.last_rq_check, g_cfg.urq_tmout_sec))
        rui_tmout_all(&g_ctx.rui, g_cfg.urq_tmout_sec * 1000L);
}

static int note_step(void *tasks, size_t i) {
    pl_task *task = static_cast<pl_task *>(tasks) + i;
    struct stat st;
    task->step_idle_tm = idle_clock();
    task->step_touch = task->lkfd >= 0 && fstat(task->lkfd, &st) == 0 ? st.st_mtime : task->last_io_time;
    return 0;
}

static int note_step_of_all(void *sources, size_t i) {
    xvlst_each(&(static_cast<pl_source *>(sources) + i)->tasks, note_step, nullptr);
    return 0;
}

// What was touched before the wall clock was set has no age by it: until the next touch, idle time counts
// from here.
static void notice_clock_step() {
    int64_t lead = wall_lead_ms();
    int64_t step = lead - g_ctx.wall_lead_ms;
    g_ctx.wall_lead_ms = lead;
    if (step <= MAX_CLOCK_DRIFT_MS && step >= -MAX_CLOCK_DRIFT_MS)
        return;
    LOG(LL_WARN, "%s: the wall clock was set by %.3f sec, idle times count from now\n", "time_out_src_tasks",
        static_cast<double>(step) / 1000);
    xvlst_each(&g_ctx.sources, note_step_of_all, nullptr);
}

void time_out_src_tasks() {
    if (!is_iocheck_time(&g_ctx.last_task_check, g_cfg.lk_tmout_sec))
        return;
    notice_clock_step();
    retry_deletions();
    int removed = xvlst_rmif(&g_ctx.sources, nullptr, src_expired, nullptr);
    if (removed > 0)
        LOG_FN(LL_INFO, "removed %d source(s)\n", removed);
}

bool is_empty_src(const pl_source *src) {
    return src->tasks.len == 0;
}

static int list_task(void *tasks, size_t i) {
    return pprm_task(static_cast<pl_task *>(tasks) + i);
}

static int check_task(void *tasks, size_t i) {
    return task_xpire(static_cast<pl_task *>(tasks) + i);
}

int src_expired(void *sources, size_t i, void *) {
    pl_source *src = static_cast<pl_source *>(sources) + i;
    stretch_age(src);
    retry_take_over(src);
    long idle = idle_clock() - src->last_item_tm;
    long limit = src->tmout_sec != 0 ? src->tmout_sec : g_cfg.src_tmout_sec;
    if (idle < limit) {
        if (!is_empty_src(src)) {
            LOG_FN(LL_DEBUG, "[%s] checking %zu tasks\n", src->nametag, src->tasks.len);
            xvlst_each(&src->tasks, check_task, nullptr);
        }
        return 0;
    }
    LOG_FN(LL_WARN, "[%s] expired after %ld/%ld sec, %zu tasks\n", src->nametag, idle, limit, src->tasks.len);
    if (is_empty_src(src)) {
        destroy_src(src);
        return 1;
    }
    LOG_FN(LL_DEBUG, "[%s] expiring %zu tasks\n", src->nametag, src->tasks.len);
    xvlst_each(&src->tasks, list_task, nullptr);
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
