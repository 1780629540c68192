#include "app/app.h"

#include "app/backup.h"
#include "app/cfg.h"
#include "app/discard.h"
#include "app/feed.h"
#include "app/item.h"
#include "app/manifest.h"
#include "app/mdr.h"
#include "app/pl.h"
#include "app/pl_stretch.h"
#include "app/retry.h"
#include "app/rewrite.h"
#include "app/task.h"
#include "lib/check.h"
#include "lib/fdio.h"
#include "lib/log.h"
#include "lib/netops.h"
#include "lib/rqs.h"
#include "lib/strops.h"
#include "lib/syswrap.h"
#include "lib/tmout.h"
#include "lib/util.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

LOG_UNIT(LOG_MOD_APP);

static constexpr size_t PPRM_BLOCK = 16;
static constexpr size_t TASK_BLOCK = 8;
static constexpr size_t MIN_PLBK_SEC = 100; // of a source's own playback length
static constexpr size_t MAX_PLBK_SEC = INT64_MAX;
static constexpr int TOO_MANY_SOURCES = -34;
static constexpr int NAME_IS_CONNECTED = -16;

// --- context ---

static int open_reporter() {
    if (!g_cfg.mdr.is_enabled)
        return 0;
    g_ctx.mdr = mdr_open(&g_cfg.mdr);
    return g_ctx.mdr ? 0 : -1;
}

static int build_ctx(const char **label) {
    *label = "init sources";
    int rc = xvlst_mmap_fixed(&g_ctx.sources, g_cfg.max_sources, sizeof(pl_source));
    if (rc != 0) {
        LOG(LL_ERROR, "%s: failed to pre-allocate for %zu sources\n", "init_plum_ctx", g_cfg.max_sources);
        return rc;
    }
    *label = "init pprm-tasks";
    rc = xvlst_reserve(&g_ctx.pprm_tasks, PPRM_BLOCK, sizeof(taskref), PPRM_BLOCK);
    if (rc != 0)
        return rc;
    *label = "creating source HT";
    rc = skht_create(&g_ctx.src_ht, g_cfg.max_sources, plHash, nullptr, 0);
    if (rc != 0)
        return rc;
    set_clk_now(&g_ctx.last_task_check, CLOCK_MONOTONIC);
    cpy_timespec(&g_ctx.last_task_check, &g_ctx.last_rq_check);
    g_ctx.wall_lead_ms = wall_lead_ms();
    g_ctx.last_tseq = 0;
    *label = "?";
    return open_reporter();
}

int init_plum_ctx(const rui_socket_cb &cb) {
    CHECK(!g_ctx.is_ready);
    rui_set_cb(RUI_USER, cb);
    int rc = rui_ctx_init(&g_cfg.rui, &g_ctx.rui);
    if (rc != 0)
        return rc;
    const char *label = "?";
    rc = build_ctx(&label);
    if (rc != 0) {
        LOG_FN(LL_ERROR, "failed to [%s], rc=%d\n", label, rc);
        destroy_plum_ctx();
        return rc;
    }
    g_ctx.is_ready = true;
    LOG_FN(LL_DEBUG, "OK\n");
    return 0;
}

static int save_pending(void *sources, size_t i) {
    pl_source *src = static_cast<pl_source *>(sources) + i;
    discard_last_segfile(src);
    discard_save(src);
    return 0;
}

void destroy_plum_ctx() {
    rewrite_clear();
    mdr_close(g_ctx.mdr);
    g_ctx.mdr = nullptr;
    rui_ctx_destroy(&g_ctx.rui);
    if (g_ctx.is_ready)
        xvlst_each(&g_ctx.sources, save_pending, nullptr);
    xvlst_purge_all(&g_ctx.sources, rm_src_rec);
    xvlst_reset(&g_ctx.sources);
    discard_end();
    end_deletions();
    rm_timeout(TMO_FILES);
    xvlst_reset(&g_ctx.pprm_tasks);
    if (g_ctx.src_ht)
        skht_destroy(g_ctx.src_ht, nullptr);
    g_ctx.src_ht = nullptr;
    g_ctx.last_tseq = 0;
    g_ctx.is_ready = false;
    LOG_FN(LL_DEBUG, "OK\n");
}

// --- parameters ---

