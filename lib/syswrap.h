// System calls that report their own failure: each wrapper calls the system function with the same
// arguments and returns its result unchanged; on failure it writes one error record that names the calling
// function (`caller`, normally __func__), the call, errno and its text, and leaves errno as the call set it.
// Nothing is retried, closed or aborted here. A `flags` of 0 in the `_f` forms leaves the failures that a
// non-blocking descriptor is expected to meet (EAGAIN, EPIPE, EINTR, ECONNRESET) unlogged. Successes marked
// so are logged at debug level of module LOG_MOD_SYSWRAP.
#pragma once

#include <cstddef>
#include <netdb.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/types.h>

int W_close(const char *caller, int fd); // success is logged
void *W_calloc(const char *caller, size_t count, size_t size);
void *W_realloc(const char *caller, void *ptr, size_t size);
off_t W_lseek(const char *caller, int fd, off_t offset, int whence);
int W_unlink(const char *caller, const char *path);
int W_ftruncate(const char *caller, int fd, off_t length);
int W_open(const char *caller, const char *path, int flags, mode_t mode); // mode 0 means 0644
// EINPROGRESS is told at info level, as what it is.
int W_connect(const char *caller, int fd, const sockaddr *addr, socklen_t addrlen);
ssize_t W_write_f(const char *caller, int fd, const void *buf, size_t len, int flags);
ssize_t W_read_f(const char *caller, int fd, void *buf, size_t len, int flags);
ssize_t W_pread_f(const char *caller, int fd, void *buf, size_t len, off_t offset, int flags);
int W_socket(const char *caller, int domain, int type, int protocol); // success is logged
int W_getsockopt(const char *caller, int fd, int level, int name, void *value, socklen_t *length);
int W_setsockopt(const char *caller, int fd, int level, int name, const void *value, socklen_t length);
int W_bind(const char *caller, int fd, const sockaddr *addr, socklen_t addrlen);
int W_listen(const char *caller, int fd, int backlog);
// Only a result of exactly -1 is reported.
int W_getaddrinfo(const char *caller, const char *node, const char *service, const addrinfo *hints,
                  addrinfo **result);
// EINTR is reported only at debug level.
int W_select(const char *caller, int nfds, fd_set *rd, fd_set *wr, fd_set *ex, timeval *timeout);
int W_accept(const char *caller, int fd, sockaddr *addr, socklen_t *addrlen); // EAGAIN is not reported
// The same with SOCK_NONBLOCK and the like for the new descriptor.
int W_accept4(const char *caller, int fd, sockaddr *addr, socklen_t *addrlen, int flags);
int W_poll(const char *caller, pollfd *fds, nfds_t nfds, int timeout_ms); // a time-out is a warning
ssize_t W_sendfile_f(const char *caller, int out_fd, int in_fd, off_t *offset, size_t count, int flags);
int W_dup2(const char *caller, int oldfd, int newfd);
int W_pipe(const char *caller, int fds[2]);
pid_t W_fork(const char *caller);
int W_kill(const char *caller, pid_t pid, int signo);
// A result of 0 is reported too.
ssize_t W_sendto(const char *caller, int fd, const void *buf, size_t len, int flags, const sockaddr *addr,
                 socklen_t addrlen);
ssize_t W_recvfrom(const char *caller, int fd, void *buf, size_t len, int flags, sockaddr *addr,
                   socklen_t *addrlen);

// errno classes of the `_f` forms.
bool no_fault(int err, int flags);
bool is_eagain(int err);

// Owners for the span of one function: closed, in the caller's name, on every way out unless released.
struct fd_guard {
    int fd = -1;
    const char *caller;
    explicit fd_guard(int owned = -1, const char *owner = __builtin_FUNCTION()) : fd(owned), caller(owner) {}
    fd_guard(const fd_guard &) = delete;
    fd_guard &operator=(const fd_guard &) = delete;
    ~fd_guard() {
        if (fd >= 0)
            W_close(caller, fd);
    }
    int release() {
        int out = fd;
        fd = -1;
        return out;
    }
};
