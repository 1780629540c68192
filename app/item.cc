#include "app/item.h"

#include "app/adjust.h"
#include "app/discard.h"
#include "app/pl_stretch.h"
#include "app/retry.h"
#include "app/seq.h"
#include "lib/check.h"
#include "lib/log.h"
#include "lib/strops.h"
#include "lib/syswrap.h"
#include "lib/timeop.h"
#include "lib/util.h"

#include <algorithm>
#include <cerrno>
#include <cfloat>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

LOG_UNIT(LOG_MOD_APP);

static constexpr size_t MAX_LINE_REST = 127; // free text at a line's end
static constexpr double MIN_DURATION = 1.0;  // expected durations: [MIN, MAX)
static constexpr double MAX_DURATION = 60.0;

// --- the source line protocol ---

static line_verdict refuse_path(std::string_view path, const char *why) {
    LOG(LL_ERROR, "%s: segment path refused, %s: %zu bytes, max=%zu [%.*s]\n", "scan_item", why, path.size(),
        MAX_ITEM_PATH - 1, static_cast<int>(path.size()), path.data());
    return LINE_REFUSED;
}

line_verdict scan_item(line_scan *scan, item_data *data, std::string_view *rest) {
    *data = {};
    // Behind a zero byte a path would look shorter than what the producer wrote.
    bool is_text = scan->rest.find('\0') == std::string_view::npos;
    std::string_view keyword = scan_word(scan);
    std::string_view path = scan_word(scan);
    int64_t start_tm = 0;
    int64_t fsize = 0;
    if (scan_long(scan, &start_tm) && scan_float(scan, &data->duration) && scan_long(scan, &fsize) &&
        scan_int(scan, &data->src_nid) && scan_long(scan, &data->ifrm1_pts))
        *rest = scan_rest(scan, MAX_LINE_REST);
    data->start_tm = start_tm;
    data->fsize = fsize;
    copy_cut(data->itype, sizeof(data->itype), keyword);
    if (!is_text || keyword != KEYWORD || path.empty())
        return LINE_INVALID;
    if (path.size() >= sizeof(data->path))
        return refuse_path(path, "too long");
    if (has_dotdot(path))
        return refuse_path(path, "it leaves the data directory");
    copy_cut(data->path, sizeof(data->path), path);
    if (!std::isfinite(data->duration) || data->duration < 0) {
        LOG_FN(LL_ERROR, "duration refused, not a finite number from 0 on: %f [%s]\n", data->duration,
               data->path);
        return LINE_REFUSED;
    }
    return LINE_OK;
}

std::string_view partial_line(const pl_source *src) {
    return {src->tail, src->tail_len};
}

void keep_partial(pl_source *src, std::string_view text) {
    char *kept = text.empty() ? nullptr : static_cast<char *>(W_calloc(__func__, 1, text.size()));
    if (kept)
        memcpy(kept, text.data(), text.size());
    free(src->tail);
    src->tail = kept;
    src->tail_len = kept ? text.size() : 0;
}

// --- items ---

// Blank but for tag and path; null without memory.
static pl_item *new_item(pl_source *src, uint32_t tag, std::string_view path) {
    size_t fixed = offsetof(pl_item, path);
    auto *item = static_cast<pl_item *>(slab_alloc(&src->item_slabs, fixed + path.size() + 1));
    if (!item) {
        LOG(LL_ERROR, "%s: ERROR(%d) making an item for src[%s]\n", "add_seg", ENOMEM, src->nametag);
        return nullptr;
    }
    memset(item, 0, fixed);
    item->le.tag.num = tag;
    memcpy(item->path, path.data(), path.size());
    item->path[path.size()] = '\0';
    return item;
}

void free_item(pl_item *item) {
    CHECK(item->le.tag.num == PL_SEG || item->le.tag.num == PL_DIS);
    LOG_FN(LL_DEBUG, "(%p) #%zu [%s] %.02f %ld bytes\n", static_cast<void *>(item), item->mseq,
           is_segment(item) ? item->path : "-", item->duration, static_cast<long>(item->fsize));
    slab_free(item, item_size(item));
}

int plitem_cmp(const dlep_elem *a, const dlep_elem *b) {
    time_t at = dlep_as<pl_item>(a)->start_tm;
    time_t bt = dlep_as<pl_item>(b)->start_tm;
    return at < bt ? -1 : at > bt ? 1 : 0;
}

time_t seg_expiry_time(const src_params *params, long start_tm) {
    return add_seconds(start_tm, static_cast<long>(params->max_plbk_sec));
}

int verify_item_size(const char *data_dir, const char *path, off_t size) {
    char full[256];
    int n = 0;
    if (data_dir[0])
        n = snprintf(full, sizeof(full), "%s%s%s", data_dir, lastchar(data_dir) == '/' ? "" : "/", path);
    else
        n = snprintf(full, sizeof(full), "%s", path);
    if (n <= 0 || n >= static_cast<int>(sizeof(full))) {
        LOG_FN(LL_ERROR, "buffer under/overrun n=%d\n", n);
        log_abort();
    }
    off_t actual = get_file_size(full);
    if (actual < 0)
        return -2;
    if (actual == size)
        return 0;
    LOG_FN(LL_ERROR, "mismatch - reported/actual=%ld/%ld\n", static_cast<long>(size),
           static_cast<long>(actual));
    return -1;
}

