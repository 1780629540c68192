#include "lib/util.h"

#include "lib/check.h"
#include "lib/log.h"
#include "lib/sigflag.h"
#include "lib/strops.h"
#include "lib/syswrap.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

LOG_UNIT(LOG_MOD_APP);

// --- process ---

void occupy_standard_descriptors() {
    int fd = 0;
    while (fd >= 0 && fd <= STDERR_FILENO)
        fd = open("/dev/null", O_RDWR);
    if (fd >= 0)
        close(fd);
}

// Puts each of the standard descriptors first..last on /dev/null.
static int put_on_null(const char *caller, int first, int last) {
    const int fd = W_open(caller, "/dev/null", O_RDWR, 0);
    int rc = fd < 0 ? -1 : 0;
    for (int target = first; rc == 0 && target <= last; target++)
        rc = W_dup2(caller, fd, target) < 0 ? -1 : 0;
    // A standard descriptor that was free when this one was opened is now taken, and stays so.
    if (fd > STDERR_FILENO)
        W_close(caller, fd);
    return rc;
}

static int settle_descriptors(const char *caller) {
    if (put_on_null(caller, STDIN_FILENO, STDOUT_FILENO) != 0)
        return -1;
    const bool is_free = fcntl(STDERR_FILENO, F_GETFD) < 0;
    return is_free ? put_on_null(caller, STDERR_FILENO, STDERR_FILENO) : 0;
}

// 0 in the child, -1 on failure; the parent ends without running what the child will run at its exit.
static int fork_and_leave(const char *caller) {
    const pid_t pid = W_fork(caller);
    if (pid > 0)
        _exit(0);
    return pid < 0 ? -1 : 0;
}

int daemonize() {
    fflush(nullptr);
    if (fork_and_leave(__func__) != 0)
        return -1;
    if (setsid() < 0) {
        LOG_FN(LL_ERROR, "failed at %s, ERROR(%d): %s\n", "setsid", errno, strerror(errno));
        return -1;
    }
    if (chdir("/") != 0) {
        LOG_FN(LL_ERROR, "failed at %s, ERROR(%d): %s\n", "chdir", errno, strerror(errno));
        return -1;
    }
    umask(0);
    FILE *stream = log_fp(&g_log);
    if (stream && fileno(stream) >= STDIN_FILENO && fileno(stream) <= STDERR_FILENO)
        log_default(&g_log, stderr);
    if (settle_descriptors(__func__) != 0)
        return -1;
    return fork_and_leave(__func__);
}

int close_stderr() {
    return put_on_null(__func__, STDERR_FILENO, STDERR_FILENO);
}

int redirect_output(const char *path) {
    const int fd = W_open(__func__, path, O_WRONLY, 0644);
    if (fd < 0)
        return -1;
    int rc = 0;
    if (W_dup2(__func__, fd, STDOUT_FILENO) < 0)
        rc = -2;
    else if (W_dup2(__func__, fd, STDERR_FILENO) < 0)
        rc = -3;
    const int saved = errno;
    if (fd > STDERR_FILENO)
        W_close(__func__, fd);
    errno = saved;
    return rc;
}

int run_as_user(const char *name) {
    errno = 0;
    const passwd *user = getpwnam(name);
    if (!user) {
        if (errno == 0)
            LOG_FN(LL_ERROR, "getpwnam: user %s not found\n", name);
        else
            LOG_FN(LL_ERROR, "getpwnam(%s): %s\n", name, strerror(errno));
        return -1;
    }
    const uid_t uid = user->pw_uid;
    const gid_t gid = user->pw_gid;
    // Without the right to set groups the process keeps its own, as it would keep its user.
    if (initgroups(name, gid) != 0 && errno != EPERM) {
        LOG_FN(LL_ERROR, "initgroups(%s, %ld) ERROR(%d): %s\n", name, static_cast<long>(gid), errno,
               strerror(errno));
        return -1;
    }
    return run_as_user_id(uid, gid);
}

int run_as_user_id(uid_t uid, gid_t gid) {
    return setgid(gid) == 0 && setuid(uid) == 0 ? 0 : -1;
}

