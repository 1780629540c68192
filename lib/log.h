// The log core: the one channel through which the daemon reports.
//
// A record is formatted into one shared line buffer, filtered by the level of the reporting unit's module,
// and written to the log's stream; it may also go to a mirror stream, to syslog (negative levels) and to the
// shared-memory ring, which gets every record whatever the filter says. The filter is asked before anything
// is formatted. The log's own failures go to standard error. Single-threaded, and one buffer for all: a
// signal handler may only log where it cannot interrupt a record (see lib/sigflag.h). errno survives every
// call that writes a record.
#pragma once

#include "lib/lard.h"
#include "lib/tag.h"
#include "lib/timeop.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <sys/types.h>

// Lower is more severe; a record passes when its level is at or below its module's.
enum log_level : int {
    LL_PANIC = -4,
    LL_ERROR = -3,
    LL_CRIT = -2,
    LL_WARN = -1,
    LL_NORM = 0,
    LL_INFO = 1,
    LL_DEBUG = 2,
    LL_SECTION = 64,
};

// Modules with a level of their own; every other unit logs under LOG_MOD_APP.
enum log_module : int { LOG_MOD_APP = 0, LOG_MOD_SYSWRAP = 2, LOG_MOD_FDIO = 4 };

inline constexpr size_t LOG_MODULES = 128;
inline constexpr size_t LOG_PATH_SIZE = 128; // with the terminating zero
inline constexpr size_t LOG_ROTA_SLOTS = 128;
inline constexpr size_t LOG_BUF_SIZE = 2048; // one record, with the terminating zero
inline constexpr int LOG_DEFAULT_FILES = 16; // rotated files kept when nothing sensible is configured

enum : unsigned { LOG_OPEN_APPEND = 1 }; // log_open_ex: do not move an existing file aside

struct rotation_ctx {
    time_t tm[LOG_ROTA_SLOTS]; // stamps of the rotated files kept, by slot
    ssize_t next_idx;          // next slot to use
    size_t max_idx;            // slots in use: how many rotated files are kept
    size_t max_total;          // bytes after which the file is rotated, 0 = never by size
    time_t max_log_tm;         // next end-of-day boundary, 0 = no daily rotation
};

struct syslog_cfg {
    bool enabled;
    int option; // as for openlog
    int facility;
};

struct ll_status {
    unsigned mod_ll_set : 1; // module levels were set explicitly
    unsigned sec_ll_set : 1; // section levels were set explicitly
};

struct log_ctx {
    char name[LOG_PATH_SIZE]; // file path or pipe command; empty when writing to standard error
    unsigned is_pipe : 1;
    uint32_t time_format; // TF_ flags
    FILE *fp;             // owned unless a standard stream
    FILE *mirror_fp;      // second stream, not owned; null = none
    size_t total_out;     // bytes in the current file
    ll_status llst;
    rotation_ctx rota;
    pid_t pid;     // printed in each record; 0 = none
    n64_tag group; // printed in each record; 0 = none
    lard_t lh;     // log ring, owned once attached; null = none
    syslog_cfg syslg;
    bool is_lost;    // a rotation could not reopen the file; records go to the other places until it is back
    time_t retry_tm; // when reopening a lost file was last tried
};

inline constinit log_ctx g_log{};        // the application log
inline constinit log_ctx g_access_log{}; // of the family's servers
inline constinit log_ctx g_stats_log{};

// Where the records of one source unit are filtered: a level of a module, or of a section when `sec` >= 0.
struct loglevel_ctx {
    int mod = 0;
    int sec = -1;
    int sec_sp = -1;
    int sec_stack[8]{};
};

extern signed char g_mod_ll[LOG_MODULES];
extern signed char g_sec_ll[LOG_MODULES];

// Every unit that logs names its module once, after its includes. Being constant, the filter is one
// comparison.
#define LOG_UNIT(module)                                                                                     \
    [[maybe_unused]] static constexpr loglevel_ctx g_llctx {                                                 \
        .mod = (module)                                                                                      \
    }

inline bool lard_enabled(const log_ctx *log) {
    return log->lh != nullptr;
}

// Whether a record of this level gets past the unit's filter.
inline bool log_passes(int level, const loglevel_ctx &unit) {
    return unit.sec >= 0 ? g_sec_ll[unit.sec] <= g_mod_ll[unit.mod] : level <= g_mod_ll[unit.mod];
}

// Whether formatting a record of this level is of any use.
inline bool log_wanted(const log_ctx &log, int level, const loglevel_ctx &unit) {
    return log_passes(level, unit) || lard_enabled(&log);
}

