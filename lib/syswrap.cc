#include "lib/syswrap.h"

#include "lib/log.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/sendfile.h>
#include <unistd.h>

LOG_UNIT(LOG_MOD_SYSWRAP);

// The tail of every failure record; log_record leaves errno as the call set it.
#define FAILURE(format, ...)                                                                                 \
    LOG(LL_ERROR, "%s: " format " ERROR(%d): %s\n", caller, __VA_ARGS__, errno, strerror(errno))

bool is_eagain(int err) {
    return err == EAGAIN;
}

bool no_fault(int err, int flags) {
    return flags == 0 && (err == EAGAIN || err == EPIPE || err == EINTR || err == ECONNRESET);
}

int W_close(const char *caller, int fd) {
    int rc = close(fd);
    if (rc != 0)
        FAILURE("close(fd%d)", fd);
    else
        LOG(LL_DEBUG, "%s: CLOSED(fd%d)\n", caller, fd);
    return rc;
}

void *W_calloc(const char *caller, size_t count, size_t size) {
    void *ptr = calloc(count, size);
    if (!ptr)
        FAILURE("calloc(%ld, %ld)", static_cast<long>(count), static_cast<long>(size));
    return ptr;
}

void *W_realloc(const char *caller, void *ptr, size_t size) {
    // The record names the block as it was; the number is taken before the call may free it.
    const auto old = reinterpret_cast<uintptr_t>(ptr);
    void *out = realloc(ptr, size);
    if (!out)
        FAILURE("realloc(%p, %ld)", reinterpret_cast<void *>(old), static_cast<long>(size));
    return out;
}

off_t W_lseek(const char *caller, int fd, off_t offset, int whence) {
    off_t rc = lseek(fd, offset, whence);
    if (rc == -1)
        FAILURE("lseek(%d, %ld, %d)", fd, static_cast<long>(offset), whence);
    return rc;
}

int W_unlink(const char *caller, const char *path) {
    int rc = unlink(path);
    if (rc == -1)
        FAILURE("unlink(%s)", path);
    return rc;
}

int W_ftruncate(const char *caller, int fd, off_t length) {
    int rc = ftruncate(fd, length);
    if (rc == -1)
        FAILURE("ftruncate(%d, %ld)", fd, static_cast<long>(length));
    return rc;
}

int W_open(const char *caller, const char *path, int flags, mode_t mode) {
    int fd = open(path, flags, mode ? mode : 0644);
    if (fd == -1)
        FAILURE("open('%s', %d, 0x%lx)", path, flags, static_cast<unsigned long>(mode));
    return fd;
}

int W_connect(const char *caller, int fd, const sockaddr *addr, socklen_t addrlen) {
    int rc = connect(fd, addr, addrlen);
    if (rc != 0 && errno == EINPROGRESS)
        LOG_FN(LL_INFO, "non-blocking connect in progress for fd%d\n", fd);
    else if (rc != 0)
        FAILURE("connect(%d, %p, %ld)", fd, static_cast<const void *>(addr), static_cast<long>(addrlen));
    return rc;
}

ssize_t W_write_f(const char *caller, int fd, const void *buf, size_t len, int flags) {
    ssize_t n = write(fd, buf, len);
    if (n == -1 && !no_fault(errno, flags))
        FAILURE("write(%d, %p, %ld)", fd, buf, static_cast<long>(len));
    return n;
}

ssize_t W_read_f(const char *caller, int fd, void *buf, size_t len, int flags) {
    ssize_t n = read(fd, buf, len);
    if (n == -1 && !no_fault(errno, flags))
        FAILURE("read(%d, %p, %ld)", fd, buf, static_cast<long>(len));
    return n;
}

ssize_t W_pread_f(const char *caller, int fd, void *buf, size_t len, off_t offset, int flags) {
    ssize_t n = pread(fd, buf, len, offset);
    if (n == -1 && !no_fault(errno, flags))
        FAILURE("pread(%d, %p, %ld, %ld)", fd, buf, static_cast<long>(len), static_cast<long>(offset));
    return n;
}

int W_socket(const char *caller, int domain, int type, int protocol) {
    int fd = socket(domain, type, protocol);
    if (fd == -1)
        FAILURE("socket(%d, %d, %d)", domain, type, protocol);
    else
        LOG(LL_DEBUG, "%s opened socket fd=%d (%d, %d, %d)\n", caller, fd, domain, type, protocol);
    return fd;
}

int W_getsockopt(const char *caller, int fd, int level, int name, void *value, socklen_t *length) {
    int rc = getsockopt(fd, level, name, value, length);
    if (rc != 0)
        FAILURE("getsockopt(%d, %d, %d, %p, %ld)", fd, level, name, value,
                length ? static_cast<long>(*length) : 0L);
    return rc;
}

int W_setsockopt(const char *caller, int fd, int level, int name, const void *value, socklen_t length) {
    int rc = setsockopt(fd, level, name, value, length);
    if (rc != 0)
        FAILURE("setsockopt(%d, %d, %d, %p, %ld)", fd, level, name, value, static_cast<long>(length));
    return rc;
}

