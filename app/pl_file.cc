#include "app/pl_file.h"

#include "app/discard.h"
#include "app/pl_gzip.h"
#include "app/pl_stretch.h"
#include "app/pl_text.h"
#include "app/retry.h"
#include "app/task.h"
#include "lib/check.h"
#include "lib/log.h"
#include "lib/syswrap.h"
#include "lib/timeop.h"
#include "lib/util.h"

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

LOG_UNIT(LOG_MOD_APP);

static constexpr size_t NAME_LIMIT = MAX_PL_PATH - 1; // bytes of the name with its terminating zero
static constexpr size_t TMP_LIMIT = MAX_PL_PATH + 8;
static constexpr size_t CHUNK = 256 * 1024; // written at once
static constexpr size_t MIN_IO_ITEMS = 10;

// --- the writer ---

// Text collects in one buffer and goes out in chunks, plain or through the compressor, whose bytes collect in
// another.
static struct pl_writer {
    int fd = -1;
    bool has_failed;
    size_t bytes_out;
    char text[CHUNK];
    char bytes[CHUNK];
} g_out;

// What cannot be written is gone, and told when the file is closed.
static void drain_to_file(text_sink *sink) {
    const char *at = sink->buf;
    while (sink->len > 0 && !g_out.has_failed) {
        ssize_t n = write(g_out.fd, at, sink->len);
        if (n < 0 && errno == EINTR)
            continue;
        g_out.has_failed = n <= 0;
        if (n > 0) {
            at += n;
            g_out.bytes_out += static_cast<size_t>(n);
            sink->len -= static_cast<size_t>(n);
        }
    }
    sink->len = 0;
}

static void drain_to_gzip(text_sink *sink) {
    gz_text({sink->buf, sink->len});
    sink->len = 0;
}

static void put_text(text_sink *sink, const pl_task *task, const pl_style &style, const text_spans *spans,
                     pl_totals *totals) {
    put_head(sink, task, *totals);
    put_items(sink, task, style, spans, totals);
    put_end(sink, task, *totals);
    sink->drain(sink);
}

// False when the compressor cannot be had; other failures show when the file is closed.
static bool write_text(const pl_task *task, pl_totals *totals) {
    text_sink text = {.buf = g_out.text, .size = CHUNK, .len = 0, .drain = drain_to_file};
    text_sink bytes = {.buf = g_out.bytes, .size = CHUNK, .len = 0, .drain = drain_to_file};
    text_spans spans;
    pl_style style = text_style(task);
    bool has_spans = stretch_open(task, style, &spans);
    measure_window(task, has_spans ? &spans : nullptr, totals);
    if (!task->is_gzipped) {
        put_text(&text, task, style, nullptr, totals);
        return true;
    }
    if (!gz_begin(&bytes))
        return false;
    text.drain = drain_to_gzip;
    put_text(&text, task, style, has_spans ? &spans : nullptr, totals);
    gz_end();
    drain_to_file(&bytes);
    return true;
}

// Whatever the mask, nobody else may write to it.
static bool out_open(const char *path) {
    g_out.fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    g_out.has_failed = false;
    g_out.bytes_out = 0;
    return g_out.fd >= 0;
}

// True when everything arrived in the file.
static bool out_close() {
    bool is_closed = close(g_out.fd) == 0;
    g_out.fd = -1;
    return is_closed && !g_out.has_failed;
}

// --- the files ---

// The source's directory, but never the data directory: where that is gone a disk may be missing.
static int mk_source_dir(const pl_task *task, const char *data_dir) {
    return dir_check(data_dir) == 0 ? mk_fpath_dirs(task->fpath) : -1;
}

static int format_name(char *buf, size_t size, const char *dir, const char *nametag, const char *kind,
                       uint32_t tseq, size_t mseq) {
    return snprintf(buf, size, "%s/%s%c%s%u-M%zu.m3u8", dir, nametag, g_cfg.use_sid_pl_dir ? '/' : '-', kind,
                    tseq, mseq);
}

