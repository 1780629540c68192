#include "tools/web/shelf.h"

#include "lib/log.h"
#include "lib/syswrap.h"
#include "tools/web/clock.h"
#include "tools/web/text.h"
#include "tools/web/unpack.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unordered_map>
#include <utility>

LOG_UNIT(LOG_MOD_APP);

static constexpr int64_t FRESH_MS = 500;
static constexpr int64_t TOUCH_MS = 1000;
static constexpr int64_t KEEP_MS = 30'000;
static constexpr int64_t KEEP_FAULT_MS = 2000;
static constexpr size_t MAX_ENTRIES = 8192;
static constexpr off_t MAX_FILE = 64 << 20;

static struct {
    const web_options *opts;
    file_root *root;
    std::unordered_map<std::string, std::unique_ptr<shelf_entry>> entries;
    std::unordered_map<std::string, long> owned; // entries of each address
    size_t sessions;
    bool has_told_touch;
    bool is_closing;
    bool has_woken;
} g_shelf;

void shelf_init(const web_options *opts, file_root *root) {
    g_shelf.opts = opts;
    g_shelf.root = root;
}

shelf_numbers shelf_count() {
    return {g_shelf.entries.size(), g_shelf.sessions};
}

static bool is_moving(const shelf_entry *entry) {
    return entry->kind == shelf_kind::live || entry->kind == shelf_kind::moving_event;
}

// --- the answer's file ---

static void wake_waiting(shelf_entry *entry) {
    for (MHD_Connection *conn : entry->waiting)
        MHD_resume_connection(conn);
    g_shelf.has_woken |= !entry->waiting.empty();
    entry->waiting.clear();
}

bool shelf_has_woken() {
    return std::exchange(g_shelf.has_woken, false);
}

// A fault while the daemon or the source is coming back does not stop those who watch.
static void settle_fault(shelf_entry *entry, int status, const std::string &text) {
    bool has_body = entry->status == 200 && is_moving(entry);
    int64_t grace_ms = g_shelf.opts->grace * 1000;
    if (!has_body || clock_ms() - entry->good_at >= grace_ms) {
        entry->status = status;
        entry->fault = text;
    }
    wake_waiting(entry);
}

// The path below the data directory, under either of its names; empty = it lies elsewhere.
static std::string path_below(const std::string &path) {
    for (const std::string &dir : {g_shelf.root->dir, g_shelf.root->real}) {
        std::string top = dir == "/" ? dir : dir + "/";
        if (!dir.empty() && path.starts_with(top))
            return path.substr(top.size());
    }
    return "";
}

// The whole file; null with errno.
static std::shared_ptr<const std::string> read_playlist(const std::string &path) {
    struct stat st;
    fd_guard file(root_open_file(g_shelf.root, path, &st));
    if (file.fd < 0)
        return nullptr;
    if (st.st_size > MAX_FILE) {
        errno = EFBIG;
        return nullptr;
    }
    auto text = std::make_shared<std::string>(static_cast<size_t>(st.st_size), '\0');
    size_t have = 0;
    while (have < text->size()) {
        ssize_t n = W_read_f(__func__, file.fd, text->data() + have, text->size() - have, 1);
        if (n <= 0)
            break;
        have += static_cast<size_t>(n);
    }
    text->resize(have);
    return text;
}

static void drop_plain(shelf_entry *entry) {
    entry->plain = {};
}

static void settle_body(shelf_entry *entry, std::shared_ptr<const std::string> body, bool is_gzip) {
    bool is_same = entry->stored.body && *entry->stored.body == *body && entry->is_gzip == is_gzip;
    entry->status = 200;
    entry->good_at = clock_ms();
    if (!is_same) {
        char etag[32];
        snprintf(etag, sizeof(etag), "\"%016lx%s\"", static_cast<unsigned long>(text_hash(*body)),
                 is_gzip ? "-gz" : "");
        entry->is_gzip = is_gzip;
        entry->stored = {std::move(body), etag, nullptr};
        drop_plain(entry);
    }
}

static void ask(shelf_entry *entry);

