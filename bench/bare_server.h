// The least that a server of the playlist protocol does: an epoll loop that answers every line with one text.
#pragma once

#include <string>
#include <sys/types.h>

// Starts it on the UNIX socket `path`, as a child process pinned to `core`.
pid_t start_floor(const std::string &path, int core, const std::string &answer);
// Adds a descriptor to an epoll set, for reading.
void watch(int ep, int fd);
