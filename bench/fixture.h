// The daemon's rooms inside a benchmark's own process: configuration, log, event service, context, sources.
#pragma once

#include "app/plum.h"
#include "bench/bench.h"
#include "lib/rqs.h"

inline constexpr size_t FULL_LIST = 100'800; // a week of six-second segments
inline constexpr int ITEM_SEC = 6;           // about; fractions differ
inline constexpr size_t NO_TRIM = 1u << 30;  // playback depth that nothing reaches

// Sets everything up with data directory and log file in `dir`, the log at `level`. File sizes of segments
// are not verified.
void bench_open(const temp_dir &dir, int level, const rqs_config &events = {});
void bench_close();

// A connected source with that playback depth; `*peer` is the producer's end, `dir` a directory of its own.
pl_source *bench_source(const char *name, size_t max_plbk_sec, int *peer = nullptr,
                        const char *dir = nullptr);

// The n-th segment: a path of 32 characters, start times ITEM_SEC apart that end about now when
// FULL_LIST of them were added.
item_data bench_item(size_t n);
// The same as a source's line, newline included.
std::string bench_line(size_t n);
// Adds segments first..first + count - 1.
void bench_fill(pl_source *src, size_t first, size_t count);
// Removes the source's tasks, with their files, at once.
void bench_drop_tasks(pl_source *src);
