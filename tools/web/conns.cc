#include "tools/web/conns.h"

#include "tools/web/clock.h"
#include "tools/web/reply.h"

#include <sys/socket.h>

struct viewer {
    viewer *prev, *next;
    MHD_Connection *conn;
    int64_t since; // the last whole request, or the connection's begin
    bool is_busy;  // a request is being answered
};

// In order of `since`, oldest first.
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

static void append_now(viewer *one) {
    one->since = clock_ms();
    one->next = &g_conns.ends;
    one->prev = g_conns.ends.prev;
    one->prev->next = one->next->prev = one;
}

void conns_notify(void *, MHD_Connection *conn, void **context, MHD_ConnectionNotificationCode code) {
    if (code == MHD_CONNECTION_NOTIFY_STARTED) {
        auto one = new viewer{nullptr, nullptr, conn, 0, false};
        append_now(one);
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
    unlink_viewer(one);
    append_now(one);
}

void conns_tick() {
    viewer *last = g_conns.ends.prev;
    while (g_conns.ends.next != &g_conns.ends && clock_ms() - g_conns.ends.next->since >= g_conns.idle_ms) {
        viewer *one = g_conns.ends.next;
        bool is_last = one == last;
        auto info = MHD_get_connection_info(one->conn, MHD_CONNECTION_INFO_CONNECTION_FD);
        if (!one->is_busy && info)
            shutdown(info->connect_fd, SHUT_RDWR); // the library notices, and closes it
        unlink_viewer(one);
        append_now(one);
        if (is_last)
            break;
    }
}
