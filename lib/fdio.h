// Read and write over descriptors that survive interrupted system calls but stop when the daemon is
// quitting, readiness waits on one socket, and descriptor passing. Logs under module LOG_MOD_FDIO.
#pragma once

#include <cstddef>
#include <sys/types.h>

// One write; a positive count is returned as it is, a partial one is not continued. Interruptions are
// repeated unless the quit flag is set. 0 for an empty buffer, without a system call; -1 on failure (logged
// by the wrapper, whose exemption rule `flags` goes to).
ssize_t nwrite(int fd, const void *buf, size_t len, int flags);
// One read, likewise; 0 = end of stream.
ssize_t nread(int fd, void *buf, size_t len, int flags);
ssize_t npread(int fd, void *buf, size_t len, off_t offset, int flags);

// Polls the one descriptor; the returned events, or -1. A time-out is logged as a warning.
int poll_on_socket(int fd, short events, int timeout_ms);
// 0 = readable (writable), 1 = timed out, -1 = the poll failed or reported an error condition.
int wait_to_read(int fd, int timeout_ms);
int wait_to_write(int fd, int timeout_ms);
// What a stream socket has received and nobody has read; 0 also when it cannot be told.
size_t bytes_to_read(int fd);
// Whether a stream socket's peer has closed it, or it is broken; without waiting.
bool has_hung_up(int fd);

// One message with data and a passed descriptor; the bytes sent, or -1 (logged).
ssize_t send_fd(int sock, const void *data, size_t len, int fd);
// The counterpart; `fd` gets the descriptor (the caller's from then on) or -1 when none came along.
ssize_t recv_fd(int sock, void *buf, size_t len, int *fd);

// Sets the transfer buffer's size: -1 = 2 MiB, below 1 leaves it unset. 0 or -1.
int fdio_init(ssize_t bufsize);
void fdio_destroy();
