#include "app/discard.h"

#include "app/retry.h"
#include "lib/log.h"
#include "lib/rqs.h"
#include "lib/strops.h"
#include "lib/syswrap.h"
#include "lib/util.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string_view>
#include <unistd.h>
#include <unordered_set>
#include <utility>

LOG_UNIT(LOG_MOD_APP);

static constexpr int64_t MAX_KEEP_SEC = 604800;
static constexpr size_t MAX_PATH = 256;
static constexpr size_t MAX_LINE = MAX_PATH + 32;

struct discard_node {
    discard_node *next;
    time_t due;  // the loop's seconds
    char path[]; // full
};

static discard_queue g_orphans;

static time_t loop_sec() {
    return rqs_now_ref()->tv_sec;
}

bool is_discard_on() {
    return g_cfg.keep_retired_sec > 0;
}

static void append(discard_queue *queue, discard_node *node) {
    node->next = nullptr;
    (queue->last ? queue->last->next : queue->first) = node;
    queue->last = node;
}

// Whoever made the file may have deleted it meanwhile.
static bool delete_late(const char *caller, const char *path) {
    return unlink(path) == 0 || (errno != ENOENT && delete_file(caller, path) == 0);
}

static void push(discard_queue *queue, const char *path, time_t due) {
    size_t size = strlen(path) + 1;
    auto *node = static_cast<discard_node *>(W_calloc("discard_file", 1, sizeof(discard_node) + size));
    if (!node)
        return;
    memcpy(node->path, path, size);
    node->due = due;
    append(queue, node);
}

static void drop_first(discard_queue *queue) {
    discard_node *node = queue->first;
    queue->first = node->next;
    if (!queue->first)
        queue->last = nullptr;
    free(node);
}

void discard_file(pl_source *src, const char *path, int64_t age_sec) {
    int64_t left = std::max<int64_t>(0, g_cfg.keep_retired_sec - age_sec);
    LOG_FN(LL_DEBUG, "[%s] stays for %" PRId64 " sec\n", path, left);
    push(&src->discards, path, loop_sec() + left);
}

// Frees the nodes whose path is no longer to be deleted.
template <class pred> static void drop_if(discard_queue *queue, pred is_used) {
    discard_node *node = std::exchange(*queue, {}).first;
    while (node) {
        discard_node *next = node->next;
        if (is_used(node->path))
            free(node);
        else
            append(queue, node);
        node = next;
    }
}

void discard_forget(pl_source *src, const char *path) {
    for (discard_queue *queue : {&src->discards, &g_orphans})
        drop_if(queue, [path](const char *name) { return strcmp(name, path) == 0; });
}

bool discard_next_due(pl_source *src) {
    discard_queue *queue = src ? &src->discards : &g_orphans;
    if (!queue->first || queue->first->due > loop_sec())
        return false;
    LOG_FN(LL_DEBUG, "removing [%s]\n", queue->first->path);
    bool is_gone = delete_late(__func__, queue->first->path);
    if (src)
        src->counts.deleted += is_gone;
    drop_first(queue);
    return true;
}

bool has_orphans() {
    return g_orphans.first != nullptr;
}

void discard_orphan(pl_source *src) {
    if (!src->discards.first)
        return;
    (g_orphans.last ? g_orphans.last->next : g_orphans.first) = src->discards.first;
    g_orphans.last = src->discards.last;
    src->discards = {};
}

void discard_end() {
    while (g_orphans.first) {
        delete_late(__func__, g_orphans.first->path);
        drop_first(&g_orphans);
    }
}

// --- over a restart ---

using pending_path = char[MAX_PATH];

static bool mk_path(const pl_source *src, pending_path &path) {
    int n = snprintf(path, sizeof(path), "%s/%s/%s.pending", src_data_dir(src), src->nametag, src->nametag);
    return n > 0 && n < static_cast<int>(sizeof(path));
}

// The file's path in the source's directory; null when it is not below it.
static const char *path_below(const char *dir, const char *path) {
    size_t len = strlen(dir);
    return strncmp(path, dir, len) == 0 && path[len] == '/' ? path + len + 1 : nullptr;
}

// Whatever the mask: who may write to it names files to delete.
static FILE *open_pending(const char *path) {
    fd_guard file(open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    FILE *fp = file.fd < 0 ? nullptr : fdopen(file.fd, "w");
    if (fp)
        file.release();
    return fp;
}

void discard_save(pl_source *src) {
    pending_path path;
    if (!src->discards.first)
        return;
    const bool is_played = !is_backup_name(src->nametag); // a stand-in's own list never is
    FILE *fp = is_played && mk_path(src, path) ? open_pending(path) : nullptr;
    bool is_kept = fp != nullptr;
    time_t now = time(nullptr);
    for (const discard_node *node = src->discards.first; is_kept && node; node = node->next) {
        const char *below = path_below(src_data_dir(src), node->path);
        if (below)
            is_kept = fprintf(fp, "%" PRId64 " %s\n", now + (node->due - loop_sec()), below) > 0;
        else
            delete_late(__func__, node->path);
    }
    is_kept = fp && fclose(fp) == 0 && is_kept;
    if (!is_kept && is_played) {
        LOG_FN(LL_ERROR, "src[%s] cannot keep its pending deletions, ERROR(%d): %s\n", src->nametag, errno,
               strerror(errno));
        if (fp)
            unlink(path);
    }
    for (; src->discards.first; drop_first(&src->discards))
        if (!is_kept)
            delete_late(__func__, src->discards.first->path);
}

// A line can name nothing outside the source's directory, and one that was cut names nothing.
static void take_line(pl_source *src, std::string_view line) {
    line_scan scan{.rest = line};
    int64_t due = 0;
    char full[MAX_PATH];
    std::string_view path = scan_long(&scan, &due) ? scan_word(&scan) : std::string_view{};
    if (path.empty() || has_dotdot(path) || line.back() != '\n')
        return;
    int n = snprintf(full, sizeof(full), "%s/%.*s", src_data_dir(src), static_cast<int>(path.size()),
                     path.data());
    int64_t left = std::clamp<int64_t>(due, 0, INT64_MAX / 2) - time(nullptr);
    if (n > 0 && n < static_cast<int>(sizeof(full)))
        push(&src->discards, full, loop_sec() + std::clamp<int64_t>(left, 0, MAX_KEEP_SEC));
}

void discard_resume(pl_source *src) {
    pending_path path;
    FILE *fp = mk_path(src, path) ? fopen_regular(path) : nullptr;
    if (!fp)
        return;
    char line[MAX_LINE];
    while (fgets(line, sizeof(line), fp))
        take_line(src, line);
    fclose(fp);
    W_unlink(__func__, path);
}

void discard_keep_listed(pl_source *src) {
    if (!src->discards.first && !g_orphans.first)
        return;
    std::unordered_set<std::string_view> listed;
    for (const pl_item *item = oldest_item(src); item; item = newer_item(item))
        listed.insert(item->path);
    for (discard_queue *queue : {&src->discards, &g_orphans})
        drop_if(queue, [&](const char *path) {
            const char *below = path_below(src_data_dir(src), path);
            return below && listed.contains(below);
        });
}
