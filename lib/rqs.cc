#include "lib/rqs.h"

#include "lib/check.h"
#include "lib/fdio.h"
#include "lib/log.h"
#include "lib/sigflag.h"
#include "lib/syswrap.h"
#include "lib/timeop.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>

LOG_UNIT(LOG_MOD_APP);

static constexpr size_t NOPOLL_BLOCK = 20;
static constexpr size_t EVENT_BLOCK = 10;
static constexpr size_t WATCH_BUCKETS = 1024;
static constexpr uint32_t WATCH_MASK = IN_MODIFY | IN_ATTRIB | IN_CLOSE_WRITE | IN_DELETE_SELF | IN_MOVE_SELF;
static_assert(WATCH_MASK == 3086);
static_assert(sizeof(epoll_event) == 12);

// How long signals may stay shut out while events never let the wait sleep.
static constexpr int64_t SIGNAL_GAP_NS = 2'000'000;

struct nopoll_ref {
    uint32_t events; // EPOLLIN or EPOLLOUT
    int fd;
    void *udata;
    ssize_t *index; // the caller's variable that holds this record's slot
};

enum loop_stage : int { STAGE_WAIT = 0, STAGE_EVENTS = 1, STAGE_POST_EVENTS = 2, STAGE_POST_IDLE = 3 };

struct rqs_context {
    int loopfd;      // -1 = closed
    xvec events;     // of epoll_event; `len` = received by the last wait
    size_t poll_fds; // descriptors registered with epoll
    xvlst nopoll;    // of nopoll_ref
    xvec nopoll_rm;  // of slots whose removal is deferred
    timespec tmout;
    timespec itime; // current time
    int loop_stage;
};

struct inotify_ctx {
    n32_tag tag; // INO_TAG: how an event of this record is recognised
    int fd;
    bool in_epoll;
    alignas(inotify_event) char buf[4096];
    nkht_t wfd_ht; // watch descriptor -> the caller's record
    ssize_t wfd_count;
};

static rqs_context g_rqs = {.loopfd = -1,
                            .events = {},
                            .poll_fds = 0,
                            .nopoll = {},
                            .nopoll_rm = {},
                            .tmout = {-1, 0},
                            .itime = {},
                            .loop_stage = STAGE_WAIT};
static inotify_ctx g_ino = {
    .tag = {.num = INO_TAG}, .fd = -1, .in_epoll = false, .buf = {}, .wfd_ht = nullptr, .wfd_count = 0};
static rqs_config g_config;

static void read_clock() {
    set_clk_now(&g_rqs.itime, CLOCK_MONOTONIC);
    LOG_FN(LL_DEBUG, "rqs time: %lu.%09lu\n", static_cast<unsigned long>(g_rqs.itime.tv_sec),
           static_cast<unsigned long>(g_rqs.itime.tv_nsec));
}

// --- life ---

static int init_inotify() {
    g_ino.fd = inotify_init1(IN_CLOEXEC);
    if (g_ino.fd < 0) {
        LOG_FN(LL_ERROR, "inotify_init1 ERROR(%d): %s\n", errno, strerror(errno));
        return -1;
    }
    g_ino.in_epoll = false;
    g_ino.wfd_count = 0;
    int rc = nkht_create(&g_ino.wfd_ht, WATCH_BUCKETS, tw_shift);
    if (rc != 0)
        LOG_FN(LL_ERROR, "failed to create wfd/inotify lookup\n");
    return rc;
}

int rqs_init(const rqs_config *config) {
    CHECK(config);
    g_config = *config;
    g_rqs = {};
    g_rqs.tmout = {.tv_sec = -1, .tv_nsec = 0};
    g_rqs.loopfd = epoll_create1(EPOLL_CLOEXEC);
    if (g_rqs.loopfd < 0) {
        LOG_FN(LL_ERROR, "epoll_create1() ERROR(%d): %s\n", errno, strerror(errno));
        return -1;
    }
    if (xvlst_reserve(&g_rqs.nopoll, NOPOLL_BLOCK, sizeof(nopoll_ref), NOPOLL_BLOCK) != 0 ||
        xvec_reserve(&g_rqs.nopoll_rm, NOPOLL_BLOCK, sizeof(ssize_t), NOPOLL_BLOCK) != 0) {
        LOG_FN(LL_ERROR, "cannot reserve memory for g_rqs.nopoll/rm\n");
        log_abort();
    }
    int rc = init_inotify();
    read_clock();
    timeop_set_loop_clock(&g_rqs.itime);
    return rc;
}

