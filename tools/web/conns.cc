#include "tools/web/conns.h"

#include "tools/web/clock.h"
#include "tools/web/reply.h"

#include <algorithm>
#include <sys/socket.h>

static constexpr int64_t LOOK_MS = 5000;

struct viewer {
    viewer *prev, *next;
    MHD_Connection *conn;
    int64_t since;   // the last whole request, or the connection's begin
    int64_t look_at; // when it is looked at next
    bool is_busy;    // a request is being answered
};

// In order of `look_at`.
static struct {
    viewer ends;
    int64_t idle_ms;
} g_conns;

void conns_init(long idle_sec) {
    g_conns.ends.prev = g_conns.ends.next = &g_conns.ends;
    g_conns.idle_ms = idle_sec * 1000;
}

static void unlink_viewer(viewer *one) {
    one->prev->next = one->next;
    one->next->prev = one->prev;
}

static void append(viewer *one) {
    one->look_at = clock_ms() + std::min(LOOK_MS, g_conns.idle_ms);
    one->next = &g_conns.ends;
    one->prev = g_conns.ends.prev;
    one->prev->next = one->next->prev = one;
}

void conns_notify(void *, MHD_Connection *conn, void **context, MHD_ConnectionNotificationCode code) {
    if (code == MHD_CONNECTION_NOTIFY_STARTED) {
        auto one = new viewer{nullptr, nullptr, conn, clock_ms(), 0, false};
        append(one);
        *context = one;
        ++g_web_counts.connections;
        return;
    }
    auto one = static_cast<viewer *>(*context);
    unlink_viewer(one);
    delete one;
    *context = nullptr;
    --g_web_counts.connections;
}

static viewer *viewer_of(MHD_Connection *conn) {
    auto info = MHD_get_connection_info(conn, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
    return static_cast<viewer *>(info->socket_context);
}

void conns_begin(MHD_Connection *conn) {
    viewer_of(conn)->is_busy = true;
}

void conns_end(MHD_Connection *conn) {
    viewer *one = viewer_of(conn);
    one->is_busy = false;
    one->since = clock_ms();
}

// The library misses the end of a connection that came together with the last of its data.
static bool has_hung_up(int fd) {
    char byte;
    return recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
}

static void look_at(viewer *one) {
    auto info = MHD_get_connection_info(one->conn, MHD_CONNECTION_INFO_CONNECTION_FD);
    if (one->is_busy || !info)
        return;
    if (clock_ms() - one->since >= g_conns.idle_ms || has_hung_up(info->connect_fd))
        shutdown(info->connect_fd, SHUT_RDWR); // which the library notices
}

void conns_tick() {
    while (g_conns.ends.next != &g_conns.ends && clock_ms() >= g_conns.ends.next->look_at) {
        viewer *one = g_conns.ends.next;
        look_at(one);
        unlink_viewer(one);
        append(one);
    }
}