int set_nice(int inc) {
    // The new nice value may well be -1; only errno tells a failure.
    errno = 0;
    if (nice(inc) == -1 && errno != 0) {
        LOG(LL_ERROR, "nice(%d) ERROR(%d): %s\n", inc, errno, strerror(errno));
        return -1;
    }
    LOG(LL_INFO, "nice value adjusted by %d.\n", inc);
    return 0;
}

int pin2cpu(int cpu) {
    cpu_set_t mask;
    CPU_ZERO(&mask);
    if (cpu >= 0 && cpu < CPU_SETSIZE)
        CPU_SET(static_cast<size_t>(cpu), &mask);
    return sched_setaffinity(getpid(), sizeof(mask), &mask);
}

int get_core_count() {
    static const char COMMAND[] = "grep -ci '^processor' /proc/cpuinfo";
    if (access("/proc/cpuinfo", R_OK) != 0)
        return -1;
    FILE *output = popen(COMMAND, "r");
    if (!output) {
        LOG_FN(LL_ERROR, "popen(%s) ERROR(%d): %s\n", COMMAND, errno, strerror(errno));
        return -1;
    }
    char buf[15] = "";
    if (!fgets(buf, sizeof(buf), output))
        buf[0] = '\0';
    pclose(output);
    chomp(buf);
    const long count = strtol(buf, nullptr, 10);
    if (count < 0 || count > INT_MAX || (count == 0 && strcmp(buf, "0") != 0)) {
        fprintf(stderr, "%s: buf=%s\n", __func__, buf);
        return -1;
    }
    return static_cast<int>(count);
}

// --- signals ---

static int install(int signo, sig_handler handler) {
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_mask = sigflag_set(); // no handler's record interrupts another's
    return sigaction(signo, &action, nullptr);
}

int handle_quit_signals(sig_handler handler) {
    for (int signo : {SIGTERM, SIGQUIT, SIGINT})
        if (install(signo, handler) != 0) {
            LOG_FN(LL_ERROR, "sigaction (quit) ERROR(%d): %s\n", errno, strerror(errno));
            return -1;
        }
    return 0;
}

int handle_sig(int signo, sig_handler handler) {
    if (install(signo, handler) != 0) {
        LOG_FN(LL_ERROR, "sigaction (signo=%d) ERROR(%d): %s\n", signo, errno, strerror(errno));
        return -1;
    }
    return 0;
}

int ignore_sigpipe() {
    if (install(SIGPIPE, SIG_IGN) != 0) {
        LOG_FN(LL_ERROR, "sigaction (SIGPIPE) ERROR(%d): %s\n", errno, strerror(errno));
        return -1;
    }
    return 0;
}

// The span of a handler: the log keeps to what may be done there, and the interrupted code finds its errno.
struct handler_span {
    const int saved_errno = errno;
    handler_span() { g_sigctx = 1; }
    handler_span(const handler_span &) = delete;
    handler_span &operator=(const handler_span &) = delete;
    ~handler_span() {
        errno = saved_errno;
        g_sigctx = 0;
    }
};

void on_sighup(int signo) {
    handler_span span;
    g_hup = 1;
    LOG(LL_NORM, "SIGHUP(%d)\n", signo);
}

void on_sigusr1(int signo) {
    handler_span span;
    g_usr1 = 1;
    LOG(LL_NORM, "SIGUSR1(%d)\n", signo);
}

void on_tdbg(int signo) {
    handler_span span;
    g_tdbg = 1;
    LOG(LL_NORM, "T-DBG SIG(%d)\n", signo);
}

void on_sigquit(int signo) {
    handler_span span;
    g_quit = 1;
    if (signo == SIGTERM || signo == SIGINT)
        g_goodbye = 1;
    LOG(LL_NORM, "QUIT-SIG(%d)\n", signo);
    // No reload and no child's end is to interfere with the shutdown.
    for (int other : {SIGCHLD, SIGHUP, SIGUSR1})
        install(other, SIG_IGN);
}

// --- pid file, single instance ---

char *mk_pidfile_name(const char *dir, const char *app, const char *tag, long num, char *buf, size_t size) {
    if (access(dir, W_OK) != 0) {
        LOG_FN(LL_ERROR, "directory [%s] is not writable: ERROR(%d): %s\n", dir, errno, strerror(errno));
        return nullptr;
    }
    int n = 0;
    if (!tag || !*tag)
        n = snprintf(buf, size, "%s/%s-%ld.pid", dir, app, num);
    else if (num < 0)
        n = snprintf(buf, size, "%s/%s-%s.pid", dir, app, tag);
    else
        n = snprintf(buf, size, "%s/%s-%s%ld.pid", dir, app, tag, num);
    if (n < 0 || static_cast<size_t>(n) >= size) {
        LOG_FN(LL_ERROR, "%d bytes needed for filename, only %ld available.\n", n + 1,
               static_cast<long>(size));
        return nullptr;
    }
    return buf;
}

