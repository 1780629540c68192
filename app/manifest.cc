#include "app/manifest.h"

#include "app/discard.h"
#include "app/item.h"
#include "app/seq.h"
#include "app/task.h"
#include "lib/check.h"
#include "lib/log.h"
#include "lib/util.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

LOG_UNIT(LOG_MOD_APP);

static constexpr size_t MAX_LINE = 255; // with the terminating zero
static constexpr size_t STALE_BLOCK = 256;
static constexpr int ENTRY_STALE = -7;
static constexpr int ENTRY_UNUSABLE = -2;
static constexpr int ENTRY_STOPS = -1;

int mk_manifest_path(const src_params *params, const char *nametag, char *buf, size_t size) {
    return snprintf(buf, size, "%s/%s/%s.manifest_live", params->data_dir, nametag, nametag);
}

bool is_stale_mitem(const src_params *params, const char *path, long start_tm) {
    // A marker is as old as the segments it parts.
    if (params->max_mitem_age == -1 || strcmp(path, DISCONTINUITY) == 0)
        return false;
    long limit = params->max_mitem_age == 0 ? static_cast<long>(params->max_plbk_sec) : params->max_mitem_age;
    long delta = 0;
    if (__builtin_sub_overflow(time(nullptr), start_tm, &delta))
        delta = start_tm < 0 ? INT64_MAX : INT64_MIN;
    if (delta <= limit)
        return false;
    LOG_FN(LL_DEBUG, "[%s]/%ld is stale, delta=%ld (>%ld)\n", path, start_tm, delta, limit);
    return true;
}

// "NUMBER: " and what follows it.
static bool skip_number(line_scan *scan) {
    int64_t number = 0;
    if (!scan_long(scan, &number) || scan->rest.empty() || scan->rest.front() != ':')
        return false;
    scan->rest.remove_prefix(1);
    return true;
}

static void note_order(pl_source *src, long start_tm) {
    manifest_ctx &manif = src->manif;
    if (manif.last_tm == 0 || manif.must_sort || start_tm >= manif.last_tm)
        return;
    manif.must_sort = true;
    LOG(LL_DEBUG, "%s: start-tm:%ld < last:%ld, starting to sort items\n", "add_manifest_entry", start_tm,
        manif.last_tm);
}

static xvec g_stale; // of item_data: entries of this import that are too old to be listed

static void keep_stale(const item_data &data) {
    ssize_t slot = is_discard_on() ? xvec_add(&g_stale, sizeof(item_data), STALE_BLOCK) : -1;
    if (slot >= 0)
        *xvec_at<item_data>(g_stale, static_cast<size_t>(slot)) = data;
}

// What grew too old while nobody listed it lies right before the oldest that is. What seems older than that
// may seem so because a clock is wrong: that is no reason to delete a recording.
static void discard_stale_entries(pl_source *src) {
    const pl_item *oldest = oldest_item(src);
    for (size_t i = 0; oldest && i < g_stale.len; ++i) {
        const item_data *data = xvec_at<item_data>(g_stale, i);
        if (seg_expiry_time(&src->param, data->start_tm) >= oldest->start_tm)
            discard_stale(src, data);
    }
    xvec_reset(&g_stale);
}

int add_manifest_entry(pl_source *src, std::string_view line, size_t line_no) {
    line = strip_tail(line);
    int len = static_cast<int>(line.size());
    LOG_FN(LL_DEBUG, "line %zu: [%.*s]\n", line_no, len, line.data());
    line_scan scan{.rest = line};
    item_data data{};
    std::string_view rest;
    line_verdict verdict = skip_number(&scan) ? scan_item(&scan, &data, &rest) : LINE_INVALID;
    if (verdict == LINE_INVALID) {
        LOG_FN(LL_ERROR, "invalid input, [%.*s] n=%d\n", len, line.data(), scan.count);
        return ENTRY_STOPS;
    }
    LOG_FN(LL_DEBUG, "%d fields scanned\n", scan.count);
    if (verdict == LINE_REFUSED)
        return EINVAL;
    if (is_stale_mitem(&src->param, data.path, data.start_tm)) {
        keep_stale(data);
        return ENTRY_STALE;
    }
    note_order(src, data.start_tm);
    if (src->master) {
        LOG_FN(LL_ERROR, "must not have master src[%s]\n", src->master->nametag);
        return ENTRY_STOPS;
    }
    int rc = add_seg(src, &data);
    if (rc == 0)
        src->last_item_tm = idle_clock();
    // A file that is gone or half written is what a crash leaves, and no reason to lose those behind it.
    return rc == ENTRY_STOPS ? ENTRY_UNUSABLE : rc;
}

// The next line without its end; what does not fit is dropped up to the line's end. False at the end.
static bool next_line(FILE *fp, char (&buf)[MAX_LINE], size_t *len) {
    if (!fgets(buf, sizeof(buf), fp))
        return false;
    *len = strlen(buf);
    if (*len + 1 == sizeof(buf) && buf[*len - 1] != '\n')
        for (int c = getc_unlocked(fp); c != EOF && c != '\n';)
            c = getc_unlocked(fp);
    return true;
}

// --- counting on from the sequence file ---

// Every segment entry of the manifest has a number, whether or not it can be imported, so that numbers never
// go back.
struct entry_count {
    int64_t mseq;   // of the next segment entry
    int64_t breaks; // before it
    bool is_behind_segment;
    bool is_on; // the sequence file's segment is among the entries
    seq_anchor anchor;
};

// The path of a well-formed entry, empty for any other.
static std::string_view entry_path(std::string_view line) {
    line_scan scan{.rest = line};
    return skip_number(&scan) && scan_word(&scan) == KEYWORD ? scan_word(&scan) : std::string_view{};
}

