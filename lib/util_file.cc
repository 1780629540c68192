#include "lib/util.h"

#include "lib/log.h"
#include "lib/strops.h"
#include "lib/syswrap.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <string>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

LOG_UNIT(LOG_MOD_APP);

// --- files ---

// "DIR/NAME", without a second "/" when the directory ends with one; the length, as of snprintf.
static int join_path(const char *dir, const char *name, char *buf, size_t size) {
    return snprintf(buf, size, "%s%s%s", dir, lastchar(dir) == '/' ? "" : "/", name);
}

FILE *fopen_any(const char *name, const char *mode, size_t ndirs, const char *const *dirs, char *buf,
                size_t size) {
    for (size_t i = 0; i < ndirs && dirs[i]; i++) {
        const int n = join_path(dirs[i], name, buf, size);
        if (n < 0 || static_cast<size_t>(n) >= size) {
            errno = E2BIG;
            return nullptr;
        }
        LOG_FN(LL_DEBUG, "trying to open [%s]\n", buf);
        FILE *fp = fopen(buf, mode);
        if (fp) {
            LOG_FN(LL_DEBUG, "opened [%s]\n", buf);
            return fp;
        }
    }
    if (size > 0)
        buf[0] = '\0';
    return nullptr;
}

int open_regular(const char *path) {
    fd_guard file(open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat st;
    if (file.fd < 0 || fstat(file.fd, &st) != 0)
        return -1;
    if (S_ISREG(st.st_mode))
        return file.release();
    errno = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
    return -1;
}

FILE *fopen_regular(const char *path) {
    fd_guard file(open_regular(path));
    FILE *fp = file.fd < 0 ? nullptr : fdopen(file.fd, "r");
    if (fp)
        file.release();
    return fp;
}

ssize_t read_file_buf(const char *path, void *buf, size_t size) {
    const fd_guard file(W_open(__func__, path, O_RDONLY, 0));
    if (file.fd < 0)
        return -1;
    struct stat st;
    if (fstat(file.fd, &st) != 0) {
        LOG_FN(LL_ERROR, "fstat(fd%d,..) ERROR(%d): %s\n", file.fd, errno, strerror(errno));
        return -1;
    }
    const auto whole = static_cast<size_t>(st.st_size);
    if (whole > size) {
        LOG_FN(LL_ERROR, "file size (%ld bytes) is too big for buffer (%ld bytes)\n",
               static_cast<long>(whole), static_cast<long>(size));
        return -1;
    }
    const ssize_t n = W_read_f(__func__, file.fd, buf, whole, 1);
    if (n >= 0 && static_cast<size_t>(n) < whole)
        LOG_FN(LL_ERROR, "[%s] under-read: %ld/%ld\n", path, static_cast<long>(n), static_cast<long>(whole));
    return n;
}

int make_absolute(char *path, size_t size, const char *dir) {
    if (path[0] == '/' || dir[0] == '\0')
        return 0;
    const std::string relative = path;
    const int n = join_path(dir, relative.c_str(), path, size);
    if (n >= 0 && static_cast<size_t>(n) < size)
        return 0;
    LOG_FN(LL_ERROR, "[%s/%s] is too long (%d bytes), max=%zu bytes\n", dir, relative.c_str(), n, size - 1);
    memcpy(path, relative.c_str(), relative.size() + 1);
    return -1;
}

static int mk_one_dir(const char *dir) {
    if (mkdir(dir, 0755) == 0)
        return 0;
    struct stat st;
    if (errno == EEXIST && stat(dir, &st) == 0) {
        if (S_ISDIR(st.st_mode))
            return 0;
        errno = ENOTDIR;
    }
    return -1;
}

int mk_fpath_dirs(const char *path) {
    const char *slash = strrchr(path, '/');
    if (!slash || slash == path)
        return 0;
    std::string dirs(path, slash);
    LOG_FN(LL_DEBUG, "dirs=%s\n", dirs.c_str());
    for (size_t end = 0; end != std::string::npos;) {
        end = dirs.find('/', end + 1);
        const std::string dir = dirs.substr(0, end);
        if (mk_one_dir(dir.c_str()) != 0) {
            LOG_FN(LL_ERROR, "mkdir(%s) ERROR(%d): %s\n", dir.c_str(), errno, strerror(errno));
            return -1;
        }
    }
    return 0;
}

int dir_check(const char *dir) {
    if (strcmp(dir, "/") == 0)
        return 0;
    DIR *stream = opendir(dir);
    if (!stream) {
        const int err = errno;
        LOG_FN(LL_ERROR, "opendir('%s', ...) ERROR(%d): %s\n", dir, err, strerror(err));
        return err;
    }
    closedir(stream);
    if (access(dir, W_OK | X_OK) != 0) {
        const int err = errno;
        LOG_FN(LL_ERROR, "access('%s', ...) ERROR(%d): %s\n", dir, err, strerror(err));
        return err;
    }
    return 0;
}

off_t get_file_size(const char *path) {
    struct stat st;
    if (stat(path, &st) == 0)
        return st.st_size;
    LOG_FN(LL_ERROR, "FAILED to retrieve mode for [%s]: %s\n", path, strerror(errno));
    return -1;
}

time_t get_file_mtime(const char *path, int quiet) {
    struct stat st;
    if (stat(path, &st) == 0)
        return st.st_mtime;
    if (quiet != 1)
        LOG_FN(LL_ERROR, "FAILED to retrieve mtime for [%s]: %s\n", path, strerror(errno));
    return -1;
}

bool chk_file_updated(const char *path, int64_t *mtime) {
    struct stat st;
    if (stat(path, &st) != 0)
        return false;
    const bool is_later = st.st_mtime > *mtime;
    *mtime = st.st_mtime;
    return is_later;
}

file_stamp stamp_of(const struct stat &st) {
    return {st.st_mtim.tv_sec, st.st_mtim.tv_nsec, st.st_size};
}

// A time stamp is as fine as the system's tick, or a second where a file system keeps no fractions.
static bool is_settled(const file_stamp &stamp) {
    static constexpr int64_t TICK_NS = 50'000'000;
    static constexpr int64_t SEC_NS = 1'000'000'000;
    timespec now;
    if (clock_gettime(CLOCK_REALTIME, &now) != 0 || now.tv_sec - stamp.sec > 2 || stamp.sec > now.tv_sec)
        return true;
    int64_t age_ns = (now.tv_sec - stamp.sec) * SEC_NS + now.tv_nsec - stamp.nsec;
    return age_ns < 0 || age_ns >= (stamp.nsec == 0 ? SEC_NS : TICK_NS);
}

bool chk_file_stamp(const char *path, file_stamp *stamp, bool *is_unsettled) {
    struct stat st;
    *is_unsettled = false;
    if (stat(path, &st) != 0)
        return false;
    const file_stamp seen = stamp_of(st);
    const bool is_later = seen.sec != stamp->sec ? seen.sec > stamp->sec : seen.nsec > stamp->nsec;
    const bool is_same_time = seen.sec == stamp->sec && seen.nsec == stamp->nsec;
    const bool is_changed = is_later || (is_same_time && seen.size != stamp->size);
    if (is_changed && !is_settled(seen)) {
        *is_unsettled = true;
        return false;
    }
    *stamp = seen;
    return is_changed;
}

int get_stat_mode(int fd, mode_t *mode) {
    struct stat st;
    if (fstat(fd, &st) != 0) {
        LOG_FN(LL_ERROR, "FAILED to retrieve mode for fd=%d: %s\n", fd, strerror(errno));
        return -1;
    }
    *mode = st.st_mode;
    return 0;
}

const char *pick_first_file(const char *const *paths, size_t n) {
    for (size_t i = 0; i < n; i++)
        if (paths[i] && access(paths[i], F_OK) == 0)
            return paths[i];
    return nullptr;
}

int close_pipe(int fds[2]) {
    for (int i = 0; i < 2; i++)
        if (fds[i] >= 0 && W_close(__func__, fds[i]) != 0)
            return -1;
    return 0;
}

// --- texts ---

int tag_index(const char *word, const char *const *list) {
    for (int i = 0; list[i]; i++)
        if (strcasecmp(word, list[i]) == 0)
            return i;
    return -1;
}

int replace_file(const char *path, std::string_view text) {
    const std::string tmp = std::string(path) + ".tmp";
    fd_guard file(open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (file.fd < 0)
        return errno;
    errno = ENOSPC; // of a short write
    bool is_whole = fchmod(file.fd, 0644) == 0 &&
                    write(file.fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    is_whole = close(file.release()) == 0 && is_whole;
    if (is_whole && rename(tmp.c_str(), path) == 0)
        return 0;
    int err = errno;
    unlink(tmp.c_str());
    return err;
}

size_t cpy_till(const char *src, const char *stop, char *dst, size_t size) {
    if (size == 0)
        return 0;
    copy_cut(dst, size, {src, strcspn(src, stop)});
    return strlen(dst);
}

char lastchar(const char *s) {
    return *s ? s[strlen(s) - 1] : '\0';
}

const char *get_base(const char *path) {
    return *path == '/' ? path + 1 : path;
}

char *replace_dir(const char *path, const char *dir, char *buf, size_t size) {
    const char *slash = strrchr(path, '/');
    const int n = join_path(dir, slash ? slash + 1 : path, buf, size);
    if (n < 0 || static_cast<size_t>(n) >= size) {
        LOG_FN(LL_ERROR, "%d characters required, %ld afforded\n", n, static_cast<long>(size) - 1);
        return nullptr;
    }
    return buf;
}
