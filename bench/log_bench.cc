// What a log record costs: filtered out, written to the file, and kept in the ring.
#include "bench/fixture.h"
#include "lib/lard.h"
#include "lib/log.h"

#include <benchmark/benchmark.h>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

LOG_UNIT(LOG_MOD_APP);

static constexpr size_t RING_PAGES = 64;
static constexpr char STAMP[] = "2030-01-02 03:04:05.678901 UTC 12345  (DBG)  LUM  ";
static lard_t g_ring;
static int g_floor_fd;

// Traces as one request leaves them. `EMIT` gets the format and its arguments.
#define TRACES(EMIT)                                                                                         \
    EMIT("%s: %zd/%zu bytes read for URQ (%p) [%s]: %s\n", "urq_read", g_arg.n, g_arg.len, g_arg.ptr,        \
         g_arg.name, g_arg.line);                                                                            \
    EMIT("%s: %s [%s] (%p) state: %s -> %s\n", "urq_set_state", "URQ", g_arg.name, g_arg.ptr, "NEW", "RD");  \
    EMIT("%s: %s for src[%s] itag=%s, URQ [%s] (%p)\n", "get_pl", "LIVE", g_arg.name, "T1", g_arg.name,      \
         g_arg.ptr);                                                                                         \
    EMIT("%s: pulled up existing %s%u (%p), idx=%zd\n", "get_pl", "LIV", g_arg.id, g_arg.ptr, g_arg.n);      \
    EMIT("%s: task=%p, client=[%s], err=%s, rc=%d\n", "mk_response", g_arg.ptr, "T1", "-", 0);               \
    EMIT("%s: sending response (%zu bytes): %s\n", "urq_read", g_arg.len, g_arg.line);                       \
    EMIT("%s: continuing with URQ [%p] in state=%s\n", "urq_read", g_arg.ptr, "NEW");                        \
    EMIT("%s: got %d events\n", "wait4events", 1)

static unsigned g_id = 17;
static struct {
    ssize_t n = 12;
    size_t len = 55;
    const void *ptr = &g_id;
    const char *name = "u0042";
    const char *line = "T1 text/M3U /tmp/data/channel-LIV17-M100793.m3u8";
    unsigned id = 17;
} g_arg;

static void set_log(int level, lard_t ring) {
    log_set_modules(&g_log, level);
    log_set_lard(&g_log, ring);
}

// In the daemon other work stands between two records, so that each asks the filter.
#define AS_TRACE(...)                                                                                        \
    do {                                                                                                     \
        LOG(LL_DEBUG, __VA_ARGS__);                                                                          \
        benchmark::ClobberMemory();                                                                          \
    } while (0)
static void traces(benchmark::State &state, int level, lard_t ring) {
    set_log(level, ring);
    for (auto _ : state) {
        TRACES(AS_TRACE);
    }
    set_log(LL_INFO, nullptr);
}

// The same lines behind a ready-made stamp, formatted into a buffer, and with `copies` also copied into
// memory of the ring's size.
static void formatting(benchmark::State &state, bool copies) {
    static char copy[RING_PAGES * 4096];
    static char line[LOG_BUF_SIZE];
    size_t at = 0;
    auto keep = [&](int n) {
        size_t len = static_cast<size_t>(n);
        if (at + len >= sizeof(copy))
            at = 0;
        memcpy(copy + at, line, len);
        at += len;
    };
#define AS_TEXT(format, ...)                                                                                 \
    do {                                                                                                     \
        int n = snprintf(line, sizeof(line), "%s" format, STAMP __VA_OPT__(, ) __VA_ARGS__);                 \
        benchmark::DoNotOptimize(line);                                                                      \
        if (copies)                                                                                          \
            keep(n);                                                                                         \
    } while (0)
    for (auto _ : state) {
        TRACES(AS_TEXT);
        benchmark::ClobberMemory();
    }
}

static void one_record(benchmark::State &state, int level, lard_t ring) {
    set_log(level, ring);
    for (auto _ : state) {
        LOG(LL_INFO, "added %s [%s]/%f m%zu  channel[%s] %s\n", "LIVE", "SEG", 6.0, g_arg.len, g_arg.name,
            g_arg.line);
        benchmark::ClobberMemory();
    }
    set_log(LL_INFO, nullptr);
}

static void one_write(benchmark::State &state) {
    char line[LOG_BUF_SIZE];
    int n = snprintf(line, sizeof(line), "%sadded %s [%s]/%f m%zu  channel[%s] %s\n", STAMP, "LIVE", "SEG",
                     6.0, g_arg.len, g_arg.name, g_arg.line);
    size_t total = 0;
    for (auto _ : state) {
        if (write(g_floor_fd, line, static_cast<size_t>(n)) != n)
            state.SkipWithError("write");
        // The file stays as small as a rotated log.
        if ((total += static_cast<size_t>(n)) > (64u << 20) && ftruncate(g_floor_fd, 0) == 0)
            total = 0;
    }
}

static void one_formatting(benchmark::State &state) {
    static char copy[LOG_BUF_SIZE];
    char line[LOG_BUF_SIZE];
    for (auto _ : state) {
        int n = snprintf(line, sizeof(line), "%sadded %s [%s]/%f m%zu  channel[%s] %s\n", STAMP, "LIVE",
                         "SEG", 6.0, g_arg.len, g_arg.name, g_arg.line);
        benchmark::DoNotOptimize(line);
        memcpy(copy, line, static_cast<size_t>(n));
        benchmark::ClobberMemory();
    }
}

static void nothing(benchmark::State &state) {
    for (auto _ : state)
        benchmark::ClobberMemory();
}

int main(int argc, char **argv) {
    temp_dir dir;
    bench_open(dir, LL_INFO);
    log_set_group(&g_log, n64_tag{.sym8 = "LUM"}.num64);
    std::string ring_name = "lumo-bench-" + std::to_string(getpid());
    g_ring = lard_create(ring_name.c_str(), RING_PAGES);
    g_floor_fd = open((dir / "floor").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (!g_ring || g_floor_fd < 0)
        give_up("ring or file");
    benchmark::RegisterBenchmark("filtered8", traces, LL_INFO, nullptr);
    benchmark::RegisterBenchmark("nothing", nothing);
    benchmark::RegisterBenchmark("file", one_record, LL_INFO, nullptr);
    benchmark::RegisterBenchmark("write", one_write);
    benchmark::RegisterBenchmark("ring", one_record, LL_NORM, g_ring);
    benchmark::RegisterBenchmark("copy", one_formatting);
    benchmark::RegisterBenchmark("ring8", traces, LL_INFO, g_ring);
    benchmark::RegisterBenchmark("copy8", formatting, true);
    benchmark::RegisterBenchmark("format8", formatting, false);
    static constexpr bench_pair PAIRS[] = {
        {"log: record to file / write of the ready line", "file", "write", 0},
        {"log: record to ring / formatted copy", "ring", "copy", -2},
        {"log: 8 traces to ring, level info / formatted copies", "ring8", "copy8", -2},
        {"log: 8 traces to ring, level info / formatting", "ring8", "format8", -2},
    };
    int rc = run_pairs(argc, argv, PAIRS);
    tell_note("log: a record that is filtered out costs %.2f ns\n",
              (median_ns("filtered8") - median_ns("nothing")) / 8);
    lard_destroy(g_ring);
    shm_unlink(("/" + ring_name + ".meta").c_str());
    shm_unlink(("/" + ring_name + ".dat").c_str());
    close(g_floor_fd);
    bench_close();
    return rc;
}
