#include "lib/fdio.h"

#include "lib/log.h"
#include "lib/sigflag.h"
#include "lib/syswrap.h"

#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

LOG_UNIT(LOG_MOD_FDIO);

static constexpr size_t DEFAULT_BUFSIZE = 2097152;

static size_t g_bufsize = 0;

// Whether a call that failed is to be made again: a quit request ends the waiting.
static bool try_again() {
    if (errno != EINTR || g_quit)
        return false;
    errno = 0;
    return true;
}

ssize_t nwrite(int fd, const void *buf, size_t len, int flags) {
    ssize_t n = 0;
    if (len > 0)
        do
            n = W_write_f(__func__, fd, buf, len, flags);
        while (n < 0 && try_again());
    return n;
}

ssize_t nread(int fd, void *buf, size_t len, int flags) {
    ssize_t n = 0;
    if (len > 0)
        do
            n = W_read_f(__func__, fd, buf, len, flags);
        while (n < 0 && try_again());
    return n;
}

ssize_t npread(int fd, void *buf, size_t len, off_t offset, int flags) {
    ssize_t n = 0;
    if (len > 0)
        do
            n = W_pread_f(__func__, fd, buf, len, offset, flags);
        while (n < 0 && try_again());
    return n;
}

int poll_on_socket(int fd, short events, int timeout_ms) {
    pollfd pfd{.fd = fd, .events = events, .revents = 0};
    return W_poll(__func__, &pfd, 1, timeout_ms) < 0 ? -1 : pfd.revents;
}

static int wait_for(int fd, short event, int faults, int timeout_ms) {
    const int got = poll_on_socket(fd, event, timeout_ms);
    if (got < 0 || (got & faults))
        return -1;
    if (got & event)
        return 0;
    return got ? -1 : 1;
}

int wait_to_read(int fd, int timeout_ms) {
    // What was sent before a hang-up can still be read.
    return wait_for(fd, POLLIN, POLLERR | POLLNVAL, timeout_ms);
}

int wait_to_write(int fd, int timeout_ms) {
    return wait_for(fd, POLLOUT, POLLERR | POLLNVAL | POLLHUP, timeout_ms);
}

size_t bytes_to_read(int fd) {
    int count = 0;
    return ioctl(fd, FIONREAD, &count) == 0 && count > 0 ? static_cast<size_t>(count) : 0;
}

bool has_hung_up(int fd) {
    pollfd pfd{.fd = fd, .events = 0, .revents = 0};
    return poll(&pfd, 1, 0) > 0 && (pfd.revents & (POLLHUP | POLLERR)) != 0;
}

// Room for one descriptor, aligned as the control messages ask.
union fd_control {
    cmsghdr header;
    char space[CMSG_SPACE(sizeof(int))];
};

static msghdr fd_message(iovec *data, fd_control *control) {
    msghdr msg{};
    msg.msg_iov = data;
    msg.msg_iovlen = 1;
    msg.msg_control = control->space;
    msg.msg_controllen = sizeof(control->space);
    return msg;
}

ssize_t send_fd(int sock, const void *data, size_t len, int fd) {
    iovec vec{.iov_base = const_cast<void *>(data), .iov_len = len};
    fd_control control{};
    msghdr msg = fd_message(&vec, &control);
    cmsghdr *head = CMSG_FIRSTHDR(&msg);
    head->cmsg_level = SOL_SOCKET;
    head->cmsg_type = SCM_RIGHTS;
    head->cmsg_len = CMSG_LEN(sizeof(fd));
    memcpy(CMSG_DATA(head), &fd, sizeof(fd));
    ssize_t n = sendmsg(sock, &msg, 0);
    if (n < 0)
        LOG_FN(LL_ERROR, "sendmsg(%d, %p, 0) ERROR(%d): %s\n", sock, static_cast<void *>(&msg), errno,
               strerror(errno));
    return n;
}

// The first descriptor of the message, or -1. The alignment leaves room for a second one that nobody
// asked for: it is closed, so that a peer cannot fill the descriptor table.
static int take_fd(msghdr *msg) {
    int first = -1;
    for (cmsghdr *head = CMSG_FIRSTHDR(msg); head; head = CMSG_NXTHDR(msg, head)) {
        if (head->cmsg_level != SOL_SOCKET || head->cmsg_type != SCM_RIGHTS)
            continue;
        const size_t count = (head->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < count; i++) {
            int fd = -1;
            memcpy(&fd, CMSG_DATA(head) + i * sizeof(fd), sizeof(fd));
            if (first < 0)
                first = fd;
            else
                W_close(__func__, fd);
        }
    }
    return first;
}

ssize_t recv_fd(int sock, void *buf, size_t len, int *fd) {
    iovec vec{.iov_base = buf, .iov_len = len};
    fd_control control{};
    msghdr msg = fd_message(&vec, &control);
    *fd = -1;
    ssize_t n = recvmsg(sock, &msg, 0);
    if (n < 0)
        LOG_FN(LL_ERROR, "recvmsg(%d, %p, 0) ERROR(%d): %s\n", sock, static_cast<void *>(&msg), errno,
               strerror(errno));
    else
        *fd = take_fd(&msg);
    return n;
}

int fdio_init(ssize_t bufsize) {
    if (bufsize == -1)
        g_bufsize = DEFAULT_BUFSIZE;
    else if (bufsize > 0)
        g_bufsize = static_cast<size_t>(bufsize);
    return 0;
}

void fdio_destroy() {
    g_bufsize = 0;
}