int W_bind(const char *caller, int fd, const sockaddr *addr, socklen_t addrlen) {
    int rc = bind(fd, addr, addrlen);
    if (rc != 0)
        FAILURE("bind(%d, %p, %ld):", fd, static_cast<const void *>(addr), static_cast<long>(addrlen));
    return rc;
}

int W_listen(const char *caller, int fd, int backlog) {
    int rc = listen(fd, backlog);
    if (rc != 0)
        FAILURE("listen(%d, %d)", fd, backlog);
    return rc;
}

int W_getaddrinfo(const char *caller, const char *node, const char *service, const addrinfo *hints,
                  addrinfo **result) {
    int rc = getaddrinfo(node, service, hints, result);
    if (rc == -1)
        LOG(LL_ERROR, "%s: getaddrinfo(%s, %s, %p, %p): ERROR(%d:%d): %s\n", caller, node ? node : "-",
            service ? service : "-", static_cast<const void *>(hints), static_cast<void *>(result), rc, errno,
            gai_strerror(rc));
    return rc;
}

// An interrupted select is worth a record only to somebody who watches the wrappers at debug level.
static bool at_debug_level() {
    return g_mod_ll[g_llctx.mod] >= LL_DEBUG || (g_llctx.sec >= 0 && g_sec_ll[g_llctx.sec] >= LL_DEBUG);
}

int W_select(const char *caller, int nfds, fd_set *rd, fd_set *wr, fd_set *ex, timeval *timeout) {
    int rc = select(nfds, rd, wr, ex, timeout);
    if (rc == -1 && (errno != EINTR || at_debug_level()))
        FAILURE("select(%d, %p, %p, %p, %p)", nfds, static_cast<void *>(rd), static_cast<void *>(wr),
                static_cast<void *>(ex), static_cast<void *>(timeout));
    return rc;
}

int W_accept4(const char *caller, int fd, sockaddr *addr, socklen_t *addrlen, int flags) {
    int rc = accept4(fd, addr, addrlen, flags);
    if (rc == -1 && !is_eagain(errno))
        FAILURE("accept(%d, %p, %ld)", fd, static_cast<void *>(addr),
                addrlen ? static_cast<long>(*addrlen) : 0L);
    return rc;
}

int W_accept(const char *caller, int fd, sockaddr *addr, socklen_t *addrlen) {
    return W_accept4(caller, fd, addr, addrlen, 0);
}

int W_poll(const char *caller, pollfd *fds, nfds_t nfds, int timeout_ms) {
    int rc = poll(fds, nfds, timeout_ms);
    if (rc == -1)
        FAILURE("poll(%p, %ld, %d)", static_cast<void *>(fds), static_cast<long>(nfds), timeout_ms);
    else if (rc == 0)
        LOG(LL_WARN, "%s: poll() has timed out after %d ms\n", caller, timeout_ms);
    return rc;
}

ssize_t W_sendfile_f(const char *caller, int out_fd, int in_fd, off_t *offset, size_t count, int flags) {
    ssize_t n = sendfile(out_fd, in_fd, offset, count);
    // The one record without a line end of its own.
    if (n == -1 && !no_fault(errno, flags))
        LOG(LL_ERROR, "%s: LNX sendfile(%d<-%d, %ld, %ld) ERROR(%d): %s", caller, out_fd, in_fd,
            offset ? static_cast<long>(*offset) : 0L, static_cast<long>(count), errno, strerror(errno));
    return n;
}

int W_dup2(const char *caller, int oldfd, int newfd) {
    int rc = dup2(oldfd, newfd);
    if (rc == -1)
        FAILURE("dup2(%d, %d)", oldfd, newfd);
    return rc;
}

int W_pipe(const char *caller, int fds[2]) {
    int rc = pipe(fds);
    if (rc == -1)
        FAILURE("pipe([%d,%d])", fds[0], fds[1]);
    return rc;
}

pid_t W_fork(const char *caller) {
    pid_t pid = fork();
    if (pid == -1)
        LOG(LL_ERROR, "%s: fork() ERROR(%d): %s\n", caller, errno, strerror(errno));
    return pid;
}

int W_kill(const char *caller, pid_t pid, int signo) {
    int rc = kill(pid, signo);
    if (rc != 0)
        FAILURE("kill(%ld, %d)", static_cast<long>(pid), signo);
    return rc;
}

ssize_t W_sendto(const char *caller, int fd, const void *buf, size_t len, int flags, const sockaddr *addr,
                 socklen_t addrlen) {
    ssize_t n = sendto(fd, buf, len, flags, addr, addrlen);
    if (n <= 0)
        FAILURE("sendto(%d, %p, %lu, %d, ...)", fd, buf, static_cast<unsigned long>(len), flags);
    return n;
}

ssize_t W_recvfrom(const char *caller, int fd, void *buf, size_t len, int flags, sockaddr *addr,
                   socklen_t *addrlen) {
    ssize_t n = recvfrom(fd, buf, len, flags, addr, addrlen);
    if (n <= 0)
        FAILURE("recvfrom(%d, %p, %lu, %d, ...)", fd, buf, static_cast<unsigned long>(len), flags);
    return n;
}
