// Levels and settings of a log: everything that is set or looked up, and writes nothing.
#include "lib/log.h"

#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <strings.h>
#include <syslog.h>

signed char g_mod_ll[LOG_MODULES];
signed char g_sec_ll[LOG_MODULES];

static struct {
    signed char level[LOG_MODULES];
    bool pushed;
} g_saved_ll;

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

// --- settings ---

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