// Writes one record: to the ring when one is attached, to the stream when the filter lets it pass. Called
// through the macros below, which spare the call and its arguments when nobody wants the record.
void log_record(log_ctx *log, int level, const loglevel_ctx &unit, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

#define LOG_TO(log, level, ...)                                                                              \
    do {                                                                                                     \
        if (log_wanted((log), (level), g_llctx))                                                             \
            log_record(&(log), (level), g_llctx, __VA_ARGS__);                                               \
    } while (0)

// A record of the application log, the format as it stands.
#define LOG(level, ...) LOG_TO(g_log, level, __VA_ARGS__)
// A record that begins with the reporting function's name, as nearly all do.
#define LOG_FN(level, format, ...) LOG_TO(g_log, level, "%s: " format, __func__ __VA_OPT__(, ) __VA_ARGS__)

// --- set-up ---

// Keeps the application tag (at most 127 bytes) and makes failed checks report to the log. Must come before
// any open.
void glog_init(const char *app_tag);
const char *glog_app_tag();

// Opens a log file, made with permissions 0644 (null path: standard error); an existing non-empty file is
// first moved aside to "PATH.MTIME" (the next free second) unless `flags` has LOG_OPEN_APPEND. 0 or -1,
// printed on standard error.
int log_open_ex(log_ctx *log, const char *path, unsigned flags);
// Opens a pipe to a command. 0 or -1.
int log_popen(log_ctx *log, const char *command);
// Opens log->is_pipe ? command : file at `path`, null = standard error. 0 or -1.
int do_open(log_ctx *log, const char *path);
// Renames a non-empty regular file to "PATH.MTIME". 0, -1, the rename's result, or 7 when the name would
// be longer than 127 bytes.
int move_if_present(const char *path);
// Makes `fp` the stream without opening anything.
void log_default(log_ctx *log, FILE *fp);
// Sets the mirror stream (not owned) and makes it line-buffered.
void log_mirror(log_ctx *log, FILE *fp);
FILE *log_mirror_fp(const log_ctx *log);
FILE *log_fp(const log_ctx *log);
inline bool log_is_standard(const FILE *fp) {
    return fp == stdout || fp == stderr;
}

// Rotation: size in bytes (0 = none), rotated files kept (1..127, anything else means 16), and a time whose
// day's end is the first daily rotation (below 1 = none).
void log_set_rota(log_ctx *log, size_t max_total, int max_files, time_t eod);
void log_set_eod(log_ctx *log, time_t t);
size_t log_rota_maxfiles(const log_ctx *log);
size_t log_rota_maxsize(const log_ctx *log);
time_t log_rota_eod(const log_ctx *log);
// Rotates now: the file becomes "NAME.SECONDS" and a new one is opened. 0 or -1; messages on standard error.
int log_rotate(log_ctx *log);
// Rotates when the size or the end of the day asks for it.
void log_rotate_if_due(log_ctx *log);
// Opens a lost log file anew, at most once a second. True when there is a stream.
bool log_reopen_lost(log_ctx *log);

void log_timefmt(log_ctx *log, uint32_t flags);
void log_set_pid(log_ctx *log, pid_t pid);
pid_t log_get_pid(const log_ctx *log);
void log_set_group(log_ctx *log, uint64_t tag);
uint64_t log_get_group(const log_ctx *log);
// Attaches a ring (the log owns it from then on) and returns the previous one.
lard_t log_set_lard(log_ctx *log, lard_t ring);

// Levels of all modules or of all sections.
void log_set_modules(log_ctx *log, int level);
void log_set_sections(log_ctx *log, int level);
// Saves the module levels (a second push is ignored) and restores them.
void log_push_mlevels();
void log_pop_mlevels();

void config_syslog(log_ctx *log, const char *ident, int option, int facility);
void disable_syslog(log_ctx *log);
void glog_enable_syslog(const char *ident);
void glog_disable_syslog();

// Closes the stream unless it is a standard one, closes syslog, destroys an attached ring. A closed log never
// opens itself again. The exit status of a log command is its own business.
void log_close(log_ctx *log);

// Records of one level, LL_NORM or less severe (syslog gets none of them), are gathered from here on and
// written together: before the next record of another level, when many have come together, and at the end of
// the gathering. For work that tells thousands of them in one pass.
void log_gather(log_ctx *log, int level);
void log_gather_end();

// --- levels by name ---

const char *log_level_str(int level);
const char *get_level_tag(int level);
int get_syslog_pri(int level);
// 0 and the level, or -1 with `level` untouched.
int match_log_level(const char *word, int *level);
// A level from the environment variable `name`; `fallback` when it is unset or no number.
int read_level_env(const char *name, int fallback);

// --- the steps of one record ---

void logbuf_reset();
bool logbuf_empty();
// Formats into the shared buffer; 0, or -1 when a piece does not fit (what fits stays and is written).
int logbuf_prepare(const log_ctx *log, int level, const char *format, ...)
    __attribute__((format(printf, 3, 4)));
// Appends the buffer to the ring.
void log_lard(log_ctx *log, int level);
// Writes the buffer to the stream, the mirror and syslog, and rotates when it is due.
void log_flush(log_ctx *log, int level);

// --- back-traces and internal failures ---

// One line per frame, "#%d: %s\n", as many as fit; 0 or -1.
int btrace_to_buf(char *buf, size_t size);
// The formatted text, then the back-trace; 0 or -1.
int snprintf_btrace(char *buf, size_t size, const char *format, ...) __attribute__((format(printf, 3, 4)));
// Writes "ASSERT at:" or "Aborting at:" with a back-trace at level panic and flushes the log.
void log_btrace(const char *heading);
// Logs "Aborting at:" with a back-trace, flushes and aborts.
[[noreturn]] void log_abort();
