#include "app/pl.h"

#include "app/pl_file.h"
#include "app/task.h"
#include "lib/check.h"
#include "lib/log.h"
#include "lib/strops.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

LOG_UNIT(LOG_MOD_APP);

pl_source *find_pl_source(const char *nametag, const char **errmsg, int *code) {
    pl_source *src = src_by_name(nametag);
    if (!src) {
        *errmsg = "source not found";
        *code = PL_NOT_FOUND;
        LOG_FN(LL_ERROR, "src[%s] not found [%s]\n", nametag, *errmsg);
        return nullptr;
    }
    CHECK(src->tag.num == PL_SRC);
    if (dlep_count(src->items) == 0) {
        *errmsg = "no items";
        *code = PL_NO_ITEMS;
        LOG_FN(LL_ERROR, "matched src[%s] has no items\n", nametag);
        return nullptr;
    }
    return src;
}

// --- live and VOD tasks ---

// Hands out the task once its playlist is written; one that has none goes at the end of the pass.
static pl_task *publish_task(const char *caller, pl_task *task, ssize_t *shared_idx, const char *kind) {
    LOG(LL_INFO, "%s: %s%u (%p) idx=%zd created\n", caller, task->tag.sym, task->tseq,
        static_cast<void *>(task), task->idx);
    CHECK(task->ifirst && task->ilast);
    if (mk_playlist(task) != 0) {
        pprm_task(task);
        return nullptr;
    }
    CHECK(-1 == *shared_idx);
    *shared_idx = task->idx;
    LOG(LL_DEBUG, "%s: %s%u is %s-playlist for [%s]\n", caller, task->tag.sym, task->tseq, kind,
        task->src->nametag);
    return task;
}

// The window of `items` is to hold one item more than the configured number.
static bool wants_older(const pl_task *task, size_t items) {
    return items <= g_cfg.max_live_items || (task->is_strict && task->window_sec < hold_back_sec(task));
}

pl_task *mk_live_task(pl_source *src, bool must_gzip) {
    pl_task *task = add_task(__func__, src, PL_LIV);
    if (!task)
        return nullptr;
    task->is_live = true;
    task->is_gzipped = must_gzip;
    task->ilast = task->ifirst = newest_item(src);
    CHECK(task->ifirst);
    task->window_sec = task->ifirst->duration;
    for (size_t n = 1; wants_older(task, n) && older_item(task->ifirst); ++n) {
        task->ifirst = older_item(task->ifirst);
        task->window_sec += task->ifirst->duration;
    }
    return publish_task(__func__, task, &src->live_idx, "LIVE");
}

pl_task *mk_vod_task(pl_source *src, bool must_gzip) {
    pl_task *task = add_task(__func__, src, PL_VOD);
    if (!task)
        return nullptr;
    task->is_live = false;
    task->is_gzipped = must_gzip;
    task->ifirst = oldest_item(src);
    task->ilast = newest_item(src);
    return publish_task(__func__, task, &src->vod_idx, "VOD");
}

// The shared task behind `idx`.
static pl_task *pull_task(pl_source *src, ssize_t idx, uint32_t tag) {
    CHECK(idx >= 0 && xvlst_taken(src->tasks, static_cast<size_t>(idx)));
    pl_task *task = src_task(src, idx);
    CHECK(task->tag.num == tag);
    LOG(LL_DEBUG, "%s: pulled up existing %s%u (%p), idx=%zd\n", "get_pl", task->tag.sym, task->tseq,
        static_cast<void *>(task), idx);
    return task;
}

static pl_task *pull_or_make(bool is_live, pl_source *src) {
    ssize_t idx = is_live ? src->live_idx : src->vod_idx;
    if (idx >= 0)
        return pull_task(src, idx, is_live ? PL_LIV : PL_VOD);
    LOG(LL_DEBUG, "%s: making new %s task\n", "get_pl", is_live ? "LIVE" : "VOD");
    // VOD playlists grow long: they are always compressed.
    return is_live ? mk_live_task(src, g_cfg.has_gzip_pl && !g_cfg.text_live_pl) : mk_vod_task(src, true);
}