using file_path = char[sizeof(g_cfg.data_dir) + MAX_ITEM_PATH + 1];

static void mk_full_path(const pl_source *src, const char *path, file_path &full) {
    snprintf(full, sizeof(full), "%s/%s", src_data_dir(src), path);
}

// A producer that writes under a name that could not be deleted yet wants to keep it.
static void keep_file(const pl_source *src, const char *path) {
    if (deletions_left() == 0)
        return;
    file_path full;
    mk_full_path(src, path, full);
    forget_deletion(full);
}

static int skip_item(const pl_source *src, pl_item *item, const char *path) {
    LOG(LL_WARN, "%s: skipping %s for src[%s]\n", "add_seg", path, src->nametag);
    slab_free(item, item_size(item));
    return 0;
}

// Fills a segment item. 0, 1 when the line is to be skipped, or an error.
static int fill_segment(const pl_source *src, const item_data *data, const pl_item *head, pl_item *item) {
    item->mseq = head || g_cfg.strict_hls ? src->next_mseq : 0;
    LOG(LL_DEBUG, "%s: %s [%s] %ld bytes, %f sec, pts=%li\n", "add_seg", item->le.tag.sym, data->path,
        data->fsize, data->duration, data->ifrm1_pts);
    // The item keeps no time stamp of its own, so what this turns away are lines without one.
    if (head && data->ifrm1_pts <= head->ifrm1_pts) {
        LOG(LL_WARN, "%s: new segment pts=%li is <= head pts=%li\n", "add_seg", data->ifrm1_pts,
            head->ifrm1_pts);
        return 1;
    }
    if (g_cfg.verify_item_filesize) {
        int rc = verify_item_size(src->param.data_dir, data->path, data->fsize);
        if (rc != 0)
            return rc;
    }
    keep_file(src, item->path);
    if (data->duration < MIN_DURATION || data->duration >= MAX_DURATION)
        LOG(LL_ERROR, "%s: invalid duration: %f\n", "add_seg", data->duration);
    item->duration = data->duration;
    item->start_tm = data->start_tm;
    item->fsize = data->fsize;
    return 0;
}

// What a player was told at first should hold: later raises are told, whoever made them necessary.
static void raise_target(pl_source *src, const pl_item *item) {
    double rounded = std::max(1.0, floor(item->duration + 0.5));
    if (rounded <= src->target_sec)
        return;
    unsigned target = rounded >= UINT_MAX ? UINT_MAX : static_cast<unsigned>(rounded);
    if (g_cfg.strict_hls && src->target_sec > 0 && !src->manif.is_feeding)
        LOG(LL_WARN, "%s: src[%s] segment [%s] of %f sec raises the target duration from %u to %u sec\n",
            "add_seg", src->nametag, item->path, item->duration, src->target_sec, target);
    src->target_sec = target;
}

// From the item on, since what was sorted in shifts the counts of all that are newer.
static void count_breaks(pl_source *src, pl_item *item) {
    const pl_item *newer = newer_item(item);
    const pl_item *older = older_item(item);
    uint32_t breaks = newer ? item_breaks(newer) : src->breaks;
    if (newer && older)
        breaks = item_breaks(older) + (is_segment(older) ? 0 : 1);
    for (; item; item = newer_item(item)) {
        item->le.note = breaks | (item->le.note & ITEM_ENDS_LIST);
        breaks += is_segment(item) ? 0 : 1;
    }
    src->breaks = breaks;
}

static bool insert_item(pl_source *src, pl_item *item) {
    bool must_sort = src->manif.is_feeding && src->manif.must_sort;
    if (must_sort)
        stretch_drop(src); // the item may come to stand within one
    dlep_elem *in =
        must_sort ? dlep_sadd(src->items, &item->le, 0, plitem_cmp) : dlep_append(src->items, &item->le);
    if (in != &item->le)
        return false;
    count_breaks(src, item);
    if (is_segment(item))
        src->next_mseq = newest_item(src)->mseq + 1;
    return true;
}

// At least once for the new item, then until the list is within the playback length again.
static int trim(pl_source *src) {
    double limit = static_cast<double>(src->param.max_plbk_sec);
    int rc = 0;
    do {
        rc = apply_src_changes(src, src->total_sec > limit);
    } while (rc == 0 && src->total_sec > limit);
    seq_keep(src);
    write_moved_tasks(src);
    return rc;
}

// Put together without the formatter, for half its price: an import tells of as many items as it has entries.
static void tell_added(const pl_source *src, const pl_item *item) {
    if (!log_wanted(g_log, LL_INFO, g_llctx))
        return;
    char duration[FLT_MAX_10_EXP + 16]; // as "%f" prints it
    char number[24];
    char text[MAX_ITEM_PATH + MAX_SRC_NAME + sizeof(duration) + 64];
    const char *duration_end =
        std::to_chars(duration, std::end(duration), item->duration, std::chars_format::fixed, 6).ptr;
    const char *number_end = std::to_chars(number, std::end(number), item->mseq).ptr;
    join_cut(text, sizeof(text),
             {"added ",
              src->manif.is_feeding ? "MANIF" : "LIVE",
              " [",
              item->le.tag.sym,
              "]/",
              {duration, duration_end},
              " m",
              {number, number_end},
              "  channel[",
              src->nametag,
              "] ",
              is_segment(item) ? item->path : "(null)"});
    LOG(LL_INFO, "%s\n", text);
}