int write_lock(int fd) {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return fcntl(fd, F_SETLK, &lock);
}

static int lock_pidfile(const char *caller, int fd, const char *path, int flags) {
    const int rc = write_lock(fd);
    if (rc == 0)
        return 0;
    if (errno != EACCES && errno != EAGAIN)
        LOG(LL_ERROR, "fcntl write-lock ERROR(%d): %s\n", errno, strerror(errno));
    else if (flags & PIDF_QUIET)
        LOG(LL_ERROR, "Another instance is already running\n");
    else
        LOG(LL_ERROR, "%s: file [%s] is locked (another instance of daemon must be running)\n", caller, path);
    return rc;
}

static int write_pid(const char *caller, int fd, pid_t pid) {
    char text[21];
    const int n = snprintf(text, sizeof(text), "%ld", static_cast<long>(pid));
    if (n <= 0 || static_cast<size_t>(n) >= sizeof(text)) {
        LOG(LL_ERROR, "%s: ERROR(%d) or not enough space for pid\n", caller, errno);
        return -1;
    }
    return W_write_f(caller, fd, text, static_cast<size_t>(n), 1) == n ? 0 : -1;
}

static int store_inode(const char *caller, int fd, ino_t *ino) {
    struct stat st;
    if (fstat(fd, &st) != 0) {
        LOG(LL_ERROR, "%s: fstat(fd%d,..) ERROR(%d): %s\n", caller, fd, errno, strerror(errno));
        return -1;
    }
    *ino = st.st_ino;
    return 0;
}

int create_pidfile_extra(const char *path, pid_t pid, ino_t *ino, int flags) {
    CHECK(path && pid > 0);
    if (!*path) {
        LOG_FN(LL_ERROR, "no path specified\n");
        return -1;
    }
    const int fd = W_open(__func__, path, O_CREAT | O_WRONLY | O_NOCTTY, 0644);
    int rc = fd < 0 ? -1 : lock_pidfile(__func__, fd, path, flags);
    if (rc == 0)
        rc = W_ftruncate(__func__, fd, 0);
    if (rc == 0)
        rc = write_pid(__func__, fd, pid);
    if (rc == 0 && ino)
        rc = store_inode(__func__, fd, ino);
    if (fd >= 0)
        W_close(__func__, fd);
    if (flags & PIDF_QUIET)
        return rc;
    if (rc != 0)
        LOG_FN(LL_ERROR, "failed to create pidfile [%s] with pid=%ld.\n", path, static_cast<long>(pid));
    else
        LOG(LL_INFO, "Created pidfile [%s] with pid=%ld.\n", path, static_cast<long>(pid));
    return rc;
}

int mensure(const char *path, ino_t *ino, time_t *last_check) {
    static constexpr time_t INTERVAL = 10;
    const time_t now = time(nullptr);
    // A check that lies ahead was made before the clock was set back.
    if (now >= *last_check && now - *last_check < INTERVAL)
        return 0;
    *last_check = now;
    if (*ino == 0)
        return create_pidfile_extra(path, getpid(), ino, PIDF_QUIET);
    struct stat st;
    if (stat(path, &st) != 0) {
        LOG(LL_ERROR, "instance check ERROR(%d): %s\n", errno, strerror(errno));
        return errno;
    }
    if (st.st_ino != *ino) {
        LOG(LL_ERROR, "instance verification failed: %ld/%ld\n", static_cast<long>(*ino),
            static_cast<long>(st.st_ino));
        return -1;
    }
    return 0;
}

static const char *effective_home(const char *caller) {
    const long euid = static_cast<long>(geteuid());
    errno = 0;
    const passwd *user = getpwuid(geteuid());
    if (!user) {
        LOG(LL_ERROR, "getpwuid(%ld) ERROR(%d): %s\n", euid, errno, strerror(errno));
        return nullptr;
    }
    LOG(LL_DEBUG, "%s: EUID(%ld) home: %s\n", caller, euid, user->pw_dir);
    return user->pw_dir;
}

