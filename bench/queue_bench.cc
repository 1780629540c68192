// A new segment with 512 open-ended compressed events over a full list, playlists refreshed: what the daemon
// spends on rewriting them all, and what answers keep meanwhile.
#include "bench/daemon.h"
#include "bench/fixture.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

static constexpr int EVENTS = 511; // beside the live task
static constexpr int ROUNDS = 5;
static constexpr double CALM_SEC = 0.5;
static constexpr double LOOK_SEC = 0.05;
static constexpr double CLOCK_GRAIN_SEC = 0.01; // times of files come from a coarser clock
static constexpr size_t FIRST_EVENT = 1000;

static bench_daemon g_daemon;
static size_t g_next = FULL_LIST;
static std::vector<std::string> g_files;

static double cpu_of_daemon() {
    clockid_t clock;
    timespec used;
    if (clock_getcpuclockid(g_daemon.pid, &clock) != 0 || clock_gettime(clock, &used) != 0)
        give_up("processor time of the daemon");
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
}

static double real_sec() {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

static double written_at(const std::string &file) {
    struct stat st;
    if (stat(file.c_str(), &st) != 0)
        give_up(file.c_str());
    return static_cast<double>(st.st_mtim.tv_sec) + static_cast<double>(st.st_mtim.tv_nsec) * 1e-9;
}

static void add_events() {
    int fd = connect_to(g_daemon.pl_socket);
    for (size_t n = 0; n < EVENTS; ++n) {
        char line[64];
        char path[256];
        snprintf(line, sizeof(line), "T1 EVE chan %ld 0\n", bench_item(FIRST_EVENT + n).start_tm);
        if (sscanf(ask(fd, line).c_str(), "T1 gzip/M3U %255s", path) != 1)
            give_up(line);
        g_files.push_back(path);
    }
    close(fd);
}

static void send_segment() {
    std::string line = bench_line(g_next++);
    if (write(g_daemon.producer, line.data(), line.size()) < 0)
        give_up("segment line");
}

static bool is_all_written(double since) {
    return std::all_of(g_files.begin(), g_files.end(),
                       [&](const std::string &file) { return written_at(file) > since; });
}

// Processor seconds from one segment until every file was written.
static double rewrite_all() {
    double since = real_sec() - CLOCK_GRAIN_SEC;
    double cpu = cpu_of_daemon();
    send_segment();
    while (!is_all_written(since))
        usleep(20'000);
    return cpu_of_daemon() - cpu;
}

struct answers {
    double rate;    // each second
    double longest; // seconds
};

// Live requests on one connection: for CALM_SEC, or until everything is rewritten after a segment.
static answers ask_live(bool has_segment) {
    int fd = connect_to(g_daemon.pl_socket);
    double start = real_sec();
    double asked = start;
    double look = start + LOOK_SEC;
    size_t count = 0;
    answers out{};
    if (has_segment)
        send_segment();
    for (bool is_done = false; !is_done; ++count) {
        if (ask(fd, "T1 LIV chan\n").find("M3U") == std::string::npos)
            give_up("answer");
        double now = real_sec();
        out.longest = std::max(out.longest, now - asked);
        if (has_segment && now > look) {
            is_done = is_all_written(start - CLOCK_GRAIN_SEC);
            look = now + LOOK_SEC;
        } else if (!has_segment) {
            is_done = now > start + CALM_SEC;
        }
        asked = real_sec();
    }
    close(fd);
    out.rate = static_cast<double>(count) / (asked - start);
    return out;
}

static double deflate_one(const temp_dir &dir) {
    std::string text;
    char buf[65536];
    gzFile in = gzopen(g_files[0].c_str(), "r");
    for (int n; (n = gzread(in, buf, sizeof(buf))) > 0;)
        text.append(buf, static_cast<size_t>(n));
    gzclose(in);
    double start = cpu_sec();
    gzFile out = gzopen((dir / "floor").c_str(), "w");
    gzwrite(out, text.data(), static_cast<unsigned>(text.size()));
    gzclose(out);
    return cpu_sec() - start;
}

int main() {
    temp_dir dir;
    daemon_start(
        &g_daemon, dir, 0,
        " refresh_playlists = true; gzip_playlists = true; max_src_tasks = 512; src_tmout_sec = 300;\n"
        " item_url_prefix = \"http://media.example.org/hls/\";");
    pin_to(1);
    daemon_feed(&g_daemon, FULL_LIST);
    add_events();
    paired p = measure_pair(ROUNDS, rewrite_all, [&] { return EVENTS * deflate_one(dir); });
    tell_ratio("queue: segment with 512 long events / 512 deflates", p.ratio, -0.06,
               "%.2f s of processor; 512 times %.1f ms", p.subject_sec, p.floor_sec / EVENTS * 1e3);
    std::vector<double> rates, longest, quiet;
    for (int i = 0; i < ROUNDS; ++i) {
        answers calm = ask_live(false);
        answers busy = ask_live(true);
        rates.push_back(busy.rate / calm.rate);
        quiet.push_back(calm.rate);
        longest.push_back(busy.longest);
    }
    tell_ratio("queue: live answers while 512 are rewritten / alone", median(rates), 0.5, "%.0f/s alone",
               median(quiet));
    double worst = *std::max_element(longest.begin(), longest.end());
    tell_ratio("queue: longest wait for an answer meanwhile / 60 ms", worst / 0.06, -1, "%.1f ms",
               worst * 1e3);
    daemon_stop(&g_daemon);
    return 0;
}