void rqs_destroy() {
    if (g_ino.in_epoll)
        rqs_rm_fd(g_ino.fd);
    if (g_ino.fd >= 0)
        W_close(__func__, g_ino.fd);
    g_ino.fd = -1;
    g_ino.in_epoll = false;
    g_ino.wfd_count = 0;
    if (g_ino.wfd_ht)
        nkht_destroy(g_ino.wfd_ht, nullptr);
    g_ino.wfd_ht = nullptr;
    if (g_rqs.loopfd >= 0)
        W_close(__func__, g_rqs.loopfd);
    g_rqs.loopfd = -1;
    g_rqs.poll_fds = 0;
    xvlst_reset(&g_rqs.nopoll);
    xvec_reset(&g_rqs.nopoll_rm);
    xvec_reset(&g_rqs.events);
}

timespec rqs_now() {
    return g_rqs.itime;
}

const timespec *rqs_now_ref() {
    return &g_rqs.itime;
}

void rqs_set_now(timespec *ts) {
    cpy_timespec(&g_rqs.itime, ts);
}

size_t rqs_fd_count(int which) {
    switch (which) {
    case RQS_ALL_FDS:
        return g_rqs.poll_fds + g_rqs.nopoll.len;
    case RQS_POLL_FDS:
        return g_rqs.poll_fds;
    case RQS_NOPOLL_FDS:
        return g_rqs.nopoll.len;
    default:
        LOG_FN(LL_ERROR, "invalid specifier: %d\n", which);
        CHECK(!"descriptor count specifier");
    }
}

// --- registrations ---

static const char *op_name(int op) {
    return op == EPOLL_CTL_ADD ? "EPOLL_CTL_ADD" : op == EPOLL_CTL_MOD ? "EPOLL_CTL_MOD" : "EPOLL_CTL_DEL";
}

static int change_epoll(int op, int fd, uint32_t events, void *udata) {
    CHECK(g_rqs.loopfd >= 0);
    epoll_event ev{};
    ev.events = events;
    if (udata)
        ev.data.ptr = udata;
    else
        ev.data.u64 = static_cast<uint64_t>(fd);
    int rc = epoll_ctl(g_rqs.loopfd, op, fd, &ev);
    if (rc != 0)
        LOG_FN(LL_ERROR, "epoll_ctl(%d, %s, %d, {0x%lx, %p}) ERROR(%d): %s\n", g_rqs.loopfd, op_name(op), fd,
               static_cast<unsigned long>(events), udata, errno, strerror(errno));
    else
        LOG_FN(LL_DEBUG, "OK fd=%d %s to epoll with events=0x%lx, data=%p\n", fd, op_name(op),
               static_cast<unsigned long>(events), udata);
    return rc;
}

static int add_fd(int fd, uint32_t events, void *udata) {
    int rc = change_epoll(EPOLL_CTL_ADD, fd, events, udata);
    if (rc == 0)
        ++g_rqs.poll_fds;
    return rc;
}

int rqs_add_reader(int fd, void *udata) {
    return add_fd(fd, EPOLLIN, udata);
}

int rqs_add_writer(int fd, void *udata) {
    return add_fd(fd, EPOLLOUT, udata);
}

int rqs_mod_reader(int fd, void *udata) {
    return change_epoll(EPOLL_CTL_MOD, fd, EPOLLIN, udata);
}

int rqs_mod(int fd, void *udata, int flags) {
    uint32_t events = 0;
    if (flags & RQS_READ)
        events |= EPOLLIN;
    if (flags & RQS_WRITE)
        events |= EPOLLOUT;
    if (events == 0)
        events = EPOLLHUP;
    LOG_FN(LL_DEBUG, "fd=%d %s%s%s\n", fd, flags & RQS_READ ? "R" : "", flags & RQS_WRITE ? "W" : "",
           events == EPOLLHUP ? "H" : "");
    return change_epoll(EPOLL_CTL_MOD, fd, events, udata);
}

int rqs_rm_fd(int fd, int, int) {
    if (g_rqs.loopfd < 0)
        return 0;
    epoll_event ev{};
    int rc = epoll_ctl(g_rqs.loopfd, EPOLL_CTL_DEL, fd, &ev);
    if (rc != 0)
        LOG_FN(LL_ERROR, "epoll_ctl(%d, EPOLL_CTL_DEL, %d,..) ERROR(%d): %s\n", g_rqs.loopfd, fd, errno,
               strerror(errno));
    else
        --g_rqs.poll_fds;
    LOG_FN(LL_DEBUG, "REMOVE fd=%d from epoll %s [rc=%d]\n", fd, rc == 0 ? "OK" : "FAILED", rc);
    return rc;
}

