#include "lib/log.h"

#include "lib/check.h"
#include "lib/logcount.h"
#include "lib/sigflag.h"

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <execinfo.h>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>
#include <utility>

LOG_UNIT(LOG_MOD_APP);

static constexpr size_t ROTA_NAME_SIZE = 160; // of a rotated file, with the terminating zero

static struct {
    char app_tag[128];
    bool is_ready;
} g_logmod;

static struct {
    char text[LOG_BUF_SIZE];
    size_t len;
} g_buf;

static struct {
    log_ctx *log; // null = nothing is gathered
    int level;
    size_t len;
    char text[32 * LOG_BUF_SIZE];
} g_gather;

// --- initialising ---

static void report_check() {
    log_btrace("ASSERT at:");
}

static void report_time_failure(const char *message) {
    LOG(LL_ERROR, "%s", message);
}

void glog_init(const char *app_tag) {
    CHECK(app_tag);
    snprintf(g_logmod.app_tag, sizeof(g_logmod.app_tag), "%s", app_tag);
    g_logmod.is_ready = true;
    g_check_reporter = report_check;
    timeop_set_reporter(report_time_failure);
}

const char *glog_app_tag() {
    CHECK(g_logmod.is_ready);
    return g_logmod.app_tag;
}

// --- the steps of one record ---

void logbuf_reset() {
    g_buf.len = 0;
    g_buf.text[0] = '\0';
}

bool logbuf_empty() {
    return g_buf.len == 0;
}

static bool append(std::string_view text) {
    if (text.size() >= sizeof(g_buf.text) - g_buf.len)
        return false;
    memcpy(g_buf.text + g_buf.len, text.data(), text.size());
    g_buf.len += text.size();
    g_buf.text[g_buf.len] = '\0';
    return true;
}

static int stamp_time(const log_ctx *log) {
    timespec now;
    switch (log->time_format & TF_CLOCK_MASK) {
    case TF_LOCAL:
        set_real_now(&now);
        break;
    case TF_MONO:
        set_clk_now(&now, CLOCK_MONOTONIC);
        break;
    default:
        fprintf(stderr, "%s: unsupported timer value: %u\n", "flags2clock", log->time_format & TF_CLOCK_MASK);
        return -1;
    }
    int n = mk_timestr(now, log->time_format, g_buf.text + g_buf.len, sizeof(g_buf.text) - g_buf.len);
    if (n > 0)
        g_buf.len += static_cast<size_t>(n);
    if (n <= 0 || !append(" ")) {
        fprintf(stderr, "%s: time buffer error (n=%d)\n", "logbuf_prepare", n);
        return -1;
    }
    if (log->pid < 1)
        return 0;
    static char pid[32];
    static pid_t printed = 0;
    if (printed != log->pid) {
        n = snprintf(pid, sizeof(pid), "%lu  ", static_cast<unsigned long>(log->pid));
        printed = log->pid;
    }
    if (!append(pid)) {
        fprintf(stderr, "%s: pid buffer error (n=%d)", "logbuf_prepare", n);
        return -1;
    }
    return 0;
}

// Time, process, level and group, in that order.
static int stamp(const log_ctx *log, int level) {
    if (!(log->time_format & TF_NO_TIME) && stamp_time(log) != 0)
        return -1;
    if (level >= -126 && !(append(get_level_tag(level)) && append("  "))) {
        fprintf(stderr, "%s: level buffer error (n=%d)", "logbuf_prepare", -1);
        return -1;
    }
    if (log->group.num64 != 0) {
        CHECK(0 == log->group.sym8[sizeof(log->group.sym8) - 1]);
        if (!(append(log->group.sym8) && append("  "))) {
            fprintf(stderr, "%s: group buffer error (n=%d)", "logbuf_prepare", -1);
            return -1;
        }
    }
    return 0;
}