static void on_answer(void *arg, const link_answer &answer) {
    auto entry = static_cast<shelf_entry *>(arg);
    entry->is_asking = false;
    if (answer.status != 200 || entry->kind == shelf_kind::probe) {
        settle_fault(entry, answer.status, answer.text);
        return;
    }
    std::string path = path_below(answer.text);
    auto body = path.empty() ? nullptr : read_playlist(path);
    if (path.empty()) {
        LOG_FN(LL_ERROR, "the playlist [%s] lies outside the data directory [%s]; see --data-dir\n",
               answer.text.c_str(), g_shelf.root->dir.c_str());
        settle_fault(entry, 500, "the playlist lies outside the data directory");
    } else if (body) {
        entry->was_gone = false;
        entry->lock = path + ".alk";
        settle_body(entry, std::move(body), answer.is_gzip);
        wake_waiting(entry);
    } else if (errno == ENOENT && !entry->was_gone && !g_shelf.is_closing) {
        // Deleted between answer and open: the next answer names another.
        entry->was_gone = true;
        ask(entry);
    } else {
        entry->was_gone = false;
        settle_fault(entry, 503, errno == ENOENT ? "the playlist is gone" : strerror(errno));
    }
}

static void ask(shelf_entry *entry) {
    entry->is_asking = true;
    entry->asked_at = clock_ms();
    link_ask(entry->question, on_answer, entry);
}

// --- entries ---

static void add_owned(const std::string &owner, long n) {
    if (owner.empty())
        return;
    long &count = g_shelf.owned[owner];
    count += n;
    if (count <= 0)
        g_shelf.owned.erase(owner);
}

static bool may_own(const std::string &owner) {
    auto found = g_shelf.owned.find(owner);
    return owner.empty() || found == g_shelf.owned.end() || found->second < g_shelf.opts->max_sessions;
}

static shelf_result add_entry(const std::string &question, shelf_kind kind, const std::string &owner,
                              shelf_entry **entry) {
    if (g_shelf.entries.size() >= MAX_ENTRIES)
        return shelf_result::full;
    if (!may_own(owner))
        return shelf_result::too_many;
    auto made = std::make_unique<shelf_entry>();
    made->question = question;
    made->kind = kind;
    made->owner = owner;
    made->touched_at = -TOUCH_MS;
    *entry = made.get();
    add_owned(made->owner, 1);
    g_shelf.sessions += kind == shelf_kind::moving_event;
    g_shelf.entries.emplace(question, std::move(made));
    return shelf_result::wait;
}

shelf_result shelf_get(const std::string &question, shelf_kind kind, const std::string &owner,
                       shelf_entry **entry) {
    auto found = g_shelf.entries.find(question);
    if (found == g_shelf.entries.end()) {
        shelf_result result = add_entry(question, kind, owner, entry);
        if (result != shelf_result::wait)
            return result;
        ask(*entry);
    } else {
        *entry = found->second.get();
    }
    shelf_entry *one = *entry;
    one->used_at = clock_ms();
    if (!one->is_asking && one->used_at - one->asked_at >= FRESH_MS)
        ask(one);
    return one->is_asking ? shelf_result::wait : shelf_result::ready;
}

void shelf_suspend(shelf_entry *entry, MHD_Connection *conn) {
    ++entry->pins;
    entry->waiting.push_back(conn);
    MHD_suspend_connection(conn);
}

void shelf_release(shelf_entry *entry, MHD_Connection *conn) {
    --entry->pins;
    std::erase(entry->waiting, conn);
}

static bool is_done_with(const shelf_entry *entry) {
    bool is_session = entry->kind == shelf_kind::moving_event;
    int64_t keep = entry->status != 200 ? KEEP_FAULT_MS
                   : is_session         ? g_shelf.opts->session_tmout * 1000
                                        : KEEP_MS;
    return entry->pins == 0 && !entry->is_asking && clock_ms() - entry->used_at >= keep;
}

void shelf_tick() {
    std::erase_if(g_shelf.entries, [](const auto &row) {
        const shelf_entry *entry = row.second.get();
        if (!is_done_with(entry))
            return false;
        add_owned(entry->owner, -1);
        g_shelf.sessions -= entry->kind == shelf_kind::moving_event;
        return true;
    });
}