// --- no-poll records ---

static int add_nopoll(const char *caller, int fd, uint32_t events, ssize_t *index, void *udata) {
    ssize_t slot = xvlst_add(&g_rqs.nopoll, sizeof(nopoll_ref), NOPOLL_BLOCK);
    if (slot < 0) {
        LOG(LL_ERROR, "%s: cannot reserve memory for g_rqs.nopoll/rm\n", caller);
        log_abort();
    }
    *xvlst_at<nopoll_ref>(g_rqs.nopoll, static_cast<size_t>(slot)) = {
        .events = events, .fd = fd, .udata = udata, .index = index};
    *index = slot;
    LOG(LL_DEBUG, "%s[%ld]: fd%d, events=0x%lx, udata=%p, total=%ld events.\n", caller,
        static_cast<long>(slot), fd, static_cast<unsigned long>(events), udata,
        static_cast<long>(g_rqs.nopoll.len));
    return 0;
}

int rqs_add_nopoll_reader(int fd, ssize_t *index, void *udata) {
    return add_nopoll(__func__, fd, EPOLLIN, index, udata);
}

int rqs_add_nopoll_writer(int fd, ssize_t *index, void *udata) {
    return add_nopoll(__func__, fd, EPOLLOUT, index, udata);
}

static int release_nopoll(void *data, size_t i) {
    *static_cast<nopoll_ref *>(data)[i].index = -1;
    return 0;
}

static void remove_nopoll(const char *caller, ssize_t slot) {
    if (slot < 0 || xvlst_del(&g_rqs.nopoll, static_cast<size_t>(slot), release_nopoll) != 0) {
        LOG(LL_ERROR, "%s: failed to remove j=%ld\n", caller, static_cast<long>(slot));
        log_abort();
    }
}

void rqs_rm_nopoll(ssize_t slot) {
    remove_nopoll(__func__, slot);
}

void rqs_pprm_nopoll(ssize_t slot) {
    ssize_t pos = xvec_add(&g_rqs.nopoll_rm, sizeof(ssize_t), NOPOLL_BLOCK);
    if (pos < 0) {
        LOG_FN(LL_ERROR, "cannot add an item to nopoll_rm\n");
        log_abort();
    }
    *xvec_at<ssize_t>(g_rqs.nopoll_rm, static_cast<size_t>(pos)) = slot;
    LOG_FN(LL_DEBUG, "added no-poll event[%ld] at pos=%ld, total: %ld no-poll events.\n",
           static_cast<long>(slot), static_cast<long>(pos), static_cast<long>(g_rqs.nopoll.len));
}

static void purge_nopoll() {
    for (size_t i = 0; i < g_rqs.nopoll_rm.len; ++i)
        remove_nopoll(__func__, *xvec_at<ssize_t>(g_rqs.nopoll_rm, i));
    g_rqs.nopoll_rm.len = 0;
}

static int serve_nopoll_record(void *data, size_t i) {
    // A copy: the callback may add records and so move the list.
    const nopoll_ref ref = static_cast<nopoll_ref *>(data)[i];
    if (ref.events & EPOLLIN)
        return g_config.cb.read ? g_config.cb.read(ref.fd, 0, ref.udata, nullptr) : 0;
    if (ref.events & EPOLLOUT)
        return g_config.cb.write ? g_config.cb.write(ref.fd, 0, ref.udata, nullptr) : 0;
    LOG_FN(LL_ERROR, "unrecognized event mask: 0x%lx\n", static_cast<unsigned long>(ref.events));
    return -1;
}

static int serve_nopoll() {
    if (xvec_reserve(&g_rqs.nopoll_rm, g_rqs.nopoll.len, sizeof(ssize_t), NOPOLL_BLOCK) != 0) {
        LOG(LL_ERROR, "Failed to reserve %ld elements for nopoll_rm container.\n",
            static_cast<long>(g_rqs.nopoll.len));
        log_abort();
    }
    g_rqs.nopoll_rm.len = 0;
    int rc = 0;
    for (size_t i = 0; rc == 0 && g_rqs.nopoll.len > 0 && i <= g_rqs.nopoll.last; ++i)
        if (xvlst_taken(g_rqs.nopoll, i))
            rc = serve_nopoll_record(g_rqs.nopoll.data, i);
    if (rc != 0)
        LOG_FN(LL_ERROR, "FAILED(%d)\n", rc);
    purge_nopoll();
    return rc;
}

