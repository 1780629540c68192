// Live playlist requests against the real daemon, and against a bare epoll server that answers every line
// with the same text. Server and load share one core; rounds alternate between the two.
#include "bench/bare_server.h"
#include "bench/daemon.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sched.h>
#include <sys/epoll.h>
#include <unistd.h>

static constexpr char LIVE_LINE[] = "T1 LIV chan\n";
static constexpr char EVENT_LINE[] = "T1 EVE chan 60 0\n";
static constexpr int ROUNDS = 11;
static constexpr int STATUS_ROUNDS = 41;
static constexpr double ROUND_SEC = 0.25;
static constexpr int STUCK_MS = 5000;
static constexpr int MAX_EVENTS = 256;

// --- the load ---

static const char *g_line = LIVE_LINE;

static void send_request(int fd) {
    size_t len = strlen(g_line);
    if (write(fd, g_line, len) != static_cast<ssize_t>(len))
        give_up("request");
}

// True when the whole answer has arrived, which must be a playlist's.
static bool take_answer(int fd) {
    char buf[512];
    ssize_t n = read(fd, buf, sizeof(buf));
    if (n <= 0 || !memmem(buf, static_cast<size_t>(n), "M3U", 3))
        give_up("answer");
    return buf[n - 1] == '\n';
}

static void load_persistent(const std::vector<int> &fds, int ep, size_t count) {
    epoll_event events[MAX_EVENTS];
    size_t sent = 0;
    size_t done = 0;
    for (int fd : fds)
        if (sent++ < count)
            send_request(fd);
    while (done < count) {
        int n = epoll_wait(ep, events, MAX_EVENTS, STUCK_MS);
        if (n <= 0)
            give_up("no answers");
        for (int i = 0; i < n; ++i) {
            if (!take_answer(events[i].data.fd))
                continue;
            ++done;
            if (sent++ < count)
                send_request(events[i].data.fd);
        }
    }
}

static void load_one_each(const std::string &path, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        int fd = connect_to(path);
        if (fd < 0)
            give_up("connect");
        send_request(fd);
        while (!take_answer(fd)) {
        }
        close(fd);
    }
}

struct round_result {
    double wall; // seconds per request
    double cpu;  // of the server
};

static double cpu_of(pid_t pid) {
    clockid_t clock;
    timespec used;
    if (clock_getcpuclockid(pid, &clock) != 0 || clock_gettime(clock, &used) != 0)
        give_up("the server's clock");
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
}

// `conns` 0 = one connection for each request.
static round_result run_round(const std::string &path, pid_t pid, size_t conns, size_t count) {
    std::vector<int> fds;
    int ep = epoll_create1(EPOLL_CLOEXEC);
    for (size_t i = 0; i < conns; ++i) {
        fds.push_back(connect_to(path));
        watch(ep, fds.back());
        ask(fds.back(), g_line);
    }
    double cpu = cpu_of(pid);
    double wall = wall_sec();
    if (conns > 0)
        load_persistent(fds, ep, count);
    else
        load_one_each(path, count);
    double n = static_cast<double>(count);
    round_result result = {.wall = (wall_sec() - wall) / n, .cpu = (cpu_of(pid) - cpu) / n};
    for (int fd : fds)
        close(fd);
    close(ep);
    return result;
}

// --- the comparison ---

struct server {
    std::string path;
    pid_t pid;
};

static void compare(const char *name, size_t conns, const server &daemon, const server &floor) {
    size_t count = static_cast<size_t>(ROUND_SEC / run_round(floor.path, floor.pid, conns, 4000).wall);
    run_round(daemon.path, daemon.pid, conns, count / 4);
    std::vector<double> rate, cpu, daemon_rate, floor_rate, daemon_cpu, floor_cpu;
    for (int i = 0; i < ROUNDS; ++i) {
        round_result f = run_round(floor.path, floor.pid, conns, count);
        round_result d = run_round(daemon.path, daemon.pid, conns, count);
        rate.push_back(f.wall / d.wall);
        cpu.push_back(d.cpu / f.cpu);
        daemon_rate.push_back(1 / d.wall);
        floor_rate.push_back(1 / f.wall);
        daemon_cpu.push_back(d.cpu * 1e6);
        floor_cpu.push_back(f.cpu * 1e6);
    }
    std::string title = std::string("requests/s, ") + name;
    tell_ratio(title.c_str(), median(rate), conns > 0 ? 0.85 : 0.9, "%.0f / %.0f per s, %d rounds of %zu",
               median(daemon_rate), median(floor_rate), ROUNDS, count);
    title = std::string("processor time per request, ") + name;
    tell_ratio(title.c_str(), median(cpu), -1.2, "%.2f / %.2f us of the server", median(daemon_cpu),
               median(floor_cpu));
}

