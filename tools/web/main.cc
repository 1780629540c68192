// The front end: start-up, the loop that the HTTP library and the daemon's connection share, and the end.
#include "lib/log.h"
#include "lib/netops.h"
#include "lib/rqs.h"
#include "lib/sigflag.h"
#include "lib/syswrap.h"
#include "lib/timeop.h"
#include "lib/util.h"
#include "tools/web/channels.h"
#include "tools/web/clock.h"
#include "tools/web/conns.h"
#include "tools/web/files.h"
#include "tools/web/link.h"
#include "tools/web/options.h"
#include "tools/web/routes.h"
#include "tools/web/shelf.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

LOG_UNIT(LOG_MOD_APP);

static constexpr int64_t SWEEP_MS = 1000;
static constexpr size_t REQUEST_ROOM = 8192; // a request's header and its answer's
static constexpr int BACKLOG = 1024;

static struct {
    web_options opts;
    file_root data, www;
    MHD_Daemon *http;
    int http_fd = -1; // the library's epoll
    int64_t swept_at;
} g_web;

// --- the loop ---

static int on_event(long, int err, void *udata, void *) {
    if (udata == link_udata())
        link_on_event(err != 0);
    else
        MHD_run(g_web.http);
    return 0;
}

static int64_t http_wait_ms() {
    MHD_UNSIGNED_LONG_LONG ms;
    return MHD_get_timeout(g_web.http, &ms) == MHD_YES ? static_cast<int64_t>(std::min(ms, 60'000ULL)) : -1;
}

static void update_wait(timespec *wait) {
    int64_t ms = SWEEP_MS;
    for (int64_t one : {http_wait_ms(), link_wait_ms()})
        if (one >= 0)
            ms = std::min(ms, one);
    ms2timespec(ms, wait);
}

static int on_idle() {
    bool is_due = clock_ms() - g_web.swept_at >= SWEEP_MS;
    link_tick();
    if (is_due) {
        g_web.swept_at = clock_ms();
        shelf_tick();
        conns_tick();
        files_tick();
    }
    // Its own time-outs, and the requests that nothing but this run resumes.
    if (shelf_has_woken() || is_due || http_wait_ms() == 0)
        MHD_run(g_web.http);
    return 0;
}

// --- the HTTP library ---

// Escapes are resolved where zero bytes are seen; the library would cut the path there.
static size_t keep_escapes(void *, MHD_Connection *, char *text) {
    return strlen(text);
}

static void on_library_log(void *, const char *format, va_list args) {
    char buf[256];
    if (vsnprintf(buf, sizeof(buf), format, args) > 0)
        LOG(LL_DEBUG, "http: %s", buf);
}

static void on_completed(void *cls, MHD_Connection *conn, void **state, MHD_RequestTerminationCode how) {
    routes_completed(cls, conn, state, how);
    conns_end(conn);
}

static MHD_Result on_request(void *cls, MHD_Connection *conn, const char *url, const char *method,
                             const char *version, const char *upload, size_t *upload_size, void **state) {
    if (*state && *upload_size == 0)
        conns_begin(conn);
    return routes_handle(cls, conn, url, method, version, upload, upload_size, state);
}

static unsigned connection_limit() {
    long room = sysconf(_SC_OPEN_MAX) / 2 - 32; // a connection may have a file open
    return static_cast<unsigned>(std::clamp(room, 8L, g_web.opts.max_connections));
}

static MHD_Daemon *start_library(int listener) {
    const unsigned flags = MHD_USE_EPOLL | MHD_USE_TURBO | MHD_USE_SUSPEND_RESUME | MHD_USE_ERROR_LOG;
    return MHD_start_daemon(flags, 0, nullptr, nullptr, on_request, nullptr,                             //
                            MHD_OPTION_EXTERNAL_LOGGER, on_library_log, nullptr,                         //
                            MHD_OPTION_LISTEN_SOCKET, listener,                                          //
                            MHD_OPTION_LISTEN_BACKLOG_SIZE, static_cast<unsigned>(BACKLOG),              //
                            MHD_OPTION_CONNECTION_LIMIT, connection_limit(),                             //
                            MHD_OPTION_CONNECTION_MEMORY_LIMIT, REQUEST_ROOM,                            //
                            MHD_OPTION_CONNECTION_TIMEOUT, static_cast<unsigned>(g_web.opts.idle_tmout), //
                            MHD_OPTION_SIGPIPE_HANDLED_BY_APP, 1, // or sendfile would not be used
                            MHD_OPTION_UNESCAPE_CALLBACK, keep_escapes, nullptr, //
                            MHD_OPTION_NOTIFY_CONNECTION, conns_notify, nullptr, //
                            MHD_OPTION_NOTIFY_COMPLETED, on_completed, nullptr, MHD_OPTION_END);
}

// The address is shared with nobody: of two front ends each would get some of the viewers.
static int open_alone(const sock_spec &spec) {
    const int off = 0;
    fd_guard listener(open_socket(spec, nullptr, nullptr));
    if (listener.fd < 0 || setsockopt(listener.fd, SOL_SOCKET, SO_REUSEPORT, &off, sizeof(off)) != 0 ||
        W_listen(__func__, listener.fd, BACKLOG) != 0)
        return -1;
    return listener.release();
}

static int start_http() {
    sock_spec spec{.role = SOCK_LISTENER,
                   .host = g_web.opts.address.c_str(),
                   .port = g_web.opts.port.c_str(),
                   .no_listen = true};
    fd_guard listener(open_alone(spec));
    if (listener.fd < 0) {
        fprintf(stderr, "lumo-web: cannot listen on %s port %s\n", spec.host, spec.port);
        return -1;
    }
    g_web.http = start_library(listener.fd);
    if (!g_web.http) {
        fprintf(stderr, "lumo-web: the HTTP library does not start\n");
        return -1;
    }
    listener.release();
    g_web.http_fd = MHD_get_daemon_info(g_web.http, MHD_DAEMON_INFO_EPOLL_FD)->epoll_fd;
    return rqs_add_reader(g_web.http_fd, g_web.http);
}

// --- start and end ---

static int start_loop() {
    const rqs_config config = {.cb = {.update_tmout = update_wait,
                                      .on_idle = on_idle,
                                      .read = on_event,
                                      .write = nullptr,
                                      .error = on_event,
                                      .post_process = nullptr,
                                      .on_file_modified = nullptr,
                                      .time_out = nullptr,
                                      .is_dormant = nullptr},
                               .quit_on_zero_fds = 0};
    return rqs_init(&config);
}

static void init_log() {
    glog_init("lumo-web");
    log_default(&g_log, stderr);
    log_set_modules(&g_log, read_level_env("LUMO_WEB_LOG", LL_NORM));
}

static int start() {
    int rc = handle_quit_signals(on_sigquit);
    if (rc == 0)
        rc = ignore_sigpipe();
    if (rc == 0)
        rc = root_open(&g_web.data, g_web.opts.data_dir);
    if (rc == 0)
        rc = start_loop();
    if (rc != 0)
        return rc;
    raise_fd_limit();
    // Without the page's files everything else is served.
    if (!g_web.opts.www_dir.empty())
        root_open(&g_web.www, g_web.opts.www_dir);
    conns_init(g_web.opts.idle_tmout);
    channels_init(&g_web.opts, &g_web.data);
    link_init(g_web.opts.pl_socket, g_web.opts.answer_ms);
    shelf_init(&g_web.opts, &g_web.data);
    routes_init(&g_web.opts, &g_web.data, &g_web.www);
    return start_http();
}

static void stop() {
    if (g_web.http_fd >= 0)
        rqs_rm_fd(g_web.http_fd);
    link_close();
    shelf_close();
    if (g_web.http)
        MHD_stop_daemon(g_web.http);
    shelf_clear();
    files_close();
    rqs_destroy();
    root_close(&g_web.data);
    root_close(&g_web.www);
}

int main(int argc, char **argv) {
    occupy_standard_descriptors();
    init_log();
    int code = options_read(argc, argv, &g_web.opts);
    if (code != OPTIONS_GO)
        return code;
    int rc = start();
    if (rc == 0) {
        LOG(LL_NORM, "serving [%s] on %s port %s\n", g_web.data.dir.c_str(), g_web.opts.address.c_str(),
            g_web.opts.port.c_str());
        rc = rqs_event_loop();
    }
    stop();
    return rc == 0 ? 0 : 1;
}
