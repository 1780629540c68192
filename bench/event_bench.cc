// Event tasks: found again by key, made anew over a long list, and moved along in great numbers.
#include "app/item.h"
#include "app/pl.h"
#include "app/pl_event.h"
#include "bench/fixture.h"
#include "lib/log.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cstdlib>
#include <cstring>

static constexpr int ROUNDS = 11;
static constexpr size_t TASKS = 512;
static constexpr size_t SHORT_LIST = 40;

static pl_urq g_urq;

static void drop_response() {
    if (!g_urq.response || strstr(g_urq.response, "ERROR"))
        give_up("response");
    free(g_urq.response);
    g_urq.response = nullptr;
}

static void live_request(benchmark::State &state) {
    for (auto _ : state) {
        get_live_pl(&g_urq, "T1", "long");
        drop_response();
    }
}

static void key_request(benchmark::State &state, long start) {
    for (auto _ : state) {
        get_event_pl(&g_urq, "T1", "long", start, 0, true);
        drop_response();
    }
}

// --- a new task at the far end of the list ---

static double new_event(pl_source *src, long start) {
    double begin = cpu_sec();
    get_event_pl(&g_urq, "T1", src->nametag, start, 0, true);
    double sec = cpu_sec() - begin;
    drop_response();
    bench_drop_tasks(src);
    return sec;
}

static double walk_list(const pl_source *src) {
    double begin = cpu_sec();
    long sum = 0;
    for (const pl_item *item = newest_item(src); item; item = older_item(item))
        sum += item->start_tm;
    benchmark::DoNotOptimize(sum);
    return cpu_sec() - begin;
}

static void compare_new() {
    pl_source *src = src_by_name("long");
    pl_source *few = src_by_name("few");
    long oldest = oldest_item(src)->start_tm;
    paired p = measure_pair(
        4 * ROUNDS, [&] { return new_event(src, oldest); }, [&] { return walk_list(src); });
    tell_ratio("event: new task at the end of 100800 items / one walk", p.ratio, 0, "%.0f / %.0f us",
               p.subject_sec * 1e6, p.floor_sec * 1e6);
    long recent = oldest_item(few)->start_tm;
    p = measure_pair(
        4 * ROUNDS, [&] { return new_event(src, oldest); }, [&] { return new_event(few, recent); });
    tell_ratio("event: new task, 100800 items / 40 items", p.ratio, 0,
               "%.0f / %.0f us, playlist and lock file included", p.subject_sec * 1e6, p.floor_sec * 1e6);
}

// --- many tasks ---

// Tasks that begin all along the list; with `ahead_sec` they end that long behind its newest item.
static void add_tasks(pl_source *src, long ahead_sec) {
    size_t step = dlep_count(src->items) / (TASKS + 10);
    pl_item *first = newer_item(oldest_item(src));
    for (size_t i = 0; i < TASKS; ++i) {
        long duration = ahead_sec > 0 ? newest_item(src)->start_tm + ahead_sec - first->start_tm : 0;
        pl_task *task = mk_event_task(src, first, first->start_tm, duration, false, true);
        if (!task)
            give_up("mk_event_task");
        first = step_from(true, first, step);
    }
}

static double add_segments(pl_source *src, size_t *next, size_t count) {
    double begin = cpu_sec();
    bench_fill(src, *next, count);
    *next += count;
    return (cpu_sec() - begin) / static_cast<double>(count);
}

static void compare_many() {
    pl_source *src = src_by_name("long");
    pl_source *few = src_by_name("few");
    size_t next_src = dlep_count(src->items);
    size_t next_few = FULL_LIST;
    add_tasks(src, 0);
    add_tasks(few, 0);
    paired p = measure_pair(
        ROUNDS, [&] { return add_segments(src, &next_src, 50); },
        [&] { return add_segments(few, &next_few, 50); });
    tell_ratio("event: segment with 512 open tasks, 100800 / 40 items", p.ratio, -1.5, "%.1f / %.1f us",
               p.subject_sec * 1e6, p.floor_sec * 1e6);
    bench_drop_tasks(src);
    bench_drop_tasks(few);
    // The ends come into reach within the first segments: each task's range is measured then, once.
    std::vector<double> worst, worst_few, walk;
    for (int i = 0; i < 3; ++i) {
        add_tasks(src, 30);
        add_tasks(few, 30);
        double most = 0, most_few = 0;
        for (int k = 0; k < 12; ++k) {
            most = std::max(most, add_segments(src, &next_src, 1));
            most_few = std::max(most_few, add_segments(few, &next_few, 1));
        }
        worst.push_back(most);
        worst_few.push_back(most_few);
        walk.push_back(walk_list(src));
        p = measure_pair(
            ROUNDS, [&] { return add_segments(src, &next_src, 5); },
            [&] { return add_segments(few, &next_few, 5); });
        bench_drop_tasks(src);
        bench_drop_tasks(few);
    }
    tell_ratio("event: segment with 512 ending tasks, 100800 / 40 items", p.ratio, -1.5, "%.1f / %.1f us",
               p.subject_sec * 1e6, p.floor_sec * 1e6);
    tell_ratio("event: the segment that reaches 512 ends / 5 ms", median(worst) / 5e-3, -1, "%.0f us",
               median(worst) * 1e6);
    tell_ratio("event: the segment that reaches 512 ends, 100800 / 40", median(worst) / median(worst_few), 0,
               "%.0f / %.0f us, once; %.1f walks of the list", median(worst) * 1e6, median(worst_few) * 1e6,
               median(worst) / median(walk));
}

int main(int argc, char **argv) {
    temp_dir dir;
    bench_open(dir, LL_WARN);
    g_cfg.has_gzip_pl = false;
    pl_source *src = bench_source("long", NO_TRIM);
    bench_fill(src, 0, FULL_LIST);
    // The newest items only, so that both lists end at the same time.
    bench_fill(bench_source("few", NO_TRIM), FULL_LIST - SHORT_LIST, SHORT_LIST);
    long start = step_from(false, newest_item(src), 1000)->start_tm;
    benchmark::RegisterBenchmark("key", key_request, start);
    benchmark::RegisterBenchmark("live", live_request);
    static constexpr bench_pair PAIRS[] = {{"event: request found by key / live request", "key", "live", 0}};
    int rc = run_pairs(argc, argv, PAIRS);
    bench_drop_tasks(src);
    compare_new();
    compare_many();
    tell_note("event: text playlists, refresh off, log level warn, no size checks\n");
    bench_close();
    return rc;
}
