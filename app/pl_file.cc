#include "app/pl_file.h"

#include "app/task.h"
#include "lib/check.h"
#include "lib/log.h"
#include "lib/syswrap.h"
#include "lib/timeop.h"
#include "lib/util.h"

#include <cerrno>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

LOG_UNIT(LOG_MOD_APP);

static constexpr size_t NAME_LIMIT = MAX_PL_PATH - 1; // bytes of the name with its terminating zero
static constexpr size_t TMP_LIMIT = MAX_PL_PATH + 8;
static constexpr size_t CHUNK = 256 * 1024;      // written at once
static constexpr unsigned GZ_BUFFER = 32 * 1024; // smaller than a chunk: compressed straight from ours
static constexpr size_t LINE_ROOM = 512;         // more than one item's lines can take
static constexpr size_t MIN_IO_ITEMS = 10;

// --- durations ---

// A duration that a line may carry can be larger than any clock.
static long whole_sec(double sec) {
    if (sec >= 9e18)
        return LONG_MAX;
    return sec <= -9e18 ? LONG_MIN : static_cast<long>(sec);
}

time_t item_end_time(const pl_item *item) {
    return add_seconds(item->start_tm, whole_sec(ceil(item->duration)));
}

long next_item_sec(const pl_item *item) {
    const pl_item *next = newer_item(item);
    return next ? whole_sec(next->duration) : 0;
}

bool ends_event(const pl_item *item, time_t end_time) {
    time_t item_end = item_end_time(item);
    return item_end >= end_time || add_seconds(item_end, next_item_sec(item)) > end_time;
}

// --- the writer ---

// Text collects in one buffer and goes out in chunks, plain or through the compressor.
static struct pl_writer {
    FILE *fp;
    gzFile gz;
    bool has_failed;
    size_t len;
    char buf[CHUNK];
} g_out;

static bool out_open(const char *path, bool is_gzipped) {
    g_out.fp = nullptr;
    g_out.gz = nullptr;
    g_out.has_failed = false;
    g_out.len = 0;
    if (is_gzipped) {
        g_out.gz = gzopen(path, "w");
        if (g_out.gz)
            gzbuffer(g_out.gz, GZ_BUFFER);
    } else {
        g_out.fp = fopen(path, "w");
        if (g_out.fp)
            setvbuf(g_out.fp, nullptr, _IONBF, 0);
    }
    return g_out.fp || g_out.gz;
}

static void out_flush() {
    if (g_out.len == 0 || g_out.has_failed)
        return;
    bool is_whole = g_out.gz ? gzwrite(g_out.gz, g_out.buf, static_cast<unsigned>(g_out.len)) > 0
                             : fwrite(g_out.buf, 1, g_out.len, g_out.fp) == g_out.len;
    g_out.has_failed = !is_whole;
    g_out.len = 0;
}

// True when everything arrived in the file.
static bool out_close() {
    out_flush();
    bool is_closed = g_out.gz ? gzclose(g_out.gz) == Z_OK : fclose(g_out.fp) == 0;
    g_out.fp = nullptr;
    g_out.gz = nullptr;
    return is_closed && !g_out.has_failed;
}

static char *out_room() {
    if (sizeof(g_out.buf) - g_out.len < LINE_ROOM)
        out_flush();
    if (g_out.has_failed)
        g_out.len = 0;
    return g_out.buf + g_out.len;
}

static void out_advance(const char *end) {
    g_out.len = static_cast<size_t>(end - g_out.buf);
}

__attribute__((format(printf, 1, 2))) static void out_printf(const char *format, ...) {
    char *at = out_room();
    va_list args;
    va_start(args, format);
    int n = vsnprintf(at, LINE_ROOM, format, args);
    va_end(args);
    CHECK(n >= 0 && n < static_cast<int>(LINE_ROOM));
    out_advance(at + n);
}

static char *put_text(char *at, std::string_view text) {
    memcpy(at, text.data(), text.size());
    return at + text.size();
}

