// How often an idle daemon wakes up, against the time-outs that it has registered.
#include "bench/daemon.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <unistd.h>

static constexpr int WATCH_SEC = 10;

static long sleeps_of(pid_t pid) {
    char path[64];
    char line[256];
    long count = -1;
    snprintf(path, sizeof(path), "/proc/%d/status", pid);
    FILE *fp = fopen(path, "r");
    while (fp && count < 0 && fgets(line, sizeof(line), fp))
        sscanf(line, "voluntary_ctxt_switches: %ld", &count);
    if (fp)
        fclose(fp);
    if (count < 0)
        give_up(path);
    return count;
}

static void watch(const char *name, const char *extra, bool has_source, int tmout_sec) {
    temp_dir dir;
    bench_daemon d;
    daemon_start(&d, dir, -1, extra);
    if (has_source)
        daemon_feed(&d, 20);
    sleep(1); // the last connections have gone by then
    long before = sleeps_of(d.pid);
    sleep(WATCH_SEC);
    long wakes = sleeps_of(d.pid) - before;
    daemon_stop(&d);
    double due = tmout_sec > 0 ? floor(WATCH_SEC / static_cast<double>(tmout_sec)) : 0;
    tell_ratio(name, static_cast<double>(wakes) - due, -1,
               "%ld wake-ups in %d s, %.0f time-outs due (difference, not ratio)", wakes, WATCH_SEC, due);
}

int main() {
    watch("idle: wake-ups without any source", "", false, 0);
    watch("idle: wake-ups with a source, time-out 30 s", " src_tmout_sec = 30;", true, 30);
    watch("idle: wake-ups with a source, time-out 2 s", " src_tmout_sec = 2;", true, 2);
    return 0;
}
