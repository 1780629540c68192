// The real daemon on a private directory, as a child process.
#pragma once

#include "bench/bench.h"

#include <sys/types.h>

struct bench_daemon {
    pid_t pid = -1;
    std::string pl_socket;
    std::string src_socket;
    int producer = -1;           // the connection of its one source, "chan"
    const char *hangups = "err"; // level of the records of closed connections
};

// Starts it with the log at level info in a file of `dir`, pinned to `core` unless that is negative, and
// waits until it listens. `extra` holds more lines for the configuration.
void daemon_start(bench_daemon *d, const temp_dir &dir, int core, const char *extra);
// Connects the source and feeds it `items` segments, whose files are not looked at.
void daemon_feed(bench_daemon *d, size_t items);
void daemon_stop(bench_daemon *d);

// A connected UNIX socket, or -1.
int connect_to(const std::string &path);
void pin_to(int core);
// Ends a child process that this program started.
void end_child(pid_t pid);
// One request line on a connection, and its answer.
std::string ask(int fd, const char *line);