// The value behind `key`, up to a blank or tab, wherever it stands in the text; empty when it does not.
static std::string_view find_param(const char *text, const char *key) {
    const char *at = strstr(text, key);
    if (!at)
        return {};
    at += strlen(key);
    return {at, strcspn(at, "\t ")};
}

static int take_data_dir(std::string_view dir, src_params *params) {
    if (dir.size() >= sizeof(params->data_dir)) {
        LOG(LL_ERROR, "%s: data_dir refused, too long: %zu bytes, max=%zu\n", "get_src_params", dir.size(),
            sizeof(params->data_dir) - 1);
        return -1;
    }
    char checked[sizeof(params->data_dir)];
    copy_cut(checked, sizeof(checked), dir);
    if (dir_check(checked) != 0)
        return -1;
    memcpy(params->data_dir, checked, sizeof(checked));
    return 0;
}

static int take_target(std::string_view text, src_params *params) {
    unsigned sec = 0;
    const char *end = text.data() + text.size();
    if (!text.empty() && (std::from_chars(text.data(), end, sec).ptr != end || sec > MAX_TARGET_SEC)) {
        LOG(LL_ERROR, "%s: target_sec refused, not a number up to %u: [%.*s]\n", "get_src_params",
            MAX_TARGET_SEC, static_cast<int>(text.size()), text.data());
        return -1;
    }
    params->target_sec = sec;
    return 0;
}

int get_src_params(const char *text, src_params *params) {
    static constexpr size_t PFX_SIZE = 64; // what is ever taken of a prefix, with the terminating zero
    size_t max_sec = 0;
    if (const char *at = strstr(text, "max_sec="))
        sscanf(at, "max_sec=%zu", &max_sec);
    // The scan takes a negative length for a huge one.
    if (max_sec > MAX_PLBK_SEC)
        max_sec = 0;
    copy_cut(params->pl_item_pfx, PFX_SIZE, find_param(text, "item_pfx="));
    if (max_sec < MIN_PLBK_SEC) {
        LOG_FN(LL_ERROR, "max_sec==%zu invalid or too small (min=%d)\n", max_sec,
               static_cast<int>(MIN_PLBK_SEC));
        return -1;
    }
    params->max_plbk_sec = max_sec;
    if (take_target(find_param(text, "target_sec="), params) != 0)
        return -1;
    std::string_view dir = find_param(text, "data_dir=");
    if (!dir.empty() && take_data_dir(dir, params) != 0)
        return -1;
    LOG_FN(LL_DEBUG, "max_sec=%zu, data_dir=[%s] pfx=[%s]\n", params->max_plbk_sec, params->data_dir,
           params->pl_item_pfx[0] ? params->pl_item_pfx : "default");
    return 0;
}

void copy_params(src_params *dst, const src_params *src) {
    if (src->max_plbk_sec != 0)
        dst->max_plbk_sec = src->max_plbk_sec;
    if (src->data_dir[0])
        memcpy(dst->data_dir, src->data_dir, sizeof(dst->data_dir));
}

// --- one source ---

static void keep_tail(pl_source *src, std::string_view tail) {
    keep_partial(src, tail);
    if (!tail.empty())
        LOG(LL_DEBUG, "%s: tail carried over [%.*s]\n", "init_src", static_cast<int>(tail.size()),
            tail.data());
}

// The task table, the item list and the event keys; without memory for them there is no service.
static void reserve_tables(pl_source *src) {
    int rc = g_cfg.min_src_tasks != g_cfg.max_src_tasks
                 ? xvlst_reserve(&src->tasks, g_cfg.min_src_tasks, sizeof(pl_task), TASK_BLOCK)
                 : xvlst_mmap_fixed(&src->tasks, g_cfg.max_src_tasks, sizeof(pl_task));
    const char *failed = rc != 0 ? "failed to reserve tasks" : nullptr;
    src->items = dlep_create(&rc);
    if (!failed && !src->items)
        failed = "failed to create item list";
    if (!failed && skht_create(&src->ev_ht, g_cfg.max_src_tasks, plHash, nullptr, 0) != 0)
        failed = "failed to create event-task HT";
    if (failed) {
        LOG(LL_ERROR, "%s: %s\n", "init_src", failed);
        log_abort();
    }
}

static void name_source(pl_source *src, const char *nametag) {
    if (strlen(nametag) >= sizeof(src->nametag))
        LOG(LL_WARN, "%s: nametag[%s] is too big, will be trimmed\n", "init_src", nametag);
    copy_cut(src->nametag, sizeof(src->nametag), nametag);
}