static int vprepare(const log_ctx *log, int level, const char *format, va_list args) {
    if (stamp(log, level) != 0)
        return -1;
    size_t room = sizeof(g_buf.text) - g_buf.len;
    int n = vsnprintf(g_buf.text + g_buf.len, room, format, args);
    if (n > 0 && static_cast<size_t>(n) < room) {
        g_buf.len += static_cast<size_t>(n);
        return 0;
    }
    perror("fprintf/vfprintf");
    if (n > 0) {
        // What is cut still ends its line, so that the next record starts one.
        g_buf.len = sizeof(g_buf.text) - 1;
        g_buf.text[g_buf.len - 1] = '\n';
    }
    return -1;
}

int logbuf_prepare(const log_ctx *log, int level, const char *format, ...) {
    va_list args;
    va_start(args, format);
    int rc = vprepare(log, level, format, args);
    va_end(args);
    return rc;
}

void log_lard(log_ctx *log, int level) {
    if (!lard_enabled(log) || logbuf_empty())
        return;
    lard_write(log->lh, g_buf.text, g_buf.len);
    if (level < 0)
        lard_set_temp(log->lh, -level);
}

void log_record(log_ctx *log, int level, const loglevel_ctx &unit, const char *format, ...) {
    int saved_errno = errno;
    va_list args;
    logbuf_reset();
    if (lard_enabled(log)) {
        va_start(args, format);
        vprepare(log, level, format, args);
        va_end(args);
        log_lard(log, level);
    }
    if (log_passes(level, unit)) {
        if (static_cast<size_t>(level - LL_PANIC) < LOG_COUNTED)
            ++g_log_written[level - LL_PANIC];
        if (logbuf_empty()) {
            va_start(args, format);
            vprepare(log, level, format, args);
            va_end(args);
        }
        log_flush(log, level);
    }
    errno = saved_errno;
}

// To the file and the mirror.
static void write_text(log_ctx *log, std::string_view text) {
    const bool has_file = log->fp || (!g_sigctx && log_reopen_lost(log));
    if (has_file) {
        fwrite(text.data(), 1, text.size(), log->fp);
        log->total_out += text.size();
    }
    if (log->mirror_fp && !(has_file && fileno(log->mirror_fp) == fileno(log->fp)))
        fwrite(text.data(), 1, text.size(), log->mirror_fp);
}

static void rotate_after_writing(log_ctx *log) {
    if (!g_sigctx && log->fp && !log_is_standard(log->fp))
        log_rotate_if_due(log);
}

static void write_gathered() {
    if (g_gather.len == 0)
        return;
    write_text(g_gather.log, {g_gather.text, std::exchange(g_gather.len, 0)});
}

// True when the record waits for those to come.
static bool gather(log_ctx *log, int level) {
    if (log != g_gather.log)
        return false;
    const bool is_other = level != g_gather.level;
    const bool is_full = g_gather.len + g_buf.len > sizeof(g_gather.text);
    if (is_other || is_full)
        write_gathered();
    if (is_other)
        return false;
    memcpy(g_gather.text + g_gather.len, g_buf.text, g_buf.len);
    g_gather.len += g_buf.len;
    if (is_full)
        rotate_after_writing(log); // only here: it puts a record of its own into the buffer
    return true;
}

void log_gather(log_ctx *log, int level) {
    CHECK(level >= LL_NORM && !g_gather.log);
    g_gather.log = log;
    g_gather.level = level;
}

void log_gather_end() {
    write_gathered();
    rotate_after_writing(std::exchange(g_gather.log, nullptr));
}

void log_flush(log_ctx *log, int level) {
    if (logbuf_empty() || gather(log, level))
        return;
    write_text(log, {g_buf.text, g_buf.len});
    if (!g_sigctx && level < 0 && log->syslg.enabled)
        syslog(get_syslog_pri(level) | log->syslg.facility, "%s", g_buf.text);
    rotate_after_writing(log);
}

// --- opening, rotation, closing ---