// --- file watches ---

static int map_watch(int wd, void *udata) {
    void *known = udata;
    int rc = nkht_add(g_ino.wfd_ht, static_cast<uint64_t>(wd), &known);
    if (rc == EBUSY)
        LOG_FN(LL_ERROR, "key wfd=%d is already taken [%p]\n", wd, known);
    else if (rc != 0)
        LOG_FN(LL_ERROR, "ERROR(%d) adding wfd=%d, udata=%p: %s\n", rc, wd, udata, strerror(rc));
    return rc;
}

// The inotify descriptor is a reader while there are watches.
static bool watch_inotify() {
    if (g_ino.in_epoll)
        return true;
    g_ino.in_epoll = rqs_add_reader(g_ino.fd, &g_ino) == 0;
    if (g_ino.in_epoll)
        LOG(LL_DEBUG, "inotify fd%d will be watched.\n", g_ino.fd);
    return g_ino.in_epoll;
}

int rqs_add_file_watch(void *udata, const char *path) {
    int wd = inotify_add_watch(g_ino.fd, path, WATCH_MASK);
    if (wd < 0) {
        LOG_FN(LL_ERROR, "inotify_add_watch(%p, '%s', %lu) ERROR(%d): %s\n", udata, path,
               static_cast<unsigned long>(WATCH_MASK), errno, strerror(errno));
        return -1;
    }
    int rc = map_watch(wd, udata);
    if (rc != 0) {
        inotify_rm_watch(g_ino.fd, wd);
        return -1;
    }
    if (!watch_inotify()) {
        nkht_rm(g_ino.wfd_ht, static_cast<uint64_t>(wd), nullptr);
        inotify_rm_watch(g_ino.fd, wd);
        return -1;
    }
    ++g_ino.wfd_count;
    return wd;
}

int rqs_rm_file_watch(int wd) {
    int rc = inotify_rm_watch(g_ino.fd, wd);
    if (rc != 0)
        LOG_FN(LL_ERROR, "inotify_rm_watch(%d, %d) ERROR(%d): %s\n", g_ino.fd, wd, errno, strerror(errno));
    if (nkht_rm(g_ino.wfd_ht, static_cast<uint64_t>(wd), nullptr) != 0)
        return rc; // not one of ours: nothing was counted
    if (--g_ino.wfd_count < 0)
        LOG_FN(LL_ERROR, "inconsistent count of file watches: %ld\n", static_cast<long>(g_ino.wfd_count));
    if (g_ino.wfd_count == 0 && g_ino.in_epoll) {
        rqs_rm_fd(g_ino.fd);
        g_ino.in_epoll = false;
        LOG(LL_DEBUG, "inotify fd%d is no longer watched.\n", g_ino.fd);
    }
    return rc;
}

static int modification_flags(uint32_t mask) {
    int flags = 0;
    if (mask & (IN_DELETE_SELF | IN_MOVE_SELF))
        flags |= RQS_FILE_GONE;
    if (mask & IN_MOVE_SELF)
        flags |= RQS_FILE_MOVED;
    if (mask & IN_DELETE_SELF)
        flags |= RQS_FILE_DELETED;
    if (mask & IN_ATTRIB)
        flags |= RQS_FILE_ATTRIB;
    return flags;
}

static int on_inotify_record(const inotify_event &ev) {
    if (ev.mask & WATCH_MASK) {
        void *udata = nullptr;
        if (nkht_get(g_ino.wfd_ht, static_cast<uint64_t>(ev.wd), &udata) == 0 && g_config.cb.on_file_modified)
            return g_config.cb.on_file_modified(ev.wd, modification_flags(ev.mask), udata, nullptr);
    } else if (ev.mask & IN_IGNORED) {
        LOG_FN(LL_DEBUG, "IN_IGNORED (0x%lx)\n", static_cast<unsigned long>(ev.mask));
    } else {
        LOG_FN(LL_WARN, "unhandled inotify mask: 0x%lx\n", static_cast<unsigned long>(ev.mask));
    }
    return 0;
}