size_t shortest_path(const char *dir, const char *nametag) {
    return static_cast<size_t>(format_name(nullptr, 0, dir, nametag, "LIV", 1, 0));
}

// A name of exactly the limit passes and is stored cut by one character.
static int name_playlist(pl_task *task) {
    const char *dir = src_data_dir(task->src);
    int n = format_name(task->fpath, NAME_LIMIT, dir, task->src->nametag, task->tag.sym, task->tseq,
                        task->ifirst->mseq);
    if (n > static_cast<int>(NAME_LIMIT)) {
        LOG(LL_ERROR, "%s: file path is too long: %d bytes, max=%zu\n", "mk_playlist", n, NAME_LIMIT);
        task->fpath[0] = '\0';
        return -1;
    }
    return g_cfg.use_sid_pl_dir ? mk_source_dir(task, dir) : 0;
}

int mk_lockfile(pl_task *task) {
    CHECK(-1 == task->lkfd);
    int len = snprintf(task->lpath, sizeof(task->lpath), "%s.alk", task->fpath);
    CHECK(len > 0 && len < static_cast<int>(sizeof(task->lpath)));
    task->lkfd = W_open(__func__, task->lpath, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, g_cfg.lock_mode);
    if (task->lkfd < 0) {
        task->lpath[0] = '\0';
        return -1;
    }
    forget_deletion(task->lpath);
    discard_forget(task->src, task->lpath);
    // Neither the mask nor a file that lay there decides who may touch it.
    if (fchmod(task->lkfd, g_cfg.lock_mode) != 0)
        LOG_FN(LL_ERROR, "fchmod(%s, %04o) ERROR(%d): %s\n", task->lpath, g_cfg.lock_mode, errno,
               strerror(errno));
    const lock_data lock = {.owner = getpid(), .touch = 0};
    ssize_t n = W_write_f(__func__, task->lkfd, &lock, sizeof(lock), 1);
    if (n == sizeof(lock)) {
        LOG_FN(LL_DEBUG, "[%s] created, fd%d\n", task->lpath, task->lkfd);
        return 0;
    }
    LOG_FN(LL_ERROR, "lock underwrite: exp/wr=%zu/%zd\n", sizeof(lock), n);
    W_close(__func__, task->lkfd);
    task->lkfd = -1;
    delete_file(__func__, task->lpath);
    task->lpath[0] = '\0';
    return -1;
}

static int report_failure(const pl_task *task, const char *what) {
    LOG(LL_ERROR, "%s: %s for [t%u] ERROR(%d)\n", "mk_playlist", what, task->tseq, errno);
    return -1;
}

static int publish(pl_task *task, const char *tmp, bool is_new) {
    if (is_new && mk_lockfile(task) != 0)
        return report_failure(task, "no lock file");
    if (rename(tmp, task->fpath) != 0) {
        LOG(LL_ERROR, "%s: rename(%s, %s) ERROR(%d): %s\n", "mk_playlist", tmp, task->fpath, errno,
            strerror(errno));
        return -1;
    }
    forget_deletion(task->fpath);
    if (is_new)
        discard_forget(task->src, task->fpath);
    LOG(LL_DEBUG, "%s: [%s] %s %s\n", "mk_playlist", task->fpath, task->is_gzipped ? "gzip" : "text",
        is_new ? "created" : "generated");
    return 0;
}

enum write_result { WRITTEN, NOT_BEGUN, WRITE_FAILED };

static write_result write_playlist(pl_task *task, bool is_new, pl_totals *totals) {
    char tmp[TMP_LIMIT];
    snprintf(tmp, sizeof(tmp), "%s.tmp", task->fpath);
    errno = 0;
    if (!out_open(tmp)) {
        LOG(LL_ERROR, "%s: %s(%s,..) ERROR(%d): %s\n", "mk_playlist", task->is_gzipped ? "gzopen" : "fopen",
            tmp, errno, strerror(errno));
        return NOT_BEGUN;
    }
    bool is_written = write_text(task, totals);
    is_written = out_close() && is_written;
    int rc = is_written ? publish(task, tmp, is_new) : report_failure(task, "write failed");
    if (rc == 0)
        return WRITTEN;
    delete_file("mk_playlist", tmp);
    return WRITE_FAILED;
}