int init_src(pl_source *src, const char *nametag, ssize_t idx, int fd, std::string_view tail,
             const src_params *params) {
    LOG_FN(LL_DEBUG, "BEGIN src[%s] from fd%d\n", nametag, fd);
    *src = {};
    src->tag.num = PL_SRC;
    src->idx = idx;
    src->sockfd = fd;
    CHECK(is_non_blocking(fd));
    name_source(src, nametag);
    if (params && params->pl_item_pfx[0]) {
        src->item_pfx = strdup(params->pl_item_pfx);
        LOG_FN(LL_DEBUG, "src[%s] will use custom playlist-item prefix=[%s]\n", src->nametag,
               params->pl_item_pfx);
    }
    src->last_item_tm = idle_clock();
    src->vod_idx = src->live_idx = -1;
    keep_tail(src, tail);
    int rc = rqs_add_reader(fd, src);
    if (rc != 0) {
        LOG_FN(LL_ERROR, "rqs_add_reader(fd%d,..) failed\n", fd);
        return rc;
    }
    reserve_tables(src);
    src->target_sec = static_cast<unsigned>(g_cfg.min_target_sec);
    if (params) {
        copy_params(&src->param, params);
        src->target_sec = std::max(src->target_sec, params->target_sec);
    }
    set_timeout(TMO_SRC, g_cfg.src_tmout_sec * 1000L);
    src->has_timer = true;
    discard_resume(src);
    if (!is_backup_name(src->nametag))
        read_manifest(src);
    discard_keep_listed(src);
    LOG_FN(LL_DEBUG, "END src[%s] fd%d, rc=%d\n", src->nametag, fd, rc);
    return rc;
}

static void unhash(pl_source *src) {
    CHECK(g_ctx.src_ht);
    if (!src->is_hashed)
        return;
    void *data = nullptr;
    int rc = skht_rm(g_ctx.src_ht, src->nametag, &data);
    if (rc != 0) {
        LOG(LL_ERROR, "%s: cannot un-hash [%s], rc=%d\n", "destroy_src", src->nametag, rc);
        return;
    }
    CHECK(data == src);
    src->is_hashed = false;
    LOG(LL_DEBUG, "%s: removed [%s] from hash\n", "destroy_src", src->nametag);
}

static void free_texts(pl_source *src) {
    if (src->tail)
        LOG(LL_DEBUG, "%s: tail freed\n", "destroy_src");
    // The file behind it stays: nobody has fetched a later playlist yet.
    if (src->rcy_fpath)
        LOG(LL_DEBUG, "%s: rcy_path=[%s]\n", "destroy_src", src->rcy_fpath);
    if (src->item_pfx)
        LOG(LL_DEBUG, "%s: item_pfx=[%s]\n", "destroy_src", src->item_pfx);
    keep_partial(src, {});
    for (char **text : {&src->rcy_fpath, &src->item_pfx}) {
        free(*text);
        *text = nullptr;
    }
}

static int forget_master(void *sources, size_t i, void *master) {
    pl_source *src = static_cast<pl_source *>(sources) + i;
    auto *gone = static_cast<pl_source *>(master);
    if (src->master != gone)
        return 0;
    // It is a backup again, with the prefix that the master had of it.
    src->master = nullptr;
    src->is_defunct = false;
    if (!src->item_pfx)
        std::swap(src->item_pfx, gone->item_pfx);
    if (src->sockfd >= 0)
        src->last_item_tm = idle_clock();
    return 0;
}

static void free_item_elem(dlep_elem *elem) {
    free_item(dlep_as<pl_item>(elem));
}

void destroy_src(pl_source *src) {
    CHECK(src->tag.num == PL_SRC);
    LOG_FN(LL_DEBUG, "[%s] idx=%zd BEGIN\n", src->nametag, src->idx);
    unhash(src);
    src->master = nullptr;
    xvlst_each_aux(&g_ctx.sources, src, forget_master, nullptr);
    discard_last_segfile(src);
    free_texts(src);
    xvlst_purge_all(&src->tasks, rm_task_rec);
    xvlst_reset(&src->tasks);
    discard_orphan(src);
    stretch_drop(src);
    if (src->items)
        dlep_destroy(src->items, free_item_elem);
    src->items = nullptr;
    slab_reset(&src->item_slabs);
    if (src->ev_ht)
        skht_destroy(src->ev_ht, free);
    src->ev_ht = nullptr;
    if (src->has_timer)
        rm_timeout(TMO_SRC);
    src->has_timer = false;
    if (src->sockfd >= 0) {
        rqs_rm_fd(src->sockfd);
        W_close(__func__, src->sockfd);
        src->sockfd = -1;
    }
    tag_expire(src->tag);
    LOG_FN(LL_DEBUG, "[%s] idx=%zd END\n", src->nametag, src->idx);
}

