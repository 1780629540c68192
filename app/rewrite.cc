#include "app/rewrite.h"

#include "app/pl_file.h"
#include "app/pl_stretch.h"
#include "app/task.h"
#include "lib/check.h"
#include "lib/log.h"
#include "lib/timeop.h"
#include "lib/tmout.h"

#include <algorithm>

LOG_UNIT(LOG_MOD_APP);

static constexpr size_t SHORT_WINDOW = 128;       // segments
static constexpr int64_t AT_ONCE_NS = 20'000'000; // of one pass, for short windows
static constexpr int64_t SLICE_NS = 5'000'000;
static constexpr size_t STRETCHES_AT_ONCE = 16; // compressed within a slice, before it is looked at the clock
static constexpr int64_t REST = 2;              // times a slice, which others have behind it
static constexpr int64_t LOOK_MS = 1;           // the loop's wait while something is waiting
static constexpr size_t QUEUE_BLOCK = 64;

struct waiting {
    taskref ref;
    time_t asked; // last activity of its client, as of the last sorting
};

static struct {
    xvec tasks; // of waiting
    bool is_sorted;
    int64_t spent_ns; // on short windows in this pass
    int64_t due_ns;   // of the next slice
} g_queue;

static int64_t clock_ns() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

static bool is_short(const pl_task *task) {
    return task->ilast->mseq - task->ifirst->mseq < SHORT_WINDOW;
}

static bool enqueue(pl_task *task) {
    if (task->is_queued)
        return true;
    ssize_t slot = xvec_add(&g_queue.tasks, sizeof(waiting), QUEUE_BLOCK);
    if (slot < 0)
        return false;
    if (slot == 0)
        set_timeout(TMO_REWRITE, LOOK_MS);
    *xvec_at<waiting>(g_queue.tasks,
                      static_cast<size_t>(slot)) = {.ref = {.src = task->src, .idx = task->idx}, .asked = 0};
    task->is_queued = true;
    g_queue.is_sorted = false;
    return true;
}

void rewrite_task(pl_task *task) {
    bool is_to_wait = !is_short(task) || g_queue.spent_ns >= AT_ONCE_NS;
    if (is_to_wait && enqueue(task))
        return;
    int64_t start = clock_ns();
    mk_playlist(task);
    g_queue.spent_ns += clock_ns() - start;
}

int rewrite_now(pl_task *task) {
    return task->is_queued && task->must_sync_playlist ? mk_playlist(task) : 0;
}

// Those asked for last at the end.
static void sort_queue() {
    waiting *first = xvec_at<waiting>(g_queue.tasks, 0);
    waiting *last = first + g_queue.tasks.len;
    for (waiting *one = first; one < last; ++one) {
        const pl_task *task = ref_task(&one->ref);
        one->asked = task ? task->last_io_time : 0;
    }
    std::stable_sort(first, last, [](const waiting &a, const waiting &b) { return a.asked < b.asked; });
    g_queue.is_sorted = true;
}

static void write_last() {
    const waiting *one = xvec_at<waiting>(g_queue.tasks, g_queue.tasks.len - 1);
    pl_task *task = ref_task(&one->ref);
    bool is_wanted = task && task->is_queued && task->must_sync_playlist && task->pprm_idx < 0;
    // What has to be compressed anew takes slices of its own, and the task goes on waiting.
    if (is_wanted && !stretch_prepare(task, STRETCHES_AT_ONCE))
        return;
    --g_queue.tasks.len;
    if (task)
        task->is_queued = false;
    // One that cannot be written is told by its writer and waits for the next segment.
    if (is_wanted)
        mk_playlist(task);
}

void rewrite_step() {
    g_queue.spent_ns = 0;
    if (g_queue.tasks.len == 0)
        return;
    int64_t start = clock_ns();
    if (start < g_queue.due_ns)
        return;
    if (!g_queue.is_sorted)
        sort_queue();
    int64_t now = start;
    for (; g_queue.tasks.len > 0 && now - start < SLICE_NS; now = clock_ns())
        write_last();
    g_queue.due_ns = now + (now - start) * REST;
    if (g_queue.tasks.len == 0)
        rm_timeout(TMO_REWRITE);
    LOG_FN(LL_DEBUG, "%zu playlists wait to be rewritten\n", g_queue.tasks.len);
}

void rewrite_clear() {
    if (g_queue.tasks.len > 0)
        rm_timeout(TMO_REWRITE);
    xvec_reset(&g_queue.tasks);
    g_queue = {};
}
