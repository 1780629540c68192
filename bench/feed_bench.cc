// The feed: segment lines into one source and into many, their lists full. The floors read the same lines
// from the same kind of socket and look at nothing.
#include "app/feed.h"
#include "bench/fixture.h"
#include "lib/log.h"

#include <cstdio>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

static constexpr int ROUNDS = 11;
static constexpr size_t READ_SIZE = 255; // of one read, as in the feed
static constexpr int STUCK_PASSES = 3;

// --- lines through the event loop ---

static size_t g_added;
static size_t g_expected;
static int g_empty_passes;

static int on_read(long, int, void *udata, void *) {
    auto *src = static_cast<pl_source *>(udata);
    size_t before = newest_item(src)->mseq;
    read_source(src);
    g_added += newest_item(src)->mseq - before;
    g_empty_passes = 0;
    return 0;
}

static void set_tmout(timespec *tmout) {
    *tmout = {.tv_sec = 1, .tv_nsec = 0};
}

static int on_idle() {
    if (++g_empty_passes > STUCK_PASSES)
        give_up("lines got lost");
    return g_added >= g_expected;
}

struct feed {
    std::vector<pl_source *> sources;
    std::vector<int> peers;
    std::vector<std::string> dirs;
    std::vector<int> floor_in;
    std::vector<int> floor_out;
    int floor_ep;
    size_t lines; // to each source in one batch
    size_t next;  // number of the next segment
};

static void make_feed(feed *f, const temp_dir &dir, const char *prefix, size_t count, size_t items,
                      size_t lines) {
    *f = {};
    f->lines = lines;
    f->floor_ep = epoll_create1(EPOLL_CLOEXEC);
    for (size_t i = 0; i < count; ++i) {
        std::string name = prefix + std::to_string(i);
        f->dirs.push_back(dir / name.c_str());
        mkdir(f->dirs.back().c_str(), 0755);
        int peer = -1;
        f->sources.push_back(bench_source(name.c_str(), items * ITEM_SEC, &peer, f->dirs.back().c_str()));
        f->peers.push_back(peer);
        bench_fill(f->sources.back(), 0, items);
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) != 0)
            give_up("socketpair");
        f->floor_in.push_back(ends[0]);
        f->floor_out.push_back(ends[1]);
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.fd = ends[0];
        epoll_ctl(f->floor_ep, EPOLL_CTL_ADD, ends[0], &ev);
    }
    f->next = items;
}

static void touch(const std::string &dir, const char *name) {
    int fd = open((dir + "/" + name).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0)
        give_up("segment file");
    close(fd);
}

// The files that the next batch will delete.
static void make_files(const feed &f) {
    for (size_t i = 0; i < f.sources.size(); ++i) {
        pl_source *src = f.sources[i];
        if (src->rcy_fpath)
            touch(f.dirs[i], src->rcy_fpath);
        const pl_item *item = oldest_item(src);
        for (size_t n = 0; n <= f.lines && item; ++n, item = newer_item(item))
            touch(f.dirs[i], item->path);
    }
}

static std::string batch_text(const feed &f) {
    std::string text;
    for (size_t n = f.next; n < f.next + f.lines; ++n)
        text += bench_line(n);
    return text;
}

static void send_all(const std::vector<int> &peers, const std::string &text) {
    for (int fd : peers)
        if (write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
            give_up("producer");
}

static double read_batch(feed *f) {
    make_files(*f);
    send_all(f->peers, batch_text(*f));
    f->next += f->lines;
    g_added = 0;
    g_empty_passes = 0;
    g_expected = f->lines * f->sources.size();
    double start = cpu_sec();
    rqs_event_loop();
    return cpu_sec() - start;
}

// With `unlinks`, as many files are deleted as lines were read.
static double drain_batch(feed *f, bool unlinks) {
    std::string text = batch_text(*f);
    std::vector<std::string> files;
    for (size_t i = 0; unlinks && i < f->sources.size(); ++i)
        for (size_t n = 0; n < f->lines; ++n) {
            std::string name = "floor-" + std::to_string(n);
            touch(f->dirs[i], name.c_str());
            files.push_back(f->dirs[i] + "/" + name);
        }
    send_all(f->floor_out, text);
    size_t left = text.size() * f->sources.size();
    epoll_event events[64];
    char buf[READ_SIZE];
    double start = cpu_sec();
    while (left > 0) {
        int n = epoll_wait(f->floor_ep, events, 64, -1);
        for (int i = 0; i < n; ++i) {
            ssize_t got = recv(events[i].data.fd, buf, sizeof(buf), MSG_DONTWAIT);
            left -= got > 0 ? static_cast<size_t>(got) : 0;
        }
    }
    for (const std::string &file : files)
        unlink(file.c_str());
    return cpu_sec() - start;
}

static void compare_feed(const char *name, feed *f, int level, int rounds) {
    log_set_modules(&g_log, level);
    double lines = static_cast<double>(f->lines * f->sources.size());
    std::vector<double> fed, read, both, to_read, to_both;
    for (int i = 0; i <= rounds; ++i) {
        double s = read_batch(f);
        double r = drain_batch(f, false);
        double u = drain_batch(f, true);
        if (i == 0)
            continue; // for warmth
        fed.push_back(lines / s);
        read.push_back(lines / r);
        both.push_back(lines / u);
        to_read.push_back(s / r);
        to_both.push_back(s / u);
    }
    std::string title = std::string("feed: ") + name;
    tell_ratio((title + " / read only").c_str(), median(to_read), 0, "%.0f / %.0f lines/s cpu", median(fed),
               median(read));
    tell_ratio((title + " / read and unlink").c_str(), median(to_both), 0, "%.0f / %.0f lines/s cpu",
               median(fed), median(both));
    log_set_modules(&g_log, LL_NORM);
}

int main() {
    static constexpr size_t MANY = 1024;
    static constexpr size_t MANY_ITEMS = 2000;
    temp_dir dir;
    rqs_config events{};
    events.cb.read = on_read;
    events.cb.update_tmout = set_tmout;
    events.cb.on_idle = on_idle;
    bench_open(dir, LL_NORM, events);
    feed one, many;
    make_feed(&one, dir, "one", 1, FULL_LIST, 1000);
    compare_feed("1 source, level norm", &one, LL_NORM, ROUNDS);
    compare_feed("1 source, level info", &one, LL_INFO, ROUNDS);
    make_feed(&many, dir, "many", MANY, MANY_ITEMS, 5);
    compare_feed("1024 sources, level norm", &many, LL_NORM, 5);
    tell_note(
        "feed: lists full: 100800 items in 1 source, %zu items in each of %zu sources; no size checks, every "
        "retired segment's empty file is deleted; %zu bytes a read on both sides\n",
        MANY_ITEMS, MANY, READ_SIZE);
    bench_close();
    return 0;
}