static bool is_anchor(const entry_count &count, std::string_view path) {
    return path == count.anchor.path;
}

// Takes up what the next entry adds to the numbers of those behind it.
static void count_entry(entry_count *count, std::string_view path) {
    bool is_marker = path == DISCONTINUITY;
    if (is_marker && count->is_behind_segment)
        ++count->breaks;
    if (!is_marker)
        ++count->mseq;
    count->is_behind_segment = !is_marker;
}

// Looks for the anchor; the first entry's numbers are then the anchor's less what stands between.
static void find_anchor(pl_source *src, FILE *fp, entry_count *count) {
    char buf[MAX_LINE];
    size_t len = 0;
    *count = {};
    if (!seq_read(src, &count->anchor))
        return;
    while (next_line(fp, buf, &len)) {
        std::string_view path = entry_path({buf, len});
        if (path.empty())
            break;
        count->is_on = is_anchor(*count, path);
        if (count->is_on)
            break;
        count_entry(count, path);
    }
    rewind(fp);
    const bool is_marker_lost = count->anchor.is_behind_break && count->is_behind_segment;
    count->mseq = count->anchor.mseq - count->mseq;
    count->breaks = count->anchor.breaks - count->breaks - is_marker_lost;
    count->is_behind_segment = false;
}

// The numbers of the next item, if it is a segment.
static void set_numbers(pl_source *src, const entry_count &count) {
    src->next_mseq = static_cast<size_t>(std::max<int64_t>(count.mseq, 0));
    src->breaks = static_cast<uint32_t>(std::max<int64_t>(count.breaks, 0));
}

static void begin_entry(pl_source *src, entry_count *count, std::string_view path) {
    if (!count->is_on || path.empty() || path == DISCONTINUITY)
        return;
    if (is_anchor(*count, path)) {
        // The marker counts itself.
        if (count->anchor.is_behind_break && count->is_behind_segment) {
            set_numbers(src, *count);
            add_discontinuity(src);
        }
        count->mseq = count->anchor.mseq;
        count->breaks = count->anchor.breaks;
    }
    set_numbers(src, *count);
}

// Players count the lines of a list: where an entry could not be imported, the older ones move up.
static void close_gaps(pl_source *src) {
    size_t mseq = src->next_mseq;
    for (pl_item *item = newest_item(src); item && mseq > 0; item = older_item(item)) {
        item->mseq = mseq - 1;
        mseq -= is_segment(item);
    }
}

// What comes next is behind all entries, and behind a break, also when the last of them could not be imported
// and no marker tells of it.
static void end_entries(pl_source *src, entry_count *count) {
    const pl_item *newest = newest_item(src);
    if (!count->is_on)
        return;
    if (count->is_behind_segment && !(newest && is_segment(newest)))
        ++count->breaks;
    set_numbers(src, *count);
    close_gaps(src);
}

static void note_anchor(pl_source *src, const entry_count &count, std::string_view path) {
    const pl_item *item = newest_item(src);
    if (count.is_on && is_anchor(count, path) && item && is_segment(item) && path == item->path)
        src->seq_item = item;
}

static size_t import_lines(pl_source *src, FILE *fp) {
    entry_count numbers;
    find_anchor(src, fp, &numbers);
    char buf[MAX_LINE];
    size_t count = 0;
    size_t len = 0;
    // Kept at zero: producers write lines of differing lengths, and none of them is corrupt for that.
    const size_t last_len = 0;
    while (next_line(fp, buf, &len)) {
        if (last_len != 0 && len != last_len)
            LOG(LL_WARN, "%s: last/current=%zu/%zu mismatch, corrupt manifest?\n", "read_manifest", last_len,
                len);
        std::string_view path = numbers.is_on ? entry_path({buf, len}) : std::string_view{};
        begin_entry(src, &numbers, path);
        int rc = add_manifest_entry(src, {buf, len}, count + 1);
        note_anchor(src, numbers, path);
        if (!path.empty())
            count_entry(&numbers, path);
        if (rc == 0)
            ++count;
        else if (rc == ENTRY_STOPS)
            break;
        else
            LOG(LL_WARN, "%s: skipping over entry (rc=%d)\n", "read_manifest", rc);
    }
    end_entries(src, &numbers);
    return count;
}

static void mirror_items(const pl_source *src) {
    FILE *out = log_mirror_fp(&g_log);
    if (!out)
        return;
    for (const pl_item *item = oldest_item(src); item; item = newer_item(item))
        fprintf(out, "#%zu s:%ld (%s) %.02f pts=%li\n", item->mseq, static_cast<long>(item->start_tm),
                is_segment(item) ? item->path : DISCONTINUITY, item->duration, item->ifrm1_pts);
}

void read_manifest(pl_source *src) {
    char mpath[MAX_MANIFEST_PATH];
    int n = mk_manifest_path(&src->param, src->nametag, mpath, sizeof(mpath));
    CHECK(n < (ssize_t)sizeof(mpath));
    LOG_FN(LL_DEBUG, "trying for [%s]\n", mpath);
    FILE *fp = fopen_regular(mpath);
    if (!fp) {
        if (errno == ENOENT)
            LOG_FN(LL_DEBUG, "%s not found\n", mpath);
        else
            LOG_FN(LL_ERROR, "fopen(%s,..) ERROR(%d): %s\n", mpath, errno, strerror(errno));
        return;
    }
    src->manif.is_feeding = true;
    log_gather(&g_log, LL_INFO);
    size_t count = import_lines(src, fp);
    log_gather_end();
    src->manif.is_feeding = false;
    discard_stale_entries(src);
    if (count > 0)
        add_discontinuity(src);
    fclose(fp);
    LOG(LL_INFO, "%zu entries imported from [%s]\n", count, mpath);
    mirror_items(src);
}