// Two digits at a time; `n` below 100.
static char *put_pair(char *at, unsigned n) {
    static constexpr auto PAIRS = [] {
        struct {
            char text[200];
        } out{};
        for (unsigned i = 0; i < 100; ++i) {
            out.text[2 * i] = static_cast<char>('0' + i / 10);
            out.text[2 * i + 1] = static_cast<char>('0' + i % 10);
        }
        return out;
    }();
    memcpy(at, PAIRS.text + 2 * n, 2);
    return at + 2;
}

// "%f". A duration that is a float has at most 24 significant bits, so that its product with a million is
// exact and rounding it to an integer gives the digits that printf gives.
static char *put_duration(char *at, double sec) {
    bool is_simple = sec < 1e6 && !std::signbit(sec) && static_cast<double>(static_cast<float>(sec)) == sec;
    if (!is_simple)
        return at + snprintf(at, LINE_ROOM / 2, "%f", sec);
    uint64_t micros = static_cast<uint64_t>(llrint(sec * 1e6));
    unsigned whole = static_cast<unsigned>(micros / 1'000'000);
    unsigned frac = static_cast<unsigned>(micros % 1'000'000);
    at = std::to_chars(at, at + LINE_ROOM / 2, whole).ptr;
    *at++ = '.';
    at = put_pair(at, frac / 10'000);
    at = put_pair(at, frac / 100 % 100);
    return put_pair(at, frac % 100);
}

// --- the text ---

struct pl_totals {
    unsigned target_sec; // target duration
    double total_sec;    // durations of the written segments
    size_t items;        // in the window
};

// Walks the window. Of a whole list the result is kept, so that the next playlist over it need not walk.
static longest_item find_longest(const pl_task *task, size_t *items) {
    longest_item longest{};
    *items = 0;
    for (const pl_item *item = task->ifirst;; item = newer_item(item)) {
        ++*items;
        if (item->duration > longest.sec)
            longest = {.sec = item->duration, .count = 1};
        else if (item->duration == longest.sec)
            ++longest.count;
        if (item == task->ilast || !item->le.next)
            return longest;
    }
}

static void measure_window(const pl_task *task, pl_totals *totals) {
    pl_source *src = task->src;
    bool is_whole = task->ifirst == oldest_item(src) && task->ilast == newest_item(src);
    totals->items = dlep_count(src->items);
    longest_item longest =
        is_whole && src->longest.count > 0 ? src->longest : find_longest(task, &totals->items);
    if (is_whole)
        src->longest = longest;
    double rounded = nearbyint(longest.sec);
    unsigned max_duration = rounded < 1 ? 1 : rounded >= UINT_MAX ? UINT_MAX : static_cast<unsigned>(rounded);
    CHECK(max_duration > 0);
    totals->target_sec = max_duration;
}

static const char *playlist_type(const pl_task *task) {
    if (task->tag.num == PL_VOD)
        return "VOD";
    return task->tag.num == PL_EVE && !task->is_live ? "EVENT" : nullptr;
}

static void write_head(const pl_task *task, const pl_totals &totals) {
    out_printf("#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-ALLOW-CACHE:YES\n");
    if (const char *type = playlist_type(task))
        out_printf("#EXT-X-PLAYLIST-TYPE:%s\n", type);
    out_printf("#EXT-X-TARGETDURATION:%u\n", totals.target_sec);
    out_printf("#EXT-X-MEDIA-SEQUENCE:%zu\n", task->is_live ? task->ifirst->mseq : 0);
}

static void write_segment(const pl_item *item, std::string_view prefix) {
    char *at = put_text(out_room(), "#EXTINF:");
    at = put_duration(at, item->duration);
    at = put_text(at, ",\n");
    at = put_text(at, prefix);
    at = put_text(at, item->path);
    *at++ = '\n';
    out_advance(at);
}

static void write_items(pl_task *task, std::string_view prefix, pl_totals *totals) {
    for (const pl_item *item = task->ifirst;; item = newer_item(item)) {
        if (is_segment(item)) {
            write_segment(item, prefix);
            totals->total_sec += item->duration;
        } else if (item != task->ifirst) {
            out_printf("#EXT-X-DISCONTINUITY\n");
        } else {
            LOG(LL_DEBUG, "%s: skipping DISCONTINUITY as 1st item\n", "mk_playlist");
        }
        if (task->end_time > 0 && ends_event(item, task->end_time)) {
            task->is_eot = true;
            LOG(LL_DEBUG, "%s: EOT task (%p) %s%u\n", "mk_playlist", static_cast<void *>(task), task->tag.sym,
                task->tseq);
            break;
        }
        if (item == task->ilast || !item->le.next)
            break;
    }
}

static void write_text(pl_task *task, pl_totals *totals) {
    const char *prefix = task->src->item_pfx ? task->src->item_pfx : g_cfg.pl_item_pfx;
    LOG(LL_DEBUG, "%s: using pfx=%s\n", "mk_playlist", prefix);
    write_head(task, *totals);
    write_items(task, prefix, totals);
    if (task->is_eot || task->ilast->is_endlist || task->tag.num == PL_VOD)
        out_printf("#EXT-X-ENDLIST\n");
}

// --- the files ---

// The source's directory, but never the data directory: where that is gone a disk may be missing.
static int mk_source_dir(const pl_task *task, const char *data_dir) {
    return dir_check(data_dir) == 0 ? mk_fpath_dirs(task->fpath) : -1;
}

// A name of exactly the limit passes and is stored cut by one character.
static int name_playlist(pl_task *task) {
    const pl_source *src = task->src;
    const char *dir = src->param.data_dir[0] ? src->param.data_dir : g_cfg.data_dir;
    int n = snprintf(task->fpath, NAME_LIMIT, "%s/%s%c%s%u-M%zu.m3u8", dir, src->nametag,
                     g_cfg.use_sid_pl_dir ? '/' : '-', task->tag.sym, task->tseq, task->ifirst->mseq);
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
    W_unlink(__func__, task->lpath);
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
    LOG(LL_DEBUG, "%s: [%s] %s %s\n", "mk_playlist", task->fpath, task->is_gzipped ? "gzip" : "text",
        is_new ? "created" : "generated");
    return 0;
}

static int write_playlist(pl_task *task, bool is_new, pl_totals *totals) {
    char tmp[TMP_LIMIT];
    snprintf(tmp, sizeof(tmp), "%s.tmp", task->fpath);
    measure_window(task, totals);
    errno = 0;
    if (!out_open(tmp, task->is_gzipped)) {
        LOG(LL_ERROR, "%s: %s(%s,..) ERROR(%d): %s\n", "mk_playlist", task->is_gzipped ? "gzopen" : "fopen",
            tmp, errno, strerror(errno));
        return -1;
    }
    write_text(task, totals);
    int rc = out_close() ? publish(task, tmp, is_new) : report_failure(task, "write failed");
    if (rc != 0)
        W_unlink(__func__, tmp);
    return rc;
}

static int clamp_sec(double sec) {
    return sec >= INT_MAX ? INT_MAX : sec <= INT_MIN ? INT_MIN : static_cast<int>(nearbyint(sec));
}

int mk_playlist(pl_task *task) {
    LOG_FN(LL_DEBUG, "%s%u BEGIN\n", task->tag.sym, task->tseq);
    task->must_sync_playlist = false;
    bool is_new = task->fpath[0] == '\0';
    if (!task->ifirst || !task->ilast)
        return is_new ? report_failure(task, "no items") : 0;
    pl_totals totals{};
    int rc = is_new ? name_playlist(task) : 0;
    if (rc == 0)
        rc = write_playlist(task, is_new, &totals);
    if (rc == 0) {
        adjust_lk_timeout(task, clamp_sec(totals.target_sec), clamp_sec(totals.total_sec), totals.items);
        return 0;
    }
    // A name that was never written has no file to delete.
    if (is_new)
        task->fpath[0] = '\0';
    drop_playlist(task);
    return -1;
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