static int get_pl(bool is_live, pl_urq *urq, const char *itag, const char *nametag) {
    LOG_FN(LL_DEBUG, "%s for src[%s] itag=%s, URQ [%s] (%p)\n", is_live ? "LIVE" : "VOD", nametag, itag,
           urq->rq.trk_tag.sym8, static_cast<void *>(urq));
    int code = PL_OK;
    const char *errmsg = nullptr;
    pl_task *task = nullptr;
    if (pl_source *src = find_pl_source(nametag, &errmsg, &code))
        task = pull_or_make(is_live, src);
    if (task) {
        LOG_FN(LL_DEBUG, "%s%u (%p) bound to %s playlist\n", task->tag.sym, task->tseq,
               static_cast<void *>(task), is_live ? "LIVE" : "VOD");
        // A task that lost its file gets a new one before it is named.
        if (task->must_sync_playlist || task->fpath[0] == '\0')
            code = mk_playlist(task);
    }
    set_response(urq, task, itag, errmsg, &code);
    return code;
}

int get_live_pl(pl_urq *urq, const char *itag, const char *nametag) {
    return get_pl(true, urq, itag, nametag);
}

int get_vod_pl(pl_urq *urq, const char *itag, const char *nametag) {
    return get_pl(false, urq, itag, nametag);
}

// Sharing a strict playlist means beginning at the same place.
static bool begins_alike(const pl_task *task, const pl_tspec *key) {
    if (!key->is_strict || !task->is_strict)
        return key->is_strict == task->is_strict;
    return task->shift_sec == key->shift_sec && (key->shift_sec > 0 || task->start_time == key->start_time);
}

int match_task(void *tasks, size_t idx, void *spec) {
    const pl_task *task = static_cast<const pl_task *>(tasks) + idx;
    const pl_tspec *key = static_cast<const pl_tspec *>(spec);
    if (task->tag.num != key->tag.num || task->ifirst != key->ifirst || task->end_time != key->end_time ||
        task->peer_tag || !begins_alike(task, key))
        return 0;
    LOG_FN(LL_DEBUG, "%s mseq=(%zu) <-> [%s%u] mseq=%zu\n", key->tag.sym, key->ifirst->mseq, task->tag.sym,
           task->tseq, task->ifirst->mseq);
    if (task->pprm_idx >= 0) {
        LOG_FN(LL_DEBUG, "[t%u] is pprm, dismissed\n", task->tseq);
        return 0;
    }
    LOG_FN(LL_DEBUG, "matched [t%u]\n", task->tseq);
    return 1;
}

// --- responses ---

int errno2http(int err) {
    static constexpr struct {
        int err;
        int status;
    } TABLE[] = {{0, 200}, {EPERM, 403}, {ENOENT, 404}, {ESRCH, 404}, {EAGAIN, 503}, {EINVAL, 400}};
    for (const auto &row : TABLE)
        if (row.err == err)
            return row.status;
    return 500;
}

size_t shortest_response(const char *dir, const char *nametag) {
    return strlen("T text/M3U ") + shortest_path(dir, nametag) + strlen(" \n");
}

// False when the line would be too long.
static bool format_success(const pl_task *task, const char *client_id, char (&buf)[MAX_RESPONSE]) {
    const char *form = task->is_gzipped ? "gzip/M3U" : "text/M3U";
    size_t len = join_cut(buf, sizeof(buf), {client_id, " ", form, " ", task->fpath, " \n"});
    if (len <= MAX_RESPONSE)
        return true;
    LOG(LL_ERROR, "%s: insufficient space for response, need/got %zu/%zu bytes, resp=%s\n", "mk_response",
        len, MAX_RESPONSE, buf);
    return false;
}

char *mk_response(pl_task *task, const char *client_id, const char *errmsg, int *prc) {
    LOG_FN(LL_DEBUG, "task=%p, client=[%s], err=%s, rc=%d\n", static_cast<void *>(task), client_id,
           errmsg ? errmsg : "-", *prc);
    char buf[MAX_RESPONSE] = "";
    int code = *prc;
    if (code == 0 && !task)
        code = -1;
    if (code == 0) {
        task->last_io_time = time(nullptr);
        if (!format_success(task, client_id, buf))
            code = -1;
    }
    if (code != 0)
        snprintf(buf, sizeof(buf), "%s ERROR HTTP:%d - %s\n", client_id, errno2http(code),
                 errmsg ? errmsg : "internal");
    *prc = code;
    LOG_FN(LL_DEBUG, "response=%s\n", buf);
    char *response = strdup(buf);
    CHECK(buf[0] && response);
    return response;
}

void set_response(pl_urq *urq, pl_task *task, const char *itag, const char *errmsg, int *prc) {
    char *response = mk_response(task, itag, errmsg, prc);
    if (urq->response)
        free(response);
    else
        urq->response = response;
}