int goto_runtime_home(const char *dir, const char *alt) {
    if (dir) {
        if (chdir(dir) == 0)
            return 0;
        if (errno != EACCES) {
            LOG(LL_ERROR, "chdir(%s) (param) ERROR(%d): %s\n", dir, errno, strerror(errno));
            return -1;
        }
    }
    const char *home = alt ? alt : effective_home(__func__);
    if (!home)
        return -1;
    if (chdir(home) != 0) {
        LOG(LL_ERROR, "chdir(%s) (alt) ERROR(%d): %s\n", home, errno, strerror(errno));
        return -1;
    }
    return 0;
}

// --- limits ---

static int ensure_dumpable(const char *caller) {
    if (prctl(PR_GET_DUMPABLE) == 1)
        return 0;
    LOG(LL_INFO, "%s: process is currently NOT core-dumpable; will enforce\n", caller);
    if (prctl(PR_SET_DUMPABLE, 1) == 0)
        return 0;
    LOG(LL_ERROR, "%s: prctl(PR_SET_DUMPABLE, 1) ERROR(%d): %s\n", caller, errno, strerror(errno));
    return -1;
}

int set_unlimited_core(rlimit *old) {
    if (ensure_dumpable(__func__) != 0)
        return -1;
    rlimit limit{};
    if (getrlimit(RLIMIT_CORE, &limit) != 0) {
        LOG_FN(LL_ERROR, "getrlimit ERROR(%d): %s\n", errno, strerror(errno));
        return -1;
    }
    if (old)
        *old = limit;
    if (limit.rlim_cur == RLIM_INFINITY) {
        LOG_FN(LL_DEBUG, "already set\n");
        return 0;
    }
    LOG_FN(LL_DEBUG, "current=%ld/%ld\n", static_cast<long>(limit.rlim_cur),
           static_cast<long>(limit.rlim_max));
    limit.rlim_cur = limit.rlim_max = RLIM_INFINITY;
    if (setrlimit(RLIMIT_CORE, &limit) != 0) {
        LOG_FN(LL_ERROR, "setrlimit ERROR(%d): %s\n", errno, strerror(errno));
        return -1;
    }
    LOG_FN(LL_DEBUG, "OK\n");
    return 0;
}

int raise_fd_limit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        LOG_FN(LL_ERROR, "getrlimit ERROR(%d): %s\n", errno, strerror(errno));
        return -1;
    }
    const rlim_t soft = limit.rlim_cur;
    if (soft >= limit.rlim_max)
        return 0;
    limit.rlim_cur = limit.rlim_max;
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
        LOG_FN(LL_ERROR, "setrlimit ERROR(%d): %s\n", errno, strerror(errno));
        return -1;
    }
    LOG_FN(LL_INFO, "descriptor limit raised from %lu to %lu\n", static_cast<unsigned long>(soft),
           static_cast<unsigned long>(limit.rlim_cur));
    return 0;
}

int set_limit(int resource, unsigned long bytes, const char *label) {
    rlimit limit{};
    const auto which = static_cast<__rlimit_resource_t>(resource);
    if (getrlimit(which, &limit) != 0) {
        LOG_FN(LL_ERROR, "getrlimit(%d) ERROR(%d): %s\n", resource, errno, strerror(errno));
        return -1;
    }
    limit.rlim_cur = bytes;
    if (setrlimit(which, &limit) != 0) {
        LOG_FN(LL_ERROR, "setrlimit(%d, %lu) ERROR(%d): %s\n", resource, bytes, errno, strerror(errno));
        return -1;
    }
    LOG(LL_INFO, "%s(%s/%d): %lu bytes\n", __func__, label, resource, bytes);
    return 0;
}

int set_vmem_limit(unsigned long bytes) {
    return set_limit(RLIMIT_AS, bytes, "vmem");
}

int set_rss_limit(unsigned long bytes) {
    return set_limit(RLIMIT_AS, bytes, "rss");
}

int set_mem_limits(unsigned long rss, unsigned long vmem) {
    if (rss != 0)
        return set_rss_limit(rss);
    return vmem != 0 ? set_vmem_limit(vmem) : 0;
}

void reset_getopt_state() {
    optind = 0;
}