// "PATH.STAMP" of the first second from `*stamp` on whose name is still free: a file that was put aside is
// never overwritten by the next. The length that the name needs.
static int mk_aside_name(const char *path, time_t *stamp, char *out, size_t size) {
    static constexpr int MAX_TRIES = 1000;
    for (int i = 0;; ++i, ++*stamp) {
        int n = snprintf(out, size, "%s.%lu", path, static_cast<unsigned long>(*stamp));
        bool fits = n > 0 && static_cast<size_t>(n) < size;
        if (!fits || i == MAX_TRIES || access(out, F_OK) != 0)
            return n;
    }
}

int move_if_present(const char *path) {
    struct stat st;
    if (stat(path, &st) != 0) {
        if (errno == ENOENT)
            return 0;
        fprintf(stderr, "stat(%s) ERROR(%d): %s\n", path, errno, strerror(errno));
        return -1;
    }
    if (!S_ISREG(st.st_mode) || st.st_size == 0)
        return 0;
    char aside[LOG_PATH_SIZE];
    time_t stamp = st.st_mtime;
    int n = mk_aside_name(path, &stamp, aside, sizeof(aside));
    if (n < 0 || static_cast<size_t>(n) >= sizeof(aside))
        return 7;
    int rc = rename(path, aside);
    if (rc != 0)
        fprintf(stderr, "Cannot rename(%s, %s): ERROR(%d): %s\n", path, aside, errno, strerror(errno));
    return rc;
}

// A command keeps the signal mask that it is started with: it gets the signals that are shut out here.
static FILE *open_pipe(const char *command) {
    const sigset_t shut_out = sigflag_set();
    sigset_t before;
    sigprocmask(SIG_UNBLOCK, &shut_out, &before);
    FILE *fp = popen(command, "w");
    sigprocmask(SIG_SETMASK, &before, nullptr);
    return fp;
}

