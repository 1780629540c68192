#include "app/seq.h"

#include "lib/log.h"
#include "lib/strops.h"
#include "lib/util.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

LOG_UNIT(LOG_MOD_APP);

static constexpr int64_t MAX_MSEQ =
    1'000'000'000'000'000; // far from any overflow, however long a stream runs
static constexpr int64_t MAX_BREAKS = 1'000'000'000;
static constexpr char BEHIND_BREAK[] = " DISCONTINUITY";
static constexpr size_t MAX_LINE = MAX_ITEM_PATH + 48 + sizeof(BEHIND_BREAK);

using seq_path = char[MAX_MANIFEST_PATH];

static bool is_kept(const pl_source *src) {
    return g_cfg.strict_hls && !is_backup_name(src->nametag);
}

static bool mk_path(const pl_source *src, seq_path &path) {
    int n = snprintf(path, sizeof(path), "%s/%s/%s.seq", src->param.data_dir, src->nametag, src->nametag);
    return n > 0 && n < static_cast<int>(sizeof(path));
}

// --- reading ---

// One whole line, and nothing else.
static bool parse(std::string_view text, seq_anchor *anchor) {
    if (text.empty() || text.back() != '\n' || text.find('\0') != std::string_view::npos)
        return false;
    text.remove_suffix(1);
    line_scan scan{.rest = text};
    std::string_view path = scan_word(&scan);
    if (!scan_long(&scan, &anchor->mseq) || !scan_long(&scan, &anchor->breaks) ||
        path.size() >= sizeof(anchor->path))
        return false;
    anchor->is_behind_break = scan.rest == BEHIND_BREAK;
    if (!anchor->is_behind_break && !scan.rest.empty())
        return false;
    copy_cut(anchor->path, sizeof(anchor->path), path);
    return anchor->mseq >= 0 && anchor->mseq <= MAX_MSEQ && anchor->breaks >= 0 &&
           anchor->breaks <= MAX_BREAKS;
}

bool seq_read(const pl_source *src, seq_anchor *anchor) {
    seq_path path;
    if (!is_kept(src) || !mk_path(src, path))
        return false;
    FILE *fp = fopen_regular(path);
    if (!fp) {
        if (errno != ENOENT && errno != ENOTDIR)
            LOG_FN(LL_ERROR, "fopen(%s,..) ERROR(%d): %s\n", path, errno, strerror(errno));
        return false;
    }
    char text[MAX_LINE + 1];
    size_t len = fread(text, 1, sizeof(text), fp);
    fclose(fp);
    if (parse({text, len}, anchor))
        return true;
    LOG_FN(LL_WARN, "[%s] is no sequence file, it is not counted on from it\n", path);
    return false;
}

// --- writing ---

static void report_failure(pl_source *src, const char *path, int err) {
    if (err == ENOENT || src->has_seq_failed)
        return;
    src->has_seq_failed = true;
    LOG(LL_ERROR, "%s: src[%s] cannot keep its numbers in [%s] ERROR(%d): %s\n", "seq_keep", src->nametag,
        path, err, strerror(err));
}

static bool write_anchor(pl_source *src, const pl_item *item) {
    seq_path path;
    char text[MAX_LINE];
    if (!mk_path(src, path))
        return false;
    int len = snprintf(text, sizeof(text), "%s %zu %u%s\n", item->path, item->mseq, item_breaks(item),
                       follows_break(item) ? BEHIND_BREAK : "");
    int err = replace_file(path, {text, static_cast<size_t>(len)});
    if (err != 0)
        report_failure(src, path, err);
    return err == 0;
}

void seq_keep(pl_source *src) {
    if (!is_kept(src)) {
        src->seq_item = nullptr; // what comes now is not in the file
        return;
    }
    if (src->manif.is_feeding)
        return;
    const pl_item *item = newest_segment(src);
    bool is_wanted = item && (!src->seq_item || (follows_break(item) && src->seq_item != item));
    if (is_wanted && write_anchor(src, item))
        src->seq_item = item;
}

void seq_retire(pl_source *src, const pl_item *item) {
    const pl_item *named = src->seq_item;
    if (named && (named == item || 2 * (newest_item(src)->mseq - named->mseq) > dlep_count(src->items)))
        src->seq_item = nullptr;
}
