#include "bench/bare_server.h"

#include "bench/daemon.h"

#include <csignal>
#include <cstdio>
#include <cstring>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

static constexpr int MAX_EVENTS = 256;

void watch(int ep, int fd) {
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = fd;
    if (epoll_ctl(ep, EPOLL_CTL_ADD, fd, &ev) != 0)
        give_up("epoll_ctl");
}

[[noreturn]] static void serve_bare(int listener, const std::string &answer) {
    int ep = epoll_create1(EPOLL_CLOEXEC);
    watch(ep, listener);
    epoll_event events[MAX_EVENTS];
    char buf[256];
    for (;;) {
        int n = epoll_wait(ep, events, MAX_EVENTS, -1);
        for (int i = 0; i < n; ++i) {
            int fd = events[i].data.fd;
            if (fd == listener) {
                int client = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
                if (client >= 0)
                    watch(ep, client);
                continue;
            }
            ssize_t got = read(fd, buf, sizeof(buf));
            if (got <= 0)
                close(fd);
            else if (memchr(buf, '\n', static_cast<size_t>(got)) &&
                     write(fd, answer.data(), answer.size()) != static_cast<ssize_t>(answer.size()))
                _exit(1);
        }
    }
}

pid_t start_floor(const std::string &path, int core, const std::string &answer) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", path.c_str());
    int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listener < 0 || bind(listener, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0 ||
        listen(listener, 128) != 0)
        give_up("floor listener");
    pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        pin_to(core);
        serve_bare(listener, answer);
    }
    close(listener);
    return pid;
}
