#include "tools/web/files.h"

#include "lib/syswrap.h"
#include "tools/web/clock.h"
#include "tools/web/text.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <unordered_map>

// A file that changed so recently may still be growing under a guessed name: nobody may keep that long.
static constexpr int64_t YOUNG_SEC = 3;
static constexpr char CACHE_YOUNG[] = "public, max-age=2";

struct type_row {
    std::string_view suffix;
    const char *type;
};
static constexpr type_row SEGMENT_TYPES[] = {{".ts", "video/mp2t"},
                                             {".m4s", "video/iso.segment"},
                                             {".mp4", "video/mp4"},
                                             {".aac", "audio/aac"},
                                             {".vtt", "text/vtt; charset=utf-8"}};
static constexpr type_row PAGE_TYPES[] = {{".html", "text/html; charset=utf-8"},
                                          {".css", "text/css; charset=utf-8"},
                                          {".js", "text/javascript; charset=utf-8"},
                                          {".svg", "image/svg+xml"},
                                          {".txt", TYPE_TEXT}};

template <size_t N> static const char *find_type(const type_row (&rows)[N], std::string_view path) {
    for (const type_row &row : rows)
        if (path.ends_with(row.suffix))
            return row.type;
    return nullptr;
}

const char *files_segment_type(std::string_view path) {
    return find_type(SEGMENT_TYPES, path);
}

const char *files_page_type(std::string_view path) {
    return find_type(PAGE_TYPES, path);
}

void root_close(file_root *root) {
    if (root->fd >= 0)
        W_close(__func__, root->fd);
    root->fd = -1;
}

static int open_beneath(int dir, const char *path) {
    open_how how{};
    how.flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    return static_cast<int>(syscall(SYS_openat2, dir, path, &how, sizeof(how)));
}

