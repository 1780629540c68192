#include "tools/web/routes.h"

#include "lib/strops.h"
#include "tools/web/channels.h"
#include "tools/web/clock.h"
#include "tools/web/metrics.h"
#include "tools/web/shelf.h"
#include "tools/web/text.h"

#include <arpa/inet.h>
#include <cstring>

static constexpr size_t SESSION_ID = 8; // longer ones would not fit the daemon's event keys
static constexpr int64_t MAX_BACK = 60L * 86400;
static constexpr char SESSION_PARAM[] = "session";

static struct {
    const web_options *opts;
    file_root *data, *www;
} g_routes;

void routes_init(const web_options *opts, file_root *data, file_root *www) {
    g_routes.opts = opts;
    g_routes.data = data;
    g_routes.www = www;
}

// A request whose answer is on its way from the daemon.
struct waiting_request {
    shelf_entry *entry;
    route what;
};
static char g_seen; // marks a request whose header has been read

// --- who asks ---

// IPv4 addresses as IPv6 maps them.
static in6_addr address_of(const sockaddr *addr) {
    in6_addr out{};
    sockaddr_in in;
    sockaddr_in6 in6;
    if (addr->sa_family == AF_INET6) {
        memcpy(&in6, addr, sizeof(in6));
        out = in6.sin6_addr;
    } else if (addr->sa_family == AF_INET) {
        memcpy(&in, addr, sizeof(in));
        out.s6_addr[10] = out.s6_addr[11] = 0xff;
        memcpy(out.s6_addr + 12, &in.sin_addr, sizeof(in.sin_addr));
    }
    return out;
}

static std::string viewer_at(in6_addr addr) {
    char buf[INET6_ADDRSTRLEN];
    if (!IN6_IS_ADDR_V4MAPPED(&addr))
        memset(addr.s6_addr + 8, 0, 8); // one viewer has a network of addresses
    return inet_ntop(AF_INET6, &addr, buf, sizeof(buf)) ? buf : "?";
}

// Of a list that proxies have made, the last one's word counts: the others' may be the viewer's own.
static std::string viewer_named(std::string_view list) {
    list = strip_tail(list);
    std::string text(list.substr(list.find_last_of(", \t") + 1).substr(0, 64));
    in6_addr addr;
    bool is_address = inet_pton(AF_INET6, ("::ffff:" + text).c_str(), &addr) == 1 ||
                      inet_pton(AF_INET6, text.c_str(), &addr) == 1;
    return is_address ? viewer_at(addr) : text;
}