static void count_writing(const pl_task *task, write_result result, const timespec &began) {
    write_counts &counts = g_ctx.counts.writes[kind_of(task->tag.num)];
    timespec now;
    set_clk_now(&now, CLOCK_MONOTONIC);
    int64_t usec = (now.tv_sec - began.tv_sec) * 1'000'000 + (now.tv_nsec - began.tv_nsec) / 1000;
    size_t i = 0;
    while (i < WRITE_BUCKETS && usec > WRITE_BOUNDS_US[i])
        ++i;
    ++counts.by_usec[i];
    counts.usec += static_cast<uint64_t>(usec);
    ++(result == WRITTEN ? counts.written : counts.failed);
    counts.bytes += result == NOT_BEGUN ? 0 : g_out.bytes_out;
}

static int clamp_sec(double sec) {
    return sec >= INT_MAX ? INT_MAX : sec <= INT_MIN ? INT_MIN : static_cast<int>(nearbyint(sec));
}

int mk_playlist(pl_task *task) {
    LOG_FN(LL_DEBUG, "%s%u BEGIN\n", task->tag.sym, task->tseq);
    bool is_new = task->fpath[0] == '\0';
    pl_totals totals{};
    write_result result = NOT_BEGUN;
    if (!task->ifirst || !task->ilast) {
        task->must_sync_playlist = false;
        return is_new ? report_failure(task, "no items") : 0;
    }
    if (!is_new || name_playlist(task) == 0) {
        timespec began;
        set_clk_now(&began, CLOCK_MONOTONIC);
        result = write_playlist(task, is_new, &totals);
        count_writing(task, result, began);
    }
    // A name that was never written has no file to delete.
    if (is_new && result != WRITTEN)
        task->fpath[0] = '\0';
    if (result == NOT_BEGUN)
        return -1;
    task->must_sync_playlist = false;
    if (result == WRITE_FAILED) {
        drop_playlist(task);
        return -1;
    }
    task->is_eot = task->is_eot || totals.is_at_end;
    adjust_lk_timeout(task, clamp_sec(totals.target_sec), clamp_sec(totals.total_sec), totals.items);
    return 0;
}

// --- the lock's time-out ---

static void set_lk_timeout(pl_task *task, int sec) {
    if (sec == task->lk_tmout_sec)
        return;
    LOG(LL_DEBUG, "%s: %s%u UPDATED from %d to %d sec\n", "adjust_lk_timeout", task->tag.sym, task->tseq,
        task->lk_tmout_sec, sec);
    task->lk_tmout_sec = sec;
}

void adjust_lk_timeout(pl_task *task, int max_dur, int total_dur, size_t item_count) {
    long since_io = task->last_io_time == 0 ? 0 : time(nullptr) - task->last_io_time;
    size_t count = item_count < MIN_IO_ITEMS ? MIN_IO_ITEMS : item_count;
    long max_since_io = static_cast<long>(max_dur) * static_cast<long>(count);
    LOG_FN(LL_DEBUG, "%s%u maxd/totald=%d/%d, icount/ecount=%zu/%zu, io_gap=%ld/%ld\n", task->tag.sym,
           task->tseq, max_dur, total_dur, item_count, count, since_io, max_since_io);
    if (task->tag.num != PL_EVE) {
        if (task->lk_tmout_sec < max_dur)
            set_lk_timeout(task, total_dur);
    } else if (since_io <= max_since_io) {
        LOG_FN(LL_DEBUG, "%s%u OK after io/max:%ld/%ld sec\n", task->tag.sym, task->tseq, since_io,
               max_since_io);
        if (task->lk_tmout_sec < total_dur)
            set_lk_timeout(task, total_dur);
    } else {
        LOG_FN(LL_INFO, "%s%u considered STALE after io/max:%ld/%ld sec\n", task->tag.sym, task->tseq,
               since_io, max_since_io);
        task->lk_tmout_sec = max_dur;
    }
}
