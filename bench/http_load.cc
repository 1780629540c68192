// Viewers that do nothing but fetch:  http_load PORT PATH CONNECTIONS SECONDS
//
// Each connection asks for the same path again and again, and what comes is thrown away inside the kernel: a
// client that copies segments is busier than the server, and would be what is measured. Prints how many
// answers came, all of them with status 200 or the program ends.
#include "bench/bench.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

static constexpr int MAX_EVENTS = 256;
static constexpr int STUCK_MS = 5000;

struct viewer {
    int fd;
    size_t left; // of the answer under way
};

static void send_request(const viewer &one, const std::string &request) {
    if (write(one.fd, request.data(), request.size()) != static_cast<ssize_t>(request.size()))
        give_up("request");
}

static void open_viewer(viewer *one, int port, int ep) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    *one = {.fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0), .left = 0};
    epoll_event ev{};
    ev.events = EPOLLOUT;
    ev.data.ptr = one;
    bool is_begun =
        one->fd >= 0 &&
        (connect(one->fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) == 0 || errno == EINPROGRESS);
    if (!is_begun || epoll_ctl(ep, EPOLL_CTL_ADD, one->fd, &ev) != 0)
        give_up("connection");
}

static void on_connected(viewer *one, int ep, const std::string &request) {
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.ptr = one;
    if (epoll_ctl(ep, EPOLL_CTL_MOD, one->fd, &ev) != 0)
        give_up("connection");
    send_request(*one, request);
}

// Bytes of head and body, 0 while the head is not complete.
static size_t answer_size(const viewer &one) {
    char head[4096];
    ssize_t n = recv(one.fd, head, sizeof(head) - 1, MSG_PEEK);
    if (n <= 0)
        give_up("answer");
    head[n] = '\0';
    const char *end = strstr(head, "\r\n\r\n");
    if (!end)
        return 0;
    const char *length = strcasestr(head, "\r\nContent-Length:");
    if (strncmp(head, "HTTP/1.1 200 ", 13) != 0 || !length)
        give_up(head);
    return static_cast<size_t>(end + 4 - head) + strtoul(length + 17, nullptr, 10);
}

// True when the answer has come to its end.
static bool take(viewer *one) {
    if (one->left == 0 && (one->left = answer_size(*one)) == 0)
        return false;
    ssize_t n = recv(one->fd, nullptr, one->left, MSG_TRUNC);
    if (n == 0)
        give_up("answer cut short");
    one->left -= n > 0 ? static_cast<size_t>(n) : 0;
    return one->left == 0;
}

int main(int argc, char **argv) {
    if (argc != 5)
        give_up("usage: http_load PORT PATH CONNECTIONS SECONDS");
    const std::string request = std::string("GET /") + argv[2] + " HTTP/1.1\r\nHost: bench\r\n\r\n";
    std::vector<viewer> viewers(strtoul(argv[3], nullptr, 10));
    int ep = epoll_create1(EPOLL_CLOEXEC);
    for (viewer &one : viewers)
        open_viewer(&one, atoi(argv[1]), ep);
    const double start = wall_sec();
    const double end = start + atof(argv[4]);
    size_t count = 0;
    epoll_event events[MAX_EVENTS];
    while (wall_sec() < end) {
        int n = epoll_wait(ep, events, MAX_EVENTS, STUCK_MS);
        if (n <= 0)
            give_up("no answers");
        for (int i = 0; i < n; ++i) {
            auto *one = static_cast<viewer *>(events[i].data.ptr);
            if (events[i].events & EPOLLOUT) {
                on_connected(one, ep, request);
            } else if (take(one)) {
                ++count;
                send_request(*one, request);
            }
        }
    }
    printf("%zu answers, %.1f a second\n", count, static_cast<double>(count) / (wall_sec() - start));
    return 0;
}
