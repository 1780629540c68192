// The streams of a log: opening, rotation, closing.
#include "lib/check.h"
#include "lib/log.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

LOG_UNIT(LOG_MOD_APP);

static constexpr size_t ROTA_NAME_SIZE = 160; // of a rotated file, with the terminating zero

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

static FILE *open_stream(const log_ctx *log, const char *path) {
    FILE *fp = log->is_pipe ? popen(path, "w") : fopen(path, "a+");
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
    static time_t last_try;
    time_t now = time(nullptr);
    if (log->name[0] == '\0' || log->is_pipe || now == last_try)
        return false;
    last_try = now;
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
    if (!fp || log_is_standard(fp))
        return;
    log->fp = nullptr;
    int rc = log->is_pipe ? pclose(fp) : fclose(fp);
    bool is_reaped = log->is_pipe && rc == -1 && errno == ECHILD;
    if (rc != 0 && !is_reaped)
        fprintf(stderr, "%s: %s error(%d) for the application log: %s\n", __func__,
                log->is_pipe ? "pclose" : "fclose", errno, strerror(errno));
    if (log->syslg.enabled)
        disable_syslog(log);
    lard_destroy(log_set_lard(log, nullptr));
}