// A daemon's file mask leaves it to each file to keep others from writing.
static FILE *open_file(const char *path) {
    int fd = open(path, O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    FILE *fp = fd >= 0 ? fdopen(fd, "a+") : nullptr;
    if (fd >= 0 && !fp)
        close(fd);
    return fp;
}

static FILE *open_stream(const log_ctx *log, const char *path) {
    FILE *fp = log->is_pipe ? open_pipe(path) : open_file(path);
    if (!fp) {
        int err = errno;
        fprintf(stderr, "%s: uid/gig=%ld/%ld %s(%s) ERROR(%d): %s\n", "do_open", static_cast<long>(geteuid()),
                static_cast<long>(getegid()), log->is_pipe ? "popen" : "fopen", path, err, strerror(err));
        return nullptr;
    }
    setvbuf(fp, nullptr, log->is_pipe ? _IOLBF : _IONBF, 0);
    return fp;
}

int do_open(log_ctx *log, const char *path) {
    (void)glog_app_tag(); // the log core must have been initialised
    if (path) {
        if (strlen(path) > LOG_PATH_SIZE) {
            fprintf(stderr, "Log pathname/command is too long, %ld bytes allowed\n",
                    static_cast<long>(LOG_PATH_SIZE));
            return -1;
        }
        FILE *fp = open_stream(log, path);
        if (!fp)
            return -1;
        log->fp = fp;
        log->is_lost = false;
        if (path != log->name)
            snprintf(log->name, sizeof(log->name), "%s", path);
    } else {
        log->fp = stderr;
    }
    log->total_out = 0;
    if (!log->is_pipe && !log_is_standard(log->fp)) {
        struct stat st;
        if (fstat(fileno(log->fp), &st) == 0)
            log->total_out = static_cast<size_t>(st.st_size);
        else
            fprintf(stderr, "%s: fstat(%s) ERROR(%d): %s\n", __func__, log->name, errno, strerror(errno));
    }
    return 0;
}

int log_open_ex(log_ctx *log, const char *path, unsigned flags) {
    log->is_pipe = 0;
    if (path && !(flags & LOG_OPEN_APPEND))
        move_if_present(path);
    return do_open(log, path);
}

int log_popen(log_ctx *log, const char *command) {
    log->is_pipe = 1;
    return do_open(log, command);
}

bool log_reopen_lost(log_ctx *log) {
    time_t now = time(nullptr);
    if (!log->is_lost || now == log->retry_tm)
        return false;
    log->retry_tm = now;
    return do_open(log, log->name) == 0;
}

void log_set_rota(log_ctx *log, size_t max_total, int max_files, time_t eod) {
    bool is_sensible = max_files > 0 && max_files < static_cast<int>(LOG_ROTA_SLOTS);
    log->rota.max_total = max_total;
    log->rota.max_idx = static_cast<size_t>(is_sensible ? max_files : LOG_DEFAULT_FILES);
    log->rota.max_log_tm = eod < 1 ? 0 : get_endofday_utime(eod);
}

void log_set_eod(log_ctx *log, time_t t) {
    log->rota.max_log_tm = t;
}

size_t log_rota_maxfiles(const log_ctx *log) {
    return log->rota.max_idx;
}

size_t log_rota_maxsize(const log_ctx *log) {
    return log->rota.max_total;
}

time_t log_rota_eod(const log_ctx *log) {
    return log->rota.max_log_tm;
}

static bool name_fits(int n) {
    if (n > 0 && static_cast<size_t>(n) < ROTA_NAME_SIZE)
        return true;
    fprintf(stderr, "%s: log log->name is too long (%d bytes), max=%lu\n", "log_rotate", n,
            static_cast<unsigned long>(ROTA_NAME_SIZE - 1));
    return false;
}

// Keeps at most `max_idx` rotated files: the slot that comes round again gives up its file.
static void handle_rotation(log_ctx *log, time_t now, const char *new_name) {
    rotation_ctx &rota = log->rota;
    LOG_TO(*log, LL_NORM, "[%s]: previous log rotated to [%s] tm=%ld, idx=%ld\n", glog_app_tag(), new_name,
           static_cast<long>(now), static_cast<long>(rota.next_idx));
    time_t &slot = rota.tm[rota.next_idx];
    char oldest[ROTA_NAME_SIZE];
    // A name that is free again may be the new file's.
    if (slot != 0 && slot != now &&
        name_fits(snprintf(oldest, sizeof(oldest), "%s.%lu", log->name, static_cast<unsigned long>(slot)))) {
        if (unlink(oldest) != 0)
            LOG_TO(*log, LL_ERROR, "%s: unlink(%s) ERROR(%d) : %s\n", __func__, oldest, errno,
                   strerror(errno));
        else
            LOG_TO(*log, LL_DEBUG, "%s: replaced %s with %s.%lu\n", __func__, oldest, log->name,
                   static_cast<unsigned long>(now));
    }
    slot = now;
    if (++rota.next_idx >= static_cast<ssize_t>(rota.max_idx))
        rota.next_idx = 0;
    errno = 0;
}

static int refuse_rotation(const log_ctx *log) {
    if (log_is_standard(log->fp)) {
        fprintf(stderr, "%s: stdout and stderr cannot be rotated.\n", "log_rotate");
        return -1;
    }
    if (log->is_pipe || log->name[0] == '|') {
        fprintf(stderr, "%s: not supported for pipe-based streams.\n", "log_rotate");
        return -1;
    }
    return 0;
}

int log_rotate(log_ctx *log) {
    if (log->name[0] == '\0') {
        fprintf(stderr, "%s: nothing to rotate.\n", __func__);
        return 0;
    }
    if (refuse_rotation(log) != 0)
        return -1;
    time_t now = time(nullptr);
    char new_name[ROTA_NAME_SIZE];
    if (!name_fits(mk_aside_name(log->name, &now, new_name, sizeof(new_name))))
        return -1;
    FILE *fp = log->fp;
    log->fp = nullptr;
    log->is_lost = true;
    if (fp && fclose(fp) != 0) {
        fprintf(stderr, "%s: failed to close [%s], ERROR(%d): %s\n", __func__, log->name, errno,
                strerror(errno));
        return -1;
    }
    char failure[512] = "";
    if (rename(log->name, new_name) != 0) {
        snprintf(failure, sizeof(failure), "%s: failed to rename [%s] to [%s], ERROR(%d): %s", __func__,
                 log->name, new_name, errno, strerror(errno));
        fprintf(stderr, "%s - rotation is to be stopped\n", failure);
    }
    int rc = do_open(log, log->name);
    if (rc != 0)
        return rc;
    if (failure[0]) {
        log->total_out = 0;
        LOG_TO(*log, LL_ERROR, "%s: %s - rotation cancelled this time\n", __func__, failure);
    } else if (log->rota.max_idx != 0) {
        handle_rotation(log, now, new_name);
    }
    return 0;
}

void log_rotate_if_due(log_ctx *log) {
    // Rotation logs, and a log below the size limit of one record would rotate for ever.
    static bool is_rotating = false;
    if (is_rotating)
        return;
    rotation_ctx &rota = log->rota;
    bool is_due = rota.max_total != 0 && log->total_out >= rota.max_total;
    if (rota.max_log_tm > 0) {
        time_t now = time(nullptr);
        if (rota.max_log_tm < now) {
            rota.max_log_tm = get_endofday_utime(now);
            is_due = true;
        }
    }
    if (!is_due)
        return;
    is_rotating = true;
    log_rotate(log);
    is_rotating = false;
}

void log_close(log_ctx *log) {
    FILE *fp = log->fp;
    log->is_lost = false;
    if (!fp || log_is_standard(fp))
        return;
    log->fp = nullptr;
    int rc = log->is_pipe ? pclose(fp) : fclose(fp);
    bool is_reaped = log->is_pipe && errno == ECHILD;
    if (rc == -1 && !is_reaped)
        fprintf(stderr, "%s: %s error(%d) for the application log: %s\n", __func__,
                log->is_pipe ? "pclose" : "fclose", errno, strerror(errno));
    if (log->syslg.enabled)
        disable_syslog(log);
    lard_destroy(log_set_lard(log, nullptr));
}

// --- back-traces and internal failures ---

int btrace_to_buf(char *out, size_t size) {
    void *frames[16];
    errno = 0;
    int n = backtrace(frames, 16);
    if (n <= 0) {
        if (errno != 0)
            perror("backtrace");
        return errno != 0 ? -1 : 0;
    }
    char **symbols = backtrace_symbols(frames, n);
    if (!symbols) {
        perror("backtrace_symbols");
        return -1;
    }
    size_t used = 0;
    for (int i = 0; i < n; ++i) {
        int len = snprintf(out + used, size - used, "#%d: %s\n", i, symbols[i]);
        if (len < 0 || static_cast<size_t>(len) >= size - used)
            break;
        used += static_cast<size_t>(len);
    }
    free(symbols);
    return 0;
}

int snprintf_btrace(char *out, size_t size, const char *format, ...) {
    va_list args;
    va_start(args, format);
    int n = vsnprintf(out, size, format, args);
    va_end(args);
    if (n <= 0 || static_cast<size_t>(n) >= size)
        return -1;
    return btrace_to_buf(out + n, size - static_cast<size_t>(n));
}

void log_btrace(const char *heading) {
    char trace[512] = "";
    btrace_to_buf(trace, sizeof(trace));
    LOG(LL_PANIC, "%s\n%s==\n", heading, trace);
    if (g_log.fp)
        fflush(g_log.fp);
}

[[noreturn]] void log_abort() {
    log_btrace("Aborting at:");
    abort();
}