static int on_inotify(int err) {
    if (err) {
        LOG_FN(LL_ERROR, "error condition on inotify fd=%d\n", g_ino.fd);
        log_abort();
    }
    int avail = 0;
    int rc = ioctl(g_ino.fd, FIONREAD, &avail);
    if (rc != 0) {
        LOG_FN(LL_ERROR, "ioctl FIONREAD ERROR(%d): %s\n", errno, strerror(errno));
        return rc;
    }
    if (static_cast<size_t>(avail) > sizeof(g_ino.buf)) {
        LOG_FN(LL_ERROR, "incompatible buffer size (avail=%ld bytes, max=%ld)\n", static_cast<long>(avail),
               static_cast<long>(sizeof(g_ino.buf)));
        return -1;
    }
    ssize_t n = nread(g_ino.fd, g_ino.buf, static_cast<size_t>(avail), 0);
    if (n <= 0)
        return -1;
    LOG_FN(LL_DEBUG, "%ld/%ld bytes of inotify data expected/read\n", static_cast<long>(avail),
           static_cast<long>(n));
    long count = 0;
    for (const char *p = g_ino.buf; p < g_ino.buf + n && rc == 0; ++count) {
        inotify_event ev;
        memcpy(&ev, p, sizeof(ev));
        p += sizeof(ev) + ev.len;
        rc = on_inotify_record(ev);
    }
    LOG_FN(LL_DEBUG, "%ld inotify_event records processed\n", count);
    return rc;
}

// --- the loop ---

int rqs_tmout_ms(const timespec &tmout) {
    if (tmout.tv_sec < 0 || tmout.tv_nsec < 0)
        return -1;
    int64_t ms = tmout.tv_sec > INT_MAX / 1000 ? INT_MAX : tmout.tv_sec * 1000 + tmout.tv_nsec / 1'000'000;
    return ms > INT_MAX ? INT_MAX : static_cast<int>(ms);
}

// Under a load that never lets the wait sleep, the kernel never lets a pending signal in either.
static void let_signals_in(const sigset_t *waiting) {
    static timespec last;
    int64_t gap = (g_rqs.itime.tv_sec - last.tv_sec) * 1'000'000'000 + g_rqs.itime.tv_nsec - last.tv_nsec;
    if (gap < SIGNAL_GAP_NS)
        return;
    last = g_rqs.itime;
    sigset_t running;
    sigprocmask(SIG_SETMASK, waiting, &running);
    sigprocmask(SIG_SETMASK, &running, nullptr);
}

// 0, or the error number of a failed wait. `waiting` is the signal mask in force meanwhile.
static int wait4events(const sigset_t *waiting) {
    if (xvec_reserve(&g_rqs.events, g_rqs.poll_fds > 0 ? g_rqs.poll_fds : 1, sizeof(epoll_event),
                     EVENT_BLOCK) != 0) {
        LOG_FN(LL_ERROR, "xvec_reserve failed\n");
        log_abort();
    }
    int ms = rqs_tmout_ms(g_rqs.tmout);
    if (g_rqs.nopoll.len > 0) {
        LOG_FN(LL_DEBUG, "no-poll events present: changing to 0 timeout\n");
        ms = 0;
    }
    // A signal that came before they were shut out has not been acted on yet.
    if (sigflag_pending())
        ms = 0;
    LOG_FN(LL_DEBUG, "timeout=%f sec\n", ms < 0 ? -1.0 : ms / 1000.0);
    int room = g_rqs.events.max_len > INT_MAX / 16 ? INT_MAX / 16 : static_cast<int>(g_rqs.events.max_len);
    int n = epoll_pwait(g_rqs.loopfd, xvec_at<epoll_event>(g_rqs.events, 0), room, ms, waiting);
    int err = 0;
    if (n < 0) {
        err = errno;
        if (err == EINTR)
            LOG(LL_INFO, "%s interrupted, quit=%d\n", __func__, static_cast<int>(g_quit));
        else
            LOG_FN(LL_ERROR, "epoll_wait(%d...) ERROR(%d): %s\n", g_rqs.loopfd, err, strerror(err));
    } else {
        if (n > 15 && n == room)
            LOG_FN(LL_WARN, "all event slots populated, might need more\n");
        g_rqs.events.len = static_cast<size_t>(n);
        if (n > 0)
            LOG_FN(LL_DEBUG, "got %d events\n", n);
    }
    read_clock();
    if (n >= 0)
        let_signals_in(waiting);
    return err;
}