// Of what `fill_segment` answers.
static line_refusal refusal_of(int rc) {
    return rc == 1 ? REFUSED_STAMP : rc == -1 ? REFUSED_SIZE : rc == -2 ? REFUSED_MISSING : REFUSED_OTHER;
}

int add_seg(pl_source *src, const item_data *data) {
    const pl_item *head = newest_item(src);
    bool is_marker = strcmp(data->path, DISCONTINUITY) == 0;
    pl_item *item = new_item(src, is_marker ? PL_DIS : PL_SEG, is_marker ? "" : data->path);
    if (!item)
        return ENOMEM;
    if (!is_marker) {
        int rc = fill_segment(src, data, head, item);
        if (rc != 0)
            ++src->counts.refused[refusal_of(rc)];
        if (rc == 1)
            return skip_item(src, item, data->path);
        if (rc != 0) {
            slab_free(item, item_size(item));
            return rc;
        }
    } else {
        item->mseq = head ? head->mseq : 0;
        if (!head || !is_segment(head))
            return skip_item(src, item, DISCONTINUITY);
    }
    if (!insert_item(src, item)) {
        LOG_FN(LL_ERROR, "failed to add new item to src[%s]\n", src->nametag);
        free_item(item);
        return -1;
    }
    src->total_sec += item->duration;
    (src->manif.is_feeding ? src->counts.imported : src->counts.accepted) += is_segment(item);
    if (is_segment(item))
        raise_target(src, item);
    tell_added(src, item);
    seq_keep(src);
    return trim(src);
}

int add_discontinuity(pl_source *src) {
    LOG_FN(LL_DEBUG, "src[%s]\n", src->nametag);
    item_data data{};
    memcpy(data.path, DISCONTINUITY, sizeof(DISCONTINUITY));
    return add_seg(src, &data);
}

// --- changes ---

static void drop_recycle_path(pl_source *src) {
    free(src->rcy_fpath);
    src->rcy_fpath = nullptr;
}

void recycle_segfile(pl_source *src, pl_item *item) {
    file_path full;
    if (src->rcy_fpath) {
        mk_full_path(src, src->rcy_fpath, full);
        LOG_FN(LL_DEBUG, "removing [%s]\n", full);
        src->counts.deleted += delete_file(__func__, full) == 0;
        drop_recycle_path(src);
    }
    if (is_discard_on()) {
        mk_full_path(src, item->path, full);
        discard_file(src, full);
        return;
    }
    src->rcy_fpath = strdup(item->path);
    LOG_FN(LL_DEBUG, "[%s] is next to recycle\n", item->path);
}

void discard_last_segfile(pl_source *src) {
    if (!src->rcy_fpath || !is_discard_on())
        return;
    file_path full;
    mk_full_path(src, src->rcy_fpath, full);
    discard_file(src, full);
    drop_recycle_path(src);
}

void discard_stale(pl_source *src, const item_data *data) {
    file_path full;
    struct stat st;
    mk_full_path(src, data->path, full);
    time_t retired = seg_expiry_time(&src->param, data->start_tm);
    if (lstat(full, &st) == 0 && S_ISREG(st.st_mode) && st.st_mtime < retired)
        discard_file(src, full, time(nullptr) - retired);
}

static void retire_oldest(pl_source *src) {
    dlep_elem *tail = dlep_rmtail(src->items);
    CHECK(tail);
    pl_item *item = dlep_as<pl_item>(tail);
    if (is_segment(item)) {
        src->total_sec -= item->duration;
        ++src->counts.retired;
        LOG(LL_DEBUG, "%s: retiring [%s] (m%zu) %f sec, new-total=%f sec\n", "apply_src_changes", item->path,
            item->mseq, item->duration, src->total_sec);
        recycle_segfile(src, item);
    }
    stretch_retire(src, item);
    seq_retire(src, item);
    // An empty list weighs nothing, whatever rounding has left over.
    if (!newest_item(src))
        src->total_sec = 0;
    free_item(item);
}

int apply_src_changes(pl_source *src, bool must_trim) {
    LOG_FN(LL_DEBUG, "src[%s] %zu items/%f sec %s\n", src->nametag, dlep_count(src->items), src->total_sec,
           must_trim ? "trim" : "");
    size_t stop = 0;
    int rc = src->tasks.len > 0 ? xvlst_each_aux(&src->tasks, &must_trim, adjust_task_rec, &stop) : 0;
    if (rc != 0) {
        LOG_FN(LL_ERROR, "src[%s] failed to adjust tasks\n", src->nametag);
        return rc;
    }
    if (must_trim)
        retire_oldest(src);
    return 0;
}
