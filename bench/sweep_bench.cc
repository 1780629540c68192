// How long the check of all tasks holds the loop in one pass.
#include "app/expiry.h"
#include "app/item.h"
#include "app/pl_event.h"
#include "app/task.h"
#include "bench/fixture.h"
#include "lib/log.h"

#include <algorithm>
#include <cstdio>

static constexpr int ROUNDS = 11;
static constexpr size_t SOURCES = 200;
static constexpr size_t TASKS_EACH = 500;
static constexpr size_t EXPIRING = 8; // sources of as many tasks with files
static constexpr double MOST_SEC = 0.010;

// The longest pass of one sweep, with what it leaves to the end of the pass.
static double longest_pass(size_t *passes) {
    double longest = 0;
    *passes = 0;
    schedule_time_out();
    do {
        double start = cpu_sec();
        time_out_src_tasks();
        pprm_task_cleanup();
        longest = std::max(longest, cpu_sec() - start);
        ++*passes;
    } while (g_ctx.sweep.is_under_way);
    return longest;
}

static pl_source *new_source(const char *prefix, size_t n) {
    pl_source *src = bench_source((prefix + std::to_string(n)).c_str(), NO_TRIM);
    bench_fill(src, 0, 2 * TASKS_EACH);
    return src;
}

static int detach(void *tasks, size_t i) {
    (static_cast<pl_task *>(tasks) + i)->lkfd = -1;
    return 0;
}

// All alive: what is looked at is a lock file, the same for all.
static void sweep_living() {
    FILE *lock = tmpfile();
    for (size_t n = 0; n < SOURCES; ++n) {
        pl_source *src = new_source("alive", n);
        for (size_t i = 0; i < TASKS_EACH; ++i) {
            pl_task *task = add_task("bench", src, PL_EVE);
            if (!task)
                give_up("task");
            task->lkfd = fileno(lock);
            task->lk_tmout_sec = 1000;
        }
    }
    std::vector<double> holds;
    size_t passes = 0;
    for (int i = 0; i < ROUNDS; ++i)
        holds.push_back(longest_pass(&passes));
    tell_ratio("sweep over 100000 living tasks, longest pass / 10 ms", median(holds) / MOST_SEC, -1,
               "%.2f ms, %zu passes", median(holds) * 1e3, passes);
    for (size_t n = 0; n < SOURCES; ++n)
        xvlst_each(&src_by_name(("alive" + std::to_string(n)).c_str())->tasks, detach, nullptr);
    fclose(lock);
}

static void sweep_expiring() {
    for (size_t n = 0; n < EXPIRING; ++n) {
        pl_source *src = new_source("idle", n);
        pl_item *item = oldest_item(src);
        for (size_t i = 0; i < TASKS_EACH; ++i, item = newer_item(item))
            if (!mk_event_task(src, item, item->start_tm, item->start_tm + ITEM_SEC, false, true))
                give_up("event task");
        src->last_item_tm = 1;
    }
    size_t passes = 0;
    double hold = longest_pass(&passes);
    tell_ratio("sweep over 4000 expired tasks, longest pass / 10 ms", hold / MOST_SEC, -1,
               "%.2f ms, %zu passes", hold * 1e3, passes);
}

int main() {
    temp_dir dir;
    bench_open(dir, LL_NORM);
    sweep_expiring();
    sweep_living();
    bench_close();
    return 0;
}