void shelf_close() {
    g_shelf.is_closing = true;
    for (auto &[question, entry] : g_shelf.entries)
        wake_waiting(entry.get());
}

void shelf_clear() {
    g_shelf.entries.clear();
}

// --- serving ---

// A viewer that reads from here is what keeps the daemon's task alive.
static void touch(shelf_entry *entry) {
    if (clock_ms() - entry->touched_at < TOUCH_MS)
        return;
    entry->touched_at = clock_ms();
    ++g_web_counts.touches;
    if (utimensat(g_shelf.root->fd, entry->lock.c_str(), nullptr, AT_SYMLINK_NOFOLLOW) == 0 ||
        errno == ENOENT || g_shelf.has_told_touch)
        return;
    g_shelf.has_told_touch = true;
    LOG_FN(LL_ERROR, "cannot touch [%s/%s]: %s; playlists will expire under their viewers\n",
           g_shelf.root->dir.c_str(), entry->lock.c_str(), strerror(errno));
}

// The unpacked form of a compressed playlist, made once.
static bool need_plain(shelf_entry *entry) {
    if (entry->plain.body)
        return true;
    auto text = std::make_shared<std::string>();
    if (!unpack_gzip(*entry->stored.body, text.get()))
        return false;
    ++g_web_counts.inflated;
    std::string etag = entry->stored.etag;
    entry->plain.etag = etag.substr(0, etag.size() - 4) + "\"";
    entry->plain.body = std::move(text);
    return true;
}

// What has been written to its end stays as it is; everything else is a moment's picture.
static const char *cache_control(shelf_entry *entry) {
    switch (entry->kind) {
    case shelf_kind::moving_event:
        return "private, no-cache";
    case shelf_kind::vod:
        return "public, max-age=5";
    case shelf_kind::event: {
        bool is_known = !entry->is_gzip || need_plain(entry);
        const auto &text = entry->is_gzip ? entry->plain.body : entry->stored.body;
        return is_known && text->ends_with("#EXT-X-ENDLIST\n") ? "public, max-age=600" : "public, max-age=1";
    }
    default:
        return "public, max-age=1";
    }
}

static response_ptr make_response(shelf_entry *entry, const shelf_form &form, bool is_gzip) {
    response_ptr response = reply_make(form.body, TYPE_M3U8, cache_control(entry));
    if (!response)
        return response;
    reply_header(response, MHD_HTTP_HEADER_ETAG, form.etag);
    if (entry->is_gzip)
        reply_header(response, MHD_HTTP_HEADER_VARY, "Accept-Encoding");
    if (is_gzip)
        reply_header(response, MHD_HTTP_HEADER_CONTENT_ENCODING, "gzip");
    return response;
}

static MHD_Result send_form(shelf_entry *entry, MHD_Connection *conn, route what, shelf_form *form,
                            bool is_gzip) {
    const char *tags = request_header(conn, MHD_HTTP_HEADER_IF_NONE_MATCH);
    bool is_unchanged = tags && text_has_etag(tags, form->etag);
    if (!form->whole)
        form->whole = make_response(entry, *form, is_gzip);
    if (!is_unchanged)
        g_web_counts.body_bytes += form->body->size();
    return reply_queue(conn, what, is_unchanged ? MHD_HTTP_NOT_MODIFIED : MHD_HTTP_OK, form->whole.get());
}

MHD_Result shelf_send(shelf_entry *entry, MHD_Connection *conn, route what) {
    if (entry->status != 200)
        return reply_error(conn, what, entry->status ? static_cast<unsigned>(entry->status) : 503,
                           entry->status ? entry->fault : "the front end is closing");
    touch(entry);
    bool takes_stored =
        !entry->is_gzip || text_takes_gzip(request_header(conn, MHD_HTTP_HEADER_ACCEPT_ENCODING));
    if (!takes_stored && !need_plain(entry))
        return reply_error(conn, what, 502, "the playlist cannot be unpacked");
    return send_form(entry, conn, what, takes_stored ? &entry->stored : &entry->plain,
                     takes_stored && entry->is_gzip);
}