static std::string viewer_of(MHD_Connection *conn) {
    const std::string &header = g_routes.opts->client_header;
    const char *named = header.empty() ? nullptr : request_header(conn, header.c_str());
    if (named && *named)
        return viewer_named(named);
    auto info = MHD_get_connection_info(conn, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
    return info ? viewer_at(address_of(info->client_addr)) : "?";
}

// --- playlists ---

static MHD_Result serve_question(MHD_Connection *conn, void **state, route what, shelf_kind kind,
                                 const std::string &question) {
    shelf_entry *entry = nullptr;
    bool is_event = kind == shelf_kind::event || kind == shelf_kind::moving_event;
    switch (shelf_get(question, kind, is_event ? viewer_of(conn) : "", &entry)) {
    case shelf_result::ready:
        return shelf_send(entry, conn, what);
    case shelf_result::wait:
        *state = new waiting_request{entry, what};
        shelf_suspend(entry, conn);
        return MHD_YES;
    case shelf_result::full:
        return reply_error(conn, what, MHD_HTTP_SERVICE_UNAVAILABLE, "too many playlists are being watched");
    case shelf_result::too_many:
        break;
    }
    return reply_error(conn, what, MHD_HTTP_TOO_MANY_REQUESTS,
                       "too many events are watched from your address");
}

// To the same URL with a session of its own.
static MHD_Result redirect_to_session(MHD_Connection *conn, route what, const std::string &target) {
    std::string id = text_random_id(SESSION_ID);
    response_ptr response = reply_text("");
    if (id.empty() || !response)
        return MHD_NO;
    reply_header(response, MHD_HTTP_HEADER_LOCATION, target + "&" + SESSION_PARAM + "=" + id);
    ++g_web_counts.redirects;
    return reply_queue(conn, what, MHD_HTTP_TEMPORARY_REDIRECT, response.get());
}

static MHD_Result serve_moving(MHD_Connection *conn, void **state, route what, const std::string &question,
                               const std::string &target) {
    const char *id = request_param(conn, SESSION_PARAM);
    if (!id || !text_is_id(id, SESSION_ID))
        return redirect_to_session(conn, what, target);
    return serve_question(conn, state, what, shelf_kind::moving_event, question + " peer=" + id);
}

static MHD_Result serve_live(MHD_Connection *conn, void **state, const std::string &name) {
    return serve_question(conn, state, route::live, shelf_kind::live, "LIV " + name);
}

static MHD_Result serve_vod(MHD_Connection *conn, void **state, const std::string &name) {
    return serve_question(conn, state, route::vod, shelf_kind::vod, "VOD " + name);
}

// 1 = given, 0 = not given, -1 = no number in the range.
static int read_param(MHD_Connection *conn, const char *name, int64_t min, int64_t max, int64_t *value) {
    const char *text = request_param(conn, name);
    if (!text || !*text)
        return 0;
    return text_number(text, value) && *value >= min && *value <= max ? 1 : -1;
}

// Times are moved outwards to the grid, so that those who ask for nearly the same share it.
static MHD_Result serve_event(MHD_Connection *conn, void **state, const std::string &name) {
    int64_t start = 0, duration = 0, grid = g_routes.opts->event_grid;
    if (read_param(conn, "start", 1, 99'999'999'999, &start) != 1)
        return reply_error(conn, route::event, MHD_HTTP_BAD_REQUEST, "start=SECONDS of the epoch is needed");
    int has_duration = read_param(conn, "duration", 1, MAX_BACK, &duration);
    if (has_duration < 0)
        return reply_error(conn, route::event, MHD_HTTP_BAD_REQUEST, "duration= is no number of seconds");
    int64_t end = (start + duration + grid - 1) / grid * grid;
    start = start / grid * grid;
    std::string target = "event.m3u8?start=" + std::to_string(start);
    std::string question = "EVE " + name + " " + std::to_string(start) + " ";
    if (!has_duration)
        return serve_moving(conn, state, route::event, question + "0", target);
    duration = end - start;
    question += std::to_string(duration);
    if (end >= clock_wall())
        return serve_moving(conn, state, route::event, question,
                            target + "&duration=" + std::to_string(duration));
    return serve_question(conn, state, route::event, shelf_kind::event, question);
}

static MHD_Result serve_shift(MHD_Connection *conn, void **state, const std::string &name) {
    int64_t back = 0;
    if (read_param(conn, "back", 1, MAX_BACK, &back) != 1)
        return reply_error(conn, route::shift, MHD_HTTP_BAD_REQUEST, "back=SECONDS is needed");
    std::string text = std::to_string(back);
    return serve_moving(conn, state, route::shift, "EVE " + name + " -" + text + " 0",
                        "shift.m3u8?back=" + text);
}

struct playlist_row {
    std::string_view file;
    MHD_Result (*serve)(MHD_Connection *conn, void **state, const std::string &name);
};
static constexpr playlist_row PLAYLISTS[] = {{"live.m3u8", serve_live},
                                             {"vod.m3u8", serve_vod},
                                             {"event.m3u8", serve_event},
                                             {"shift.m3u8", serve_shift}};

// --- the rest ---

static MHD_Result serve_page(MHD_Connection *conn, const std::string &path) {
    const char *type = files_page_type(path);
    if (g_routes.www->fd < 0 || !type)
        return reply_error(conn, route::other, MHD_HTTP_NOT_FOUND, "no such page");
    return files_send(conn, route::page, g_routes.www, path, type, CACHE_PAGE, nullptr);
}

static MHD_Result serve_segment(MHD_Connection *conn, std::string path) {
    size_t slash = path.find('/');
    const char *type = files_segment_type(path);
    if (!type)
        return reply_error(conn, route::other, MHD_HTTP_NOT_FOUND, "no such thing here");
    if (slash != std::string::npos && path.compare(slash + 1, slash + 1, path, 0, slash + 1) == 0)
        path.erase(0, slash + 1);
    const std::string *accel = g_routes.opts->accel.empty() ? nullptr : &g_routes.opts->accel;
    return files_send(conn, route::segment, g_routes.data, path, type, CACHE_SEGMENT, accel);
}

static MHD_Result serve_list(MHD_Connection *conn) {
    response_ptr response = reply_make(channels_json(), "application/json", "no-cache");
    return reply_queue(conn, route::list, MHD_HTTP_OK, response.get());
}

static MHD_Result serve_metrics(MHD_Connection *conn) {
    response_ptr response = reply_text(metrics_text(), "text/plain; version=0.0.4; charset=utf-8");
    return reply_queue(conn, route::metrics, MHD_HTTP_OK, response.get());
}

static MHD_Result send_health(MHD_Connection *conn, const shelf_entry *entry) {
    response_ptr response = reply_text((entry->status == 200 ? "ok" : entry->fault) + "\n");
    return reply_queue(conn, route::health, static_cast<unsigned>(entry->status), response.get());
}

static MHD_Result serve_health(MHD_Connection *conn, void **state) {
    shelf_entry *entry = nullptr;
    switch (shelf_get(LINK_PROBE, shelf_kind::probe, "", &entry)) {
    case shelf_result::ready:
        return send_health(conn, entry);
    case shelf_result::wait:
        *state = new waiting_request{entry, route::health};
        shelf_suspend(entry, conn);
        return MHD_YES;
    default:
        return reply_error(conn, route::health, MHD_HTTP_SERVICE_UNAVAILABLE, "overloaded");
    }
}

static MHD_Result serve_preflight(MHD_Connection *conn) {
    response_ptr response = reply_text("");
    if (!response)
        return MHD_NO;
    reply_header(response, "Access-Control-Allow-Methods", "GET, HEAD");
    reply_header(response, "Access-Control-Allow-Headers", "Range, If-None-Match, If-Range");
    reply_header(response, "Access-Control-Max-Age", "86400");
    return reply_queue(conn, route::other, MHD_HTTP_NO_CONTENT, response.get());
}

static MHD_Result serve_bad_method(MHD_Connection *conn) {
    response_ptr response = reply_text("only GET and HEAD\n");
    if (!response)
        return MHD_NO;
    reply_header(response, MHD_HTTP_HEADER_ALLOW, "GET, HEAD, OPTIONS");
    return reply_queue(conn, route::other, MHD_HTTP_METHOD_NOT_ALLOWED, response.get());
}

static MHD_Result serve_path(MHD_Connection *conn, void **state, const std::string &path) {
    if (path.empty())
        return serve_page(conn, "index.html");
    size_t slash = path.find('/');
    if (slash == std::string::npos) {
        if (path == "channels.json")
            return serve_list(conn);
        if (path == "metrics")
            return serve_metrics(conn);
        if (path == "healthz")
            return serve_health(conn, state);
        return files_segment_type(path) ? serve_segment(conn, path) : serve_page(conn, path);
    }
    for (const playlist_row &row : PLAYLISTS)
        if (path.compare(slash + 1, std::string::npos, row.file) == 0) {
            std::string name = path.substr(0, slash);
            if (text_is_channel(name))
                return row.serve(conn, state, name);
        }
    return serve_segment(conn, path);
}

static MHD_Result serve_answered(MHD_Connection *conn, const waiting_request *request) {
    if (request->what == route::health)
        return send_health(conn, request->entry);
    return shelf_send(request->entry, conn, request->what);
}

MHD_Result routes_handle(void *, MHD_Connection *conn, const char *url, const char *method, const char *,
                         const char *, size_t *upload_size, void **state) {
    if (!*state) {
        *state = &g_seen;
        return MHD_YES;
    }
    if (*upload_size > 0) { // nobody wants it
        *upload_size = 0;
        return MHD_YES;
    }
    if (*state != &g_seen)
        return serve_answered(conn, static_cast<waiting_request *>(*state));
    std::string path;
    if (strcmp(method, MHD_HTTP_METHOD_OPTIONS) == 0)
        return serve_preflight(conn);
    if (strcmp(method, MHD_HTTP_METHOD_GET) != 0 && strcmp(method, MHD_HTTP_METHOD_HEAD) != 0)
        return serve_bad_method(conn);
    if (!text_path(url, &path))
        return reply_error(conn, route::other, MHD_HTTP_BAD_REQUEST, "the path is malformed");
    return serve_path(conn, state, path);
}

void routes_completed(void *, MHD_Connection *conn, void **state, MHD_RequestTerminationCode) {
    if (*state && *state != &g_seen) {
        auto request = static_cast<waiting_request *>(*state);
        shelf_release(request->entry, conn);
        delete request;
    }
    *state = nullptr;
}
