#include "lib/log.h"

#include "lib/check.h"
#include "lib/sigflag.h"

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <execinfo.h>
#include <string_view>
#include <strings.h>
#include <syslog.h>

LOG_UNIT(LOG_MOD_APP);

signed char g_mod_ll[LOG_MODULES];
signed char g_sec_ll[LOG_MODULES];

static struct {
    signed char level[LOG_MODULES];
    bool pushed;
} g_saved_ll;

static struct {
    char app_tag[128];
    bool is_ready;
} g_logmod;

// One buffer for the main flow and one for signal handlers, whose record may interrupt another.
static struct logbuf {
    char text[LOG_BUF_SIZE];
    size_t len;
} g_logbuf[2];

static logbuf &buf() {
    return g_logbuf[g_sigctx ? 1 : 0];
}

// --- levels by name ---

struct level_row {
    int level;
    const char *name;
    const char *tag;
    int priority;
    const char *word;  // accepted in the configuration
    const char *word2; // ... and another way to write it
};

static constexpr level_row LEVELS[] = {
    {LL_PANIC, "panic", "(PNC)", LOG_ALERT, nullptr, nullptr},
    {LL_ERROR, "error", "(ERR)", LOG_ERR, "err", "error"},
    {LL_CRIT, "ctitical", "(CRI)", LOG_CRIT, "crit", "critical"},
    {LL_WARN, "warning", "(WRN)", LOG_WARNING, "warn", "warning"},
    {LL_NORM, "normal", "(NRM)", LOG_NOTICE, "norm", "normal"},
    {LL_INFO, "info", "(INF)", LOG_INFO, "info", nullptr},
    {LL_DEBUG, "debug", "(DBG)", LOG_DEBUG, "debug", "dbg"},
    {LL_SECTION, "section", "(SCT)", LOG_DEBUG, "section", "sect"},
};
static constexpr level_row UNKNOWN_LEVEL = {0, "??", "( ? )", LOG_DEBUG, nullptr, nullptr};

static const level_row &level_of(int level) {
    for (const level_row &row : LEVELS)
        if (row.level == level)
            return row;
    return UNKNOWN_LEVEL;
}

const char *log_level_str(int level) {
    return level_of(level).name;
}

const char *get_level_tag(int level) {
    return level_of(level).tag;
}

int get_syslog_pri(int level) {
    return level_of(level).priority;
}

int match_log_level(const char *word, int *level) {
    for (const level_row &row : LEVELS)
        for (const char *name : {row.word, row.word2})
            if (name && strcasecmp(word, name) == 0) {
                *level = row.level;
                return 0;
            }
    return -1;
}

int read_level_env(const char *name, int fallback) {
    const char *text = getenv(name);
    if (!text)
        return fallback;
    int level = atoi(text);
    return level != 0 || strcmp(text, "0") == 0 ? level : fallback;
}

// --- set-up ---

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

void log_default(log_ctx *log, FILE *fp) {
    log->fp = fp;
    if (log == &g_log && !log->llst.sec_ll_set)
        memset(g_sec_ll, LL_SECTION, sizeof(g_sec_ll));
}

void log_mirror(log_ctx *log, FILE *fp) {
    log->mirror_fp = fp;
    if (fp)
        setvbuf(fp, nullptr, _IOLBF, 0);
}

FILE *log_mirror_fp(const log_ctx *log) {
    return log->mirror_fp;
}

FILE *log_fp(const log_ctx *log) {
    return log->fp;
}

void log_timefmt(log_ctx *log, uint32_t flags) {
    log->time_format = flags;
}

void log_set_pid(log_ctx *log, pid_t pid) {
    log->pid = pid;
}

pid_t log_get_pid(const log_ctx *log) {
    return log->pid;
}

void log_set_group(log_ctx *log, uint64_t tag) {
    log->group.num64 = tag;
}

uint64_t log_get_group(const log_ctx *log) {
    return log->group.num64;
}

lard_t log_set_lard(log_ctx *log, lard_t ring) {
    lard_t previous = log->lh;
    log->lh = ring;
    return previous;
}

