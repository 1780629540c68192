// What the length of the list and the number of tasks add to one item going in and one going out.
#include "app/item.h"
#include "app/pl.h"
#include "app/pl_event.h"
#include "bench/fixture.h"
#include "lib/log.h"

#include <cstdlib>

static constexpr int ROUNDS = 11;

// Without the deletion of the retired file; of one duration, so that each item sends one away. Seconds per
// item.
static double turn_over(pl_source *src, size_t *next, size_t count) {
    double start = cpu_sec();
    for (size_t end = *next + count; *next < end; ++*next) {
        free(src->rcy_fpath);
        src->rcy_fpath = nullptr;
        item_data data = bench_item(*next);
        data.duration = ITEM_SEC;
        if (add_seg(src, &data) != 0)
            give_up("add_seg");
    }
    return (cpu_sec() - start) / static_cast<double>(count);
}

static pl_source *turning_source(const char *name, size_t items, size_t *next) {
    pl_source *src = bench_source(name, items * ITEM_SEC);
    *next = 0;
    turn_over(src, next, items + 16);
    return src;
}

static void compare_lengths() {
    static constexpr size_t SHORT_LIST = 17;
    size_t next_long, next_short;
    pl_source *full = turning_source("full", FULL_LIST, &next_long);
    pl_source *few = turning_source("few", SHORT_LIST, &next_short);
    paired p = measure_pair(
        ROUNDS, [&] { return turn_over(full, &next_long, 20000); },
        [&] { return turn_over(few, &next_short, 20000); });
    tell_ratio("turnover: item in and out, 100800 items / 17 items", p.ratio, -1.5,
               "%.0f / %.0f ns, file deletion left out", p.subject_sec * 1e9, p.floor_sec * 1e9);
}

// --- tasks ---

static void add_tasks(pl_source *src, size_t count, bool is_live) {
    for (size_t i = 0; i < count; ++i) {
        pl_item *first = step_from(true, oldest_item(src), 50 + i);
        pl_task *task =
            is_live ? mk_live_task(src, false) : mk_event_task(src, first, first->start_tm, 0, false, true);
        if (!task)
            give_up("task");
        src->live_idx = -1; // so that there can be another one
    }
}

// What moving a task cannot do without.
static int touch_task(void *tasks, size_t i, void *newest) {
    pl_task *task = static_cast<pl_task *>(tasks) + i;
    if (task->ilast != newest)
        task->must_sync_playlist = true;
    return 0;
}

static void compare_tasks(bool is_live) {
    static constexpr size_t COUNTS[] = {0, 1, 64, 512};
    static constexpr size_t LIST = 1000;
    static constexpr size_t TURNS = 500;
    pl_source *src[4];
    size_t next[4];
    std::vector<double> per_item[4], walk;
    for (size_t c = 0; c < 4; ++c) {
        std::string name = std::string(is_live ? "liv" : "eve") + std::to_string(COUNTS[c]);
        src[c] = turning_source(name.c_str(), LIST, &next[c]);
        add_tasks(src[c], COUNTS[c], is_live);
    }
    for (int round = 0; round < ROUNDS; ++round) {
        for (size_t c = 0; c < 4; ++c)
            per_item[c].push_back(turn_over(src[c], &next[c], TURNS));
        double start = cpu_sec();
        for (size_t i = 0; i < TURNS; ++i)
            xvlst_each_aux(&src[3]->tasks, nullptr, touch_task, nullptr);
        walk.push_back((cpu_sec() - start) / TURNS / 512);
    }
    double bare = median(per_item[0]);
    auto per_task = [&](size_t c) {
        return (median(per_item[c]) - bare) / static_cast<double>(COUNTS[c]) * 1e9;
    };
    std::string title =
        std::string("turnover: per ") + (is_live ? "live" : "event") + " task, 512 tasks / a walk of them";
    tell_ratio(title.c_str(), per_task(3) / (median(walk) * 1e9), 0,
               "%.1f / %.1f ns a task; 1 task %.0f ns, 64 tasks %.1f ns each, none %.0f ns an item",
               per_task(3), median(walk) * 1e9, per_task(1), per_task(2), bare * 1e9);
    for (pl_source *one : src)
        bench_drop_tasks(one);
}

int main() {
    temp_dir dir;
    bench_open(dir, LL_NORM);
    compare_lengths();
    compare_tasks(true);
    compare_tasks(false);
    bench_close();
    return 0;
}