static int open_root(file_root *root) {
    int fd = open(root->dir.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    std::error_code err;
    root->real = fd < 0 ? "" : std::filesystem::canonical(root->dir, err).string();
    return fd;
}

int root_open(file_root *root, const std::string &dir) {
    root->dir = dir;
    root->fd = open_root(root);
    if (root->fd < 0) {
        fprintf(stderr, "lumo-web: cannot open the directory [%s]: %s\n", dir.c_str(), strerror(errno));
        return -1;
    }
    // Also where a sandbox or an old kernel takes the call away, which would look like missing files.
    fd_guard self(open_beneath(root->fd, "."));
    bool is_denied = self.fd < 0 && (errno == EPERM || errno == ENOSYS);
    if (is_denied)
        fprintf(stderr, "lumo-web: openat2 is not allowed here: %s\n", strerror(errno));
    return is_denied ? -1 : 0;
}

// The directory that is open here has been removed; another may stand under its name.
static bool reopen_root(file_root *root) {
    struct stat st;
    if (fstat(root->fd, &st) == 0 && st.st_nlink > 0)
        return false;
    int fd = open_root(root);
    if (fd < 0)
        return false;
    root_close(root);
    root->fd = fd;
    return true;
}

int root_open_file(file_root *root, const std::string &path, struct stat *st) {
    int fd = open_beneath(root->fd, path.c_str());
    if (fd < 0 && errno == ENOENT && reopen_root(root))
        fd = open_beneath(root->fd, path.c_str());
    if (fd < 0) {
        bool is_hidden = errno == ELOOP || errno == EXDEV || errno == ENOTDIR || errno == ENXIO;
        errno = is_hidden || errno == ENAMETOOLONG ? ENOENT : errno;
        return -1;
    }
    if (fstat(fd, st) == 0 && S_ISREG(st->st_mode))
        return fd;
    close(fd);
    errno = ENOENT;
    return -1;
}

static std::string file_etag(const struct stat &st) {
    char buf[64];
    snprintf(buf, sizeof(buf), "\"%lx-%lx-%lx\"", static_cast<unsigned long>(st.st_size),
             static_cast<unsigned long>(st.st_mtim.tv_sec), static_cast<unsigned long>(st.st_mtim.tv_nsec));
    return buf;
}

static bool is_unchanged(MHD_Connection *conn, const struct stat &st, const std::string &etag) {
    if (const char *tags = request_header(conn, MHD_HTTP_HEADER_IF_NONE_MATCH))
        return text_has_etag(tags, etag);
    const char *since = request_header(conn, MHD_HTTP_HEADER_IF_MODIFIED_SINCE);
    return since && text_parse_date(since) >= st.st_mtim.tv_sec;
}

static byte_range wanted_range(MHD_Connection *conn, const struct stat &st, const std::string &etag) {
    const char *value = request_header(conn, MHD_HTTP_HEADER_RANGE);
    const char *only_if = request_header(conn, MHD_HTTP_HEADER_IF_RANGE);
    bool is_same = !only_if || etag == only_if || text_parse_date(only_if) == st.st_mtim.tv_sec;
    if (!value || !is_same)
        return {range_kind::none, 0, 0};
    return text_range(value, static_cast<uint64_t>(st.st_size));
}

static std::string content_range(const byte_range &part, const struct stat &st) {
    std::string size = std::to_string(st.st_size);
    if (part.kind == range_kind::unsatisfiable)
        return "bytes */" + size;
    return "bytes " + std::to_string(part.first) + "-" + std::to_string(part.first + part.count - 1) + "/" +
           size;
}

// --- answers that are used again: those who watch live all want the same segments ---

static constexpr int64_t KEEP_MS = 1000;
static constexpr size_t MAX_KEPT = 256;

struct kept_answer {
    response_ptr response; // a whole file, open
    uint64_t size;
    int64_t made_at;
};
static std::unordered_map<std::string, kept_answer> g_kept; // by path

static bool wants_whole(MHD_Connection *conn) {
    for (const char *name :
         {MHD_HTTP_HEADER_RANGE, MHD_HTTP_HEADER_IF_NONE_MATCH, MHD_HTTP_HEADER_IF_MODIFIED_SINCE})
        if (request_header(conn, name))
            return false;
    return true;
}

static const kept_answer *find_kept(const std::string &path) {
    auto found = g_kept.find(path);
    bool is_fresh = found != g_kept.end() && clock_ms() - found->second.made_at < KEEP_MS;
    return is_fresh ? &found->second : nullptr;
}

static void keep_answer(const std::string &path, response_ptr response, uint64_t size) {
    if (g_kept.size() < MAX_KEPT || g_kept.contains(path))
        g_kept[path] = {std::move(response), size, clock_ms()};
}

void files_tick() {
    std::erase_if(g_kept, [](const auto &row) { return clock_ms() - row.second.made_at >= KEEP_MS; });
}

void files_close() {
    g_kept.clear();
}

// --- answering ---

// The answer to a file that is open; the descriptor goes with it.
static MHD_Result send_open(MHD_Connection *conn, route what, const std::string &path, int fd,
                            const struct stat &st, const char *type, const char *cache) {
    std::string etag = file_etag(st);
    bool is_known = is_unchanged(conn, st, etag);
    byte_range part = is_known ? byte_range{range_kind::none, 0, 0} : wanted_range(conn, st, etag);
    unsigned status = is_known                                 ? MHD_HTTP_NOT_MODIFIED
                      : part.kind == range_kind::part          ? MHD_HTTP_PARTIAL_CONTENT
                      : part.kind == range_kind::unsatisfiable ? MHD_HTTP_RANGE_NOT_SATISFIABLE
                                                               : MHD_HTTP_OK;
    uint64_t count = part.kind == range_kind::part ? part.count : static_cast<uint64_t>(st.st_size);
    bool is_empty = status == MHD_HTTP_RANGE_NOT_SATISFIABLE;
    if (is_empty)
        close(fd);
    response_ptr response =
        is_empty ? reply_text("", type, cache) : reply_file(fd, part.first, count, type, cache);
    if (!response)
        return MHD_NO;
    reply_header(response, MHD_HTTP_HEADER_ETAG, etag);
    reply_header(response, MHD_HTTP_HEADER_LAST_MODIFIED, text_http_date(st.st_mtim.tv_sec));
    reply_header(response, MHD_HTTP_HEADER_ACCEPT_RANGES, "bytes");
    if (status == MHD_HTTP_PARTIAL_CONTENT || status == MHD_HTTP_RANGE_NOT_SATISFIABLE)
        reply_header(response, MHD_HTTP_HEADER_CONTENT_RANGE, content_range(part, st));
    if (status == MHD_HTTP_OK || status == MHD_HTTP_PARTIAL_CONTENT)
        g_web_counts.body_bytes += count;
    MHD_Result result = reply_queue(conn, what, status, response.get());
    if (status == MHD_HTTP_OK && what == route::segment)
        keep_answer(path, std::move(response), count);
    return result;
}

// The proxy opens the file itself, and answers to ranges and tags.
static MHD_Result send_accel(MHD_Connection *conn, route what, const std::string &target, const char *type,
                             const char *cache) {
    response_ptr response = reply_text("", type, cache);
    if (!response)
        return MHD_NO;
    reply_header(response, "X-Accel-Redirect", target);
    return reply_queue(conn, what, MHD_HTTP_OK, response.get());
}

MHD_Result files_send(MHD_Connection *conn, route what, file_root *root, const std::string &path,
                      const char *type, const char *cache, const std::string *accel) {
    bool may_be_kept = what == route::segment && !accel && wants_whole(conn);
    if (const kept_answer *kept = may_be_kept ? find_kept(path) : nullptr) {
        g_web_counts.body_bytes += kept->size;
        return reply_queue(conn, what, MHD_HTTP_OK, kept->response.get());
    }
    struct stat st;
    int fd = root_open_file(root, path, &st);
    if (fd < 0) {
        unsigned status = errno == ENOENT   ? MHD_HTTP_NOT_FOUND
                          : errno == EACCES ? MHD_HTTP_FORBIDDEN
                                            : MHD_HTTP_SERVICE_UNAVAILABLE;
        return reply_error(conn, what, status,
                           status == MHD_HTTP_NOT_FOUND ? "no such file" : strerror(errno));
    }
    bool is_young = what == route::segment && clock_wall() - st.st_mtim.tv_sec < YOUNG_SEC;
    const char *keep = is_young ? CACHE_YOUNG : cache;
    if (!accel)
        return send_open(conn, what, path, fd, st, type, keep);
    close(fd);
    return send_accel(conn, what, *accel + "/" + text_escape(path), type, keep);
}