// Event requests found by their key against live ones, at the same daemon.
static void compare_kinds(const server &daemon) {
    std::vector<double> cpu, event_cpu, live_cpu;
    for (int i = 0; i < ROUNDS; ++i) {
        g_line = EVENT_LINE;
        double event = run_round(daemon.path, daemon.pid, 16, 20000).cpu;
        g_line = LIVE_LINE;
        double live = run_round(daemon.path, daemon.pid, 16, 20000).cpu;
        cpu.push_back(event / live);
        event_cpu.push_back(event * 1e6);
        live_cpu.push_back(live * 1e6);
    }
    tell_ratio("processor time, event by key / live, 16 connections", median(cpu), -1.1,
               "%.2f / %.2f us of the server", median(event_cpu), median(live_cpu));
}

// The same requests at a daemon that writes its status every second, and at one that writes none.
static void compare_status(const temp_dir &dir, int core) {
    bench_daemon without, with;
    temp_dir other;
    std::string status = " src_tmout_sec = 300; status_sec = 1; status_file = \"" + dir / "status" + "\";";
    daemon_start(&without, other, core, " src_tmout_sec = 300;");
    daemon_feed(&without, 20);
    daemon_start(&with, dir, core, status.c_str());
    daemon_feed(&with, 20);
    std::vector<double> ratio, with_cpu, without_cpu;
    for (int i = 0; i < STATUS_ROUNDS; ++i) {
        double on = run_round(with.pl_socket, with.pid, 16, 40000).cpu;
        double off = run_round(without.pl_socket, without.pid, 16, 40000).cpu;
        ratio.push_back(on / off);
        with_cpu.push_back(on * 1e6);
        without_cpu.push_back(off * 1e6);
    }
    tell_ratio("processor time per request, status written / not", median(ratio), -1.01,
               "%.3f / %.3f us of the server, %d rounds", median(with_cpu), median(without_cpu),
               STATUS_ROUNDS);
    daemon_stop(&with);
    daemon_stop(&without);
}

static int highest_core() {
    cpu_set_t set;
    sched_getaffinity(0, sizeof(set), &set);
    int core = CPU_SETSIZE - 1;
    while (core > 0 && !CPU_ISSET(core, &set))
        --core;
    return core;
}

int main(int argc, char **argv) {
    int core = argc > 1 ? atoi(argv[1]) : highest_core();
    temp_dir dir;
    bench_daemon d;
    daemon_start(&d, dir, core, " src_tmout_sec = 300;");
    pin_to(core);
    daemon_feed(&d, 20);
    int fd = connect_to(d.pl_socket);
    std::string answer = ask(fd, LIVE_LINE);
    close(fd);
    server daemon = {.path = d.pl_socket, .pid = d.pid};
    server floor = {.path = dir / "floor.sock", .pid = 0};
    floor.pid = start_floor(floor.path, core, answer);
    tell_note("requests: server and load on core %d, answers of %zu bytes, log level info, no size checks\n",
              core, answer.size());
    compare("1 connection", 1, daemon, floor);
    compare("16 connections", 16, daemon, floor);
    compare("64 connections", 64, daemon, floor);
    compare("one connection each", 0, daemon, floor);
    compare_kinds(daemon);
    daemon_stop(&d);

    // Where closed connections are told at debug level, as the sample configuration has it.
    temp_dir quiet_dir;
    d.hangups = "debug";
    daemon_start(&d, quiet_dir, core, " src_tmout_sec = 300;");
    daemon_feed(&d, 20);
    compare("one connection each, hang-ups at debug", 0, {.path = d.pl_socket, .pid = d.pid}, floor);
    daemon_stop(&d);
    temp_dir status_dir;
    compare_status(status_dir, core);
    end_child(floor.pid);
    return 0;
}