int rm_src_rec(void *sources, size_t i) {
    destroy_src(static_cast<pl_source *>(sources) + i);
    return 0;
}

// --- the registry ---

// A source whose playlists could never be named in an answer would serve nobody. Nobody asks for a backup's.
static bool can_be_answered(const char *nametag, const char *data_dir) {
    size_t len = shortest_response(data_dir[0] ? data_dir : g_cfg.data_dir, nametag);
    if (len <= MAX_RESPONSE || is_backup_name(nametag))
        return true;
    LOG(LL_ERROR,
        "%s: source refused, the shortest answer with its playlist is too long: %zu bytes, max=%zu [%s]\n",
        "add_source", len, MAX_RESPONSE, nametag);
    return false;
}

// The manifest's name is made of the source's: a name that does not fit there is refused before it is needed.
static bool is_acceptable_name(const char *nametag, const src_params *params) {
    if (has_dotdot(nametag)) {
        LOG(LL_ERROR, "%s: source name refused, it leaves the data directory: %zu bytes [%s]\n", "add_source",
            strlen(nametag), nametag);
        return false;
    }
    if (is_backup_name(nametag))
        return true;
    char path[MAX_MANIFEST_PATH];
    int n = mk_manifest_path(params, nametag, path, sizeof(path));
    if (n < static_cast<int>(sizeof(path)))
        return can_be_answered(nametag, params->data_dir);
    LOG(LL_ERROR, "%s: source name refused, its manifest path is too long: %d bytes, max=%zu [%s]\n",
        "add_source", n, sizeof(path) - 1, nametag);
    return false;
}

// The daemon never writes to a source.
static void stop_sending(int fd) {
    shutdown(fd, SHUT_WR);
    LOG(LL_DEBUG, "%s: shutdown(fd%d, SHUT_WR)\n", "add_source", fd);
}

static int duplicate_socket(int sockfd) {
    int fd = dup(sockfd);
    if (fd < 0)
        LOG(LL_ERROR, "%s: dup(fd%d) ERROR(%d): %s\n", "add_source", sockfd, errno, strerror(errno));
    return fd;
}

static int hash_source(pl_source *src) {
    void *data = src;
    // The table keeps long keys cut, and would not find them again.
    int rc = strlen(src->nametag) > HT_KEY_MAX ? EOVERFLOW : skht_add(g_ctx.src_ht, src->nametag, &data);
    if (rc != 0) {
        LOG(LL_ERROR, "%s: cannot hash src[%s] (%p), rc=%d\n", "add_source", src->nametag,
            static_cast<void *>(src), rc);
        return rc;
    }
    src->is_hashed = true;
    LOG(LL_DEBUG, "%s: src[%s] (%p) hashed\n", "add_source", src->nametag, static_cast<void *>(src));
    return 0;
}

// `fd` is owned by the source, or closed.
static int register_source(int fd, const char *nametag, std::string_view tail, const src_params *params) {
    ssize_t j = xvlst_add(&g_ctx.sources, sizeof(pl_source), 1);
    if (j < 0) {
        LOG(LL_ERROR, "%s: cannot add source [%s] to app, j=%zd\n", "add_source", nametag, j);
        W_close("add_source", fd);
        return -1;
    }
    pl_source *src = xvlst_at<pl_source>(g_ctx.sources, static_cast<size_t>(j));
    int rc = init_src(src, nametag, j, fd, tail, params);
    if (rc == 0) {
        stop_sending(fd);
        rc = hash_source(src);
    }
    if (rc != 0) {
        LOG(LL_WARN, "%s: src[%s] (%p) is to be deleted\n", "add_source", nametag, static_cast<void *>(src));
        xvlst_del(&g_ctx.sources, static_cast<size_t>(j), rm_src_rec);
        return rc;
    }
    LOG(LL_INFO, "src[%s] fd%d (%p) created\n", nametag, fd, static_cast<void *>(src));
    check_partner(src);
    feed_carried(src);
    return 0;
}

