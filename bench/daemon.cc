#include "bench/daemon.h"

#include "bench/fixture.h"

#include <csignal>
#include <cstdio>
#include <cstring>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

static constexpr int START_WAIT_US = 10'000;
static constexpr int START_TRIES = 500;

int connect_to(const std::string &path) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", path.c_str());
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        give_up("socket");
    if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) == 0)
        return fd;
    close(fd);
    return -1;
}

void pin_to(int core) {
    if (core < 0)
        return;
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(core, &set);
    if (sched_setaffinity(0, sizeof(set), &set) != 0)
        give_up("sched_setaffinity");
}

void end_child(pid_t pid) {
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
}

std::string ask(int fd, const char *line) {
    char buf[512];
    size_t len = strlen(line);
    if (write(fd, line, len) != static_cast<ssize_t>(len))
        give_up("request");
    ssize_t n = read(fd, buf, sizeof(buf));
    return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
}

static std::string write_config(const bench_daemon &d, const temp_dir &dir, const char *extra) {
    std::string path = dir / "lum.conf";
    FILE *fp = fopen(path.c_str(), "w");
    if (!fp)
        give_up("configuration");
    fprintf(fp,
            "lum: {\n src_socket = \"%s\";\n pl_socket = \"%s\";\n data_dir = \"%s\";\n"
            " verify_item_filesize = false;\n task_tmout_sec = 100;\n%s\n"
            " log: { file = \"%s\"; level = \"info\"; hangups = \"%s\"; enable_syslog = false; };\n"
            " runtime: { non_daemon = true; quiet = true; };\n};\n",
            d.src_socket.c_str(), d.pl_socket.c_str(), dir.path.c_str(), extra, (dir / "log").c_str(),
            d.hangups);
    fclose(fp);
    return path;
}

void daemon_start(bench_daemon *d, const temp_dir &dir, int core, const char *extra) {
    d->src_socket = dir / "src.sock";
    d->pl_socket = dir / "pl.sock";
    std::string config = write_config(*d, dir, extra);
    d->pid = fork();
    if (d->pid < 0)
        give_up("fork");
    if (d->pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        pin_to(core);
        execl(LUMO_DAEMON, "lumo", "-C", config.c_str(), "-T", "-q", static_cast<char *>(nullptr));
        _exit(127);
    }
    for (int i = 0; i < START_TRIES; ++i) {
        int fd = connect_to(d->pl_socket);
        if (fd >= 0) {
            close(fd);
            return;
        }
        usleep(START_WAIT_US);
    }
    give_up("the daemon does not listen");
}

void daemon_feed(bench_daemon *d, size_t items) {
    std::string text = "S1 init chan max_sec=604800\n";
    d->producer = connect_to(d->src_socket);
    if (d->producer < 0)
        give_up("source socket");
    // The init line has a connection of its own until the source is known.
    if (write(d->producer, text.data(), text.size()) < 0)
        give_up("init line");
    usleep(10 * START_WAIT_US);
    for (size_t n = 0; n < items; ++n) {
        text = bench_line(n);
        if (write(d->producer, text.data(), text.size()) < 0)
            give_up("segment line");
    }
    int fd = connect_to(d->pl_socket);
    for (int i = 0; i < START_TRIES; ++i) {
        if (ask(fd, "T1 LIV chan\n").find("M3U") != std::string::npos) {
            close(fd);
            return;
        }
        close(fd); // a refused request ends its connection
        usleep(START_WAIT_US);
        fd = connect_to(d->pl_socket);
    }
    give_up("the source has no playlist");
}

void daemon_stop(bench_daemon *d) {
    if (d->producer >= 0)
        close(d->producer);
    if (d->pid > 0)
        end_child(d->pid);
    *d = {};
}