static int on_event(const epoll_event &ev) {
    int err = (ev.events & EPOLLERR ? RQS_ERR : 0) | (ev.events & (EPOLLHUP | EPOLLRDHUP) ? RQS_HUP : 0);
    void *udata = ev.data.ptr;
    long word = static_cast<int32_t>(ev.data.u32);
    if ((ev.events & (EPOLLIN | EPOLLOUT)) || err == 0) {
        if (ev.events & EPOLLIN) {
            if (udata == &g_ino)
                return on_inotify(err);
            return g_config.cb.read ? g_config.cb.read(word, err, udata, nullptr) : 0;
        }
        if (ev.events & EPOLLOUT)
            return g_config.cb.write ? g_config.cb.write(word, err, udata, nullptr) : 0;
        LOG_FN(LL_ERROR, "unsupported event mask: 0x%lx\n", static_cast<unsigned long>(ev.events));
        return -1;
    }
    return g_config.cb.error ? g_config.cb.error(word, err, udata, nullptr) : 0;
}

static int dispatch_events() {
    int failed = 0;
    if (g_rqs.events.len > 0)
        LOG_FN(LL_DEBUG, "processing %d pollable events\n", static_cast<int>(g_rqs.events.len));
    for (size_t i = 0; i < g_rqs.events.len; ++i) {
        const epoll_event ev = *xvec_at<epoll_event>(g_rqs.events, i);
        if (on_event(ev) != 0)
            ++failed;
    }
    return failed;
}

static bool has_nothing_to_do() {
    bool is_empty = g_rqs.poll_fds == 0 && g_rqs.nopoll.len == 0;
    if (is_empty && g_config.cb.is_dormant)
        is_empty = g_config.cb.is_dormant();
    return is_empty && g_config.quit_on_zero_fds;
}

static int post_process(int stage) {
    g_rqs.loop_stage = stage;
    return g_config.cb.post_process ? g_config.cb.post_process() : 0;
}

// One pass; true when the loop goes on.
static bool loop_pass(const sigset_t *waiting, int *rc, int *failed) {
    g_rqs.loop_stage = STAGE_WAIT;
    if (has_nothing_to_do()) {
        LOG(LL_CRIT, "%s: no fd's, no activity, quitting now.\n", "rqs_event_loop");
        return false;
    }
    g_rqs.events.len = 0;
    if (g_rqs.poll_fds > 0 || g_rqs.nopoll.len == 0) {
        if (g_config.cb.update_tmout)
            g_config.cb.update_tmout(&g_rqs.tmout);
        *rc = wait4events(waiting);
        if (*rc == EINTR && !g_quit)
            *rc = 0;
        if (*rc != 0 || g_quit)
            return false;
        if (g_config.cb.time_out)
            g_config.cb.time_out();
    } else {
        read_clock();
        let_signals_in(waiting);
    }
    *rc = serve_nopoll();
    if (*rc != 0)
        return false;
    g_rqs.loop_stage = STAGE_EVENTS;
    *failed = dispatch_events();
    *rc = post_process(STAGE_POST_EVENTS);
    if (*rc != 0)
        return false;
    purge_nopoll();
    if (*failed > 0) {
        LOG(LL_DEBUG, "%s: failed %ld events\n", "rqs_event_loop", static_cast<long>(*failed));
        return false;
    }
    if (g_config.cb.on_idle)
        *rc = g_config.cb.on_idle();
    if (*rc == 0)
        *rc = post_process(STAGE_POST_IDLE);
    purge_nopoll();
    return *rc == 0;
}

int rqs_event_loop() {
    CHECK(g_rqs.loopfd >= 0);
    sigset_t before;
    sigflag_shut_out(&before);
    sigset_t waiting = before;
    for (int signo : SIGFLAG_SIGNALS)
        sigdelset(&waiting, signo);
    if (g_config.cb.update_tmout)
        g_config.cb.update_tmout(&g_rqs.tmout);
    LOG(LL_INFO, "Entering event loop\n");
    int rc = 0;
    int failed = 0;
    while (rc == 0 && !g_quit && loop_pass(&waiting, &rc, &failed)) {
    }
    if (rc == EINTR && g_quit)
        rc = 0;
    LOG(LL_INFO, "Exiting event loop, %d failed, rc=%d, quit=%d\n", failed, rc, static_cast<int>(g_quit));
    sigprocmask(SIG_SETMASK, &before, nullptr);
    return rc != 0 ? rc : failed;
}