static int create_source(const pl_urq *urq, const char *nametag, const char *text) {
    src_params params{};
    params.max_plbk_sec = g_cfg.max_plbk_sec;
    int rc = 0;
    if (text && *text) {
        rc = get_src_params(text, &params);
        if (rc != 0) {
            LOG(LL_ERROR, "%s: failed processing parameters for src[%s]\n", "add_source", nametag);
            LOG(LL_ERROR, "%s: src[%s] is NULL, dismissing\n", "add_source", nametag);
            return rc;
        }
    }
    if (!is_acceptable_name(nametag, &params))
        return -1;
    int fd = duplicate_socket(urq->rq.fd);
    return fd < 0 ? -1 : register_source(fd, nametag, {urq->tail, urq->tail_len}, &params);
}

// A backup that comes back under its name is a backup again, and needs a prefix when its own was taken over.
static void renew_role(pl_source *src, const src_params &params) {
    if (src->is_defunct && !src->item_pfx && params.pl_item_pfx[0])
        src->item_pfx = strdup(params.pl_item_pfx);
    src->is_defunct = false;
    src->master = nullptr;
}

static int restore_source(pl_source *src, const pl_urq *urq, const char *text) {
    // The next producer can come before the end of the last one is looked at.
    if (src->sockfd != -1 && has_hung_up(src->sockfd)) {
        drain_source(src);
        source_error(src, true);
    }
    if (src->sockfd != -1)
        return NAME_IS_CONNECTED;
    src_params params{};
    if (text && *text) {
        LOG(LL_INFO, "%s: new params=[%s]\n", "add_source", text);
        if (get_src_params(text, &params) != 0)
            return -1;
        if (params.data_dir[0] && !can_be_answered(src->nametag, params.data_dir))
            return -1;
        copy_params(&src->param, &params);
        src->target_sec = std::max(src->target_sec, params.target_sec);
    }
    int fd = duplicate_socket(urq->rq.fd);
    if (fd < 0)
        return -1;
    src->sockfd = fd;
    CHECK(src->sockfd >= 0);
    int rc = rqs_add_reader(src->sockfd, src);
    if (rc != 0) {
        LOG(LL_ERROR, "%s: rqs_add_reader(fd%d,..) failed\n", "add_source", src->sockfd);
        W_close("add_source", src->sockfd);
        src->sockfd = -1;
        return rc;
    }
    stop_sending(src->sockfd);
    keep_tail(src, {urq->tail, urq->tail_len});
    renew_role(src, params);
    LOG(LL_INFO, "src[%s] fd%d restored with params=[%s]\n", src->nametag, src->sockfd, text ? text : "");
    src->last_item_tm = idle_clock();
    check_partner(src);
    feed_carried(src);
    return 0;
}

int add_source(pl_urq *urq, const char *nametag, const char *params) {
    LOG_FN(LL_DEBUG, "src[%s], params=[%s]\n", nametag, params ? params : "");
    CHECK(g_ctx.src_ht);
    pl_source *src = src_by_name(nametag);
    if (g_ctx.sources.len >= g_cfg.max_sources) {
        LOG(LL_ERROR, "Cannot add more sources, already at max=%zu/%zu\n", g_ctx.sources.len,
            g_cfg.max_sources);
        if (src && src->sockfd < 0)
            LOG_FN(LL_ERROR, "src[%s] is known, but not re-attached while the registry is full\n",
                   src->nametag);
        return TOO_MANY_SOURCES;
    }
    if (!src)
        return create_source(urq, nametag, params);
    LOG(LL_WARN, "src[%s] already exists (%p), fd%d\n", nametag, static_cast<void *>(src), src->sockfd);
    return restore_source(src, urq, params);
}

// --- errors ---

void source_error(pl_source *src, bool is_hup) {
    int err = src->sockfd >= 0 ? socket_error(src->sockfd) : 0;
    LOG_FN(hangup_level(err), "%s src[%s] %s(%d): %s\n", is_hup ? "HUP" : "", src->nametag,
           err != 0 ? "ERROR" : "", err, strerror(err));
    suspend_source(src, err);
}

[[noreturn]] void listener_error(rui_socket_ctx *srv, bool is_hup) {
    rui_crash_on_error(srv, is_hup, __func__);
}