void log_set_modules(log_ctx *log, int level) {
    memset(g_mod_ll, level, sizeof(g_mod_ll));
    log->llst.mod_ll_set = 1;
}

void log_set_sections(log_ctx *log, int level) {
    memset(g_sec_ll, level, sizeof(g_sec_ll));
    log->llst.sec_ll_set = 1;
}

void log_push_mlevels() {
    if (g_saved_ll.pushed)
        return;
    memcpy(g_saved_ll.level, g_mod_ll, sizeof(g_mod_ll));
    g_saved_ll.pushed = true;
}

void log_pop_mlevels() {
    if (!g_saved_ll.pushed)
        return;
    memcpy(g_mod_ll, g_saved_ll.level, sizeof(g_mod_ll));
    g_saved_ll.pushed = false;
}

void config_syslog(log_ctx *log, const char *ident, int option, int facility) {
    // openlog keeps the pointer, not the text.
    static char kept_ident[64];
    snprintf(kept_ident, sizeof(kept_ident), "%s", ident);
    log->syslg = {.enabled = true, .option = option, .facility = facility};
    openlog(kept_ident, option, facility);
}

void disable_syslog(log_ctx *log) {
    closelog();
    log->syslg.enabled = false;
}

void glog_enable_syslog(const char *ident) {
    config_syslog(&g_log, ident, LOG_PID | LOG_CONS, LOG_LOCAL0);
}

void glog_disable_syslog() {
    disable_syslog(&g_log);
}

// --- the steps of one record ---

void logbuf_reset() {
    buf().len = 0;
    buf().text[0] = '\0';
}

bool logbuf_empty() {
    return buf().len == 0;
}

static bool append(std::string_view text) {
    logbuf &b = buf();
    if (text.size() >= sizeof(b.text) - b.len)
        return false;
    memcpy(b.text + b.len, text.data(), text.size());
    b.len += text.size();
    b.text[b.len] = '\0';
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
    logbuf &b = buf();
    int n = mk_timestr(now, log->time_format, b.text + b.len, sizeof(b.text) - b.len);
    if (n > 0)
        b.len += static_cast<size_t>(n);
    if (n == TIMESTR_BUSY)
        return 0; // a signal's record, in the middle of another's time stamp, goes without
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
    logbuf &b = buf();
    size_t room = sizeof(b.text) - b.len;
    int n = vsnprintf(b.text + b.len, room, format, args);
    if (n > 0 && static_cast<size_t>(n) < room) {
        b.len += static_cast<size_t>(n);
        return 0;
    }
    perror("fprintf/vfprintf");
    if (n > 0) {
        // What is cut still ends its line, so that the next record starts one.
        b.len = sizeof(b.text) - 1;
        b.text[b.len - 1] = '\n';
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
    if (!lard_enabled(*log) || logbuf_empty())
        return;
    lard_write(log->lh, buf().text, buf().len);
    if (level < 0)
        lard_set_temp(log->lh, -level);
}

void log_record(log_ctx &log, int level, const loglevel_ctx &unit, const char *format, ...) {
    int saved_errno = errno;
    va_list args;
    logbuf_reset();
    if (lard_enabled(log)) {
        va_start(args, format);
        vprepare(&log, level, format, args);
        va_end(args);
        log_lard(&log, level);
    }
    if (log_passes(level, unit)) {
        if (logbuf_empty()) {
            va_start(args, format);
            vprepare(&log, level, format, args);
            va_end(args);
        }
        log_flush(&log, level);
    }
    errno = saved_errno;
}

void log_flush(log_ctx *log, int level) {
    const logbuf &b = buf();
    if (b.len == 0)
        return;
    if (!log->fp && (g_sigctx || !log_reopen_lost(log)))
        return;
    fwrite(b.text, 1, b.len, log->fp);
    log->total_out += b.len;
    if (log->mirror_fp && fileno(log->mirror_fp) != fileno(log->fp))
        fwrite(b.text, 1, b.len, log->mirror_fp);
    if (g_sigctx)
        return;
    if (level < 0 && log->syslg.enabled)
        syslog(get_syslog_pri(level) | log->syslg.facility, "%s", b.text);
    if (!log_is_standard(log->fp))
        log_rotate_if_due(log);
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
