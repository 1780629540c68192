#include "app/cfg.h"

#include "lib/check.h"
#include "lib/config.h"
#include "lib/log.h"
#include "lib/util.h"

#include <charconv>
#include <cstring>

LOG_UNIT(LOG_MOD_APP);

static constexpr char GROUP[] = "lum";
static constexpr int PROTO_TCP = 6;
static constexpr char DEFAULT_DATA_DIR[] = "/tmp";
static constexpr mode_t DEFAULT_LOCK_MODE = 0644;
static constexpr int DEFAULT_STATUS_SEC = 5;
static constexpr int64_t MAX_LOCK_ID = 1'000'000'000'000'000;

int init_plum_config(plum_cfg *cfg) {
    *cfg = {};
    appcfg_init_log(&cfg->log);
    appcfg_init_rt(&cfg->rt);
    snprintf(cfg->data_dir, sizeof(cfg->data_dir), "%s", DEFAULT_DATA_DIR);
    cfg->src_tmout_sec = 30;
    cfg->urq_tmout_sec = 8;
    cfg->lk_tmout_sec = 20;
    cfg->max_sources = 256;
    cfg->max_plbk_sec = 604800;
    cfg->max_live_items = 6;
    cfg->has_gzip_pl = true;
    cfg->text_live_pl = true;
    cfg->min_src_tasks = 8;
    cfg->max_src_tasks = 256;
    cfg->verify_item_filesize = true;
    cfg->lock_mode = DEFAULT_LOCK_MODE;
    cfg->status_sec = DEFAULT_STATUS_SEC;
    return 0;
}

void config_plum_ifc(plum_cfg *cfg, size_t index, uint32_t tag, const char *path) {
    CHECK(index > 0 && index <= MAX_LISTENERS);
    rui_listener_cfg &entry = cfg->rui.user[index - 1];
    entry = {};
    snprintf(entry.alias, sizeof(entry.alias), "%s%zu", index == SRC_LISTENER ? "pls" : "itm", index);
    entry.index = index;
    entry.proto = PROTO_TCP;
    snprintf(entry.domain_path, sizeof(entry.domain_path), "%s", path);
    entry.kind.num = tag;
    entry.is_valid = path[0] != '\0';
    cfg->rui.max_accept = 64;
    cfg->rui.user_request_tmout = 500;
}

bool has_rui_ifc(const plum_cfg *cfg, size_t index) {
    CHECK(index > 0 && index <= MAX_LISTENERS);
    return cfg->rui.user[index - 1].is_valid;
}

// --- the keys ---

static int load_listener(plum_cfg *cfg, const char *key, size_t index, uint32_t tag) {
    char path[sizeof(cfg->rui.user[0].domain_path)];
    if (load_config_str(key, path, sizeof(path) - 1, "") != 0)
        return -1;
    if (path[0])
        config_plum_ifc(cfg, index, tag, path);
    return 0;
}

// What only the start reads.
static int load_fixed(plum_cfg *cfg) {
    if (appcfg_load_log(GROUP, &cfg->log) != 0 ||
        load_listener(cfg, "lum.src_socket", SRC_LISTENER, YLI_tag) != 0 ||
        load_listener(cfg, "lum.pl_socket", PL_LISTENER, SLI_tag) != 0)
        return -1;
    return appcfg_load_rt(GROUP, &cfg->rt);
}

// A relative path is below the directory of the start, which a daemon has left.
static int load_path(const plum_cfg *cfg, const char *key, char *path, size_t size, const char *fallback) {
    if (load_config_str(key, path, size - 1, fallback) != 0)
        return -1;
    return path[0] ? make_absolute(path, size, cfg->start_dir) : 0;
}

static int load_data_dir(plum_cfg *cfg) {
    char dir[sizeof(cfg->data_dir)];
    if (load_path(cfg, "lum.data_dir", dir, sizeof(dir), DEFAULT_DATA_DIR) != 0)
        return -1;
    if (dir_check(dir) != 0) {
        LOG(LL_ERROR, "%s: cannot accept [%s] as %s\n", "load_config", dir, "lum.data_dir");
        return -1;
    }
    memcpy(cfg->data_dir, dir, sizeof(dir));
    return 0;
}

static int load_size(const char *key, size_t *value, int64_t fallback, int64_t min, int64_t max) {
    int64_t read = 0;
    if (appcfg_load_ranged(key, &read, fallback, min, max, true) != 0)
        return -1;
    *value = static_cast<size_t>(read);
    return 0;
}

static int load_seconds(const char *key, int *value, int64_t fallback, int64_t min, int64_t max) {
    int64_t read = 0;
    if (appcfg_load_ranged(key, &read, fallback, min, max, false) != 0)
        return -1;
    *value = static_cast<int>(read);
    return 0;
}

// The two limits go together: neither is stored unless both hold.
static int load_task_limits(plum_cfg *cfg) {
    size_t min = 0;
    size_t max = 0;
    if (load_size("lum.min_src_tasks", &min, 8, INT64_MIN, INT64_MAX) != 0 ||
        load_size("lum.max_src_tasks", &max, 256, 1, 512) != 0)
        return -1;
    if (min > max) {
        LOG(LL_ERROR, "%s: min_src_tasks > max_src_tasks: %zu > %zu\n", "load_config", min, max);
        return -1;
    }
    cfg->min_src_tasks = min;
    cfg->max_src_tasks = max;
    return 0;
}

static int load_limits(plum_cfg *cfg) {
    if (load_size("lum.max_sources", &cfg->max_sources, 256, 1, 1024) != 0 || load_task_limits(cfg) != 0 ||
        load_size("lum.max_playback_time", &cfg->max_plbk_sec, 604800, 600, 5184000) != 0 ||
        load_size("lum.max_live_items", &cfg->max_live_items, 6, 4, 64) != 0 ||
        load_seconds("lum.src_tmout_sec", &cfg->src_tmout_sec, 30, 1, 300) != 0 ||
        load_seconds("lum.task_tmout_sec", &cfg->lk_tmout_sec, 20, 1, 100) != 0)
        return -1;
    return load_seconds("lum.urq_tmout_sec", &cfg->urq_tmout_sec, 8, 1, 120);
}

static int load_switches(plum_cfg *cfg) {
    const struct {
        const char *key;
        bool *value;
        bool fallback;
    } switches[] = {
        {"lum.gzip_playlists", &cfg->has_gzip_pl, true},
        {"lum.text_live_playlists", &cfg->text_live_pl, true},
        {"lum.verify_item_filesize", &cfg->verify_item_filesize, true},
        {"lum.use_sid_playlist_dir", &cfg->use_sid_pl_dir, false},
        {"lum.refresh_playlists", &cfg->refresh_pl_files, false},
        {"lum.strict_hls", &cfg->strict_hls, false},
    };
    for (const auto &one : switches)
        if (load_config_bool(one.key, one.value, one.fallback) != 0)
            return -1;
    return 0;
}

static int load_required(const char *key, char *buf, size_t size) {
    if (load_config_str(key, buf, size - 1, "") != 0)
        return -1;
    if (buf[0])
        return 0;
    LOG(LL_ERROR, "%s: MUST include non-empty [%s]\n", "load_config", key);
    return -1;
}

static int load_report_ids(mdrep_cfg *mdr) {
    if (!config_has_group("lum.md_report.lid")) {
        LOG(LL_ERROR, "%s: must include lid section\n", "load_config");
        return -1;
    }
    size_t min = 0;
    size_t max = 0;
    if (load_size("lum.md_report.lid.min", &min, 1, 0, MAX_LOCK_ID) != 0 ||
        load_size("lum.md_report.lid.max", &max, 999999, 0, MAX_LOCK_ID) != 0)
        return -1;
    if (min >= max) {
        LOG(LL_ERROR, "%s: invalid min/max=%zu/%zu\n", "load_config", min, max);
        return -1;
    }
    mdr->lid_min = min;
    mdr->lid_max = max;
    return load_required("lum.md_report.lid.prefix", mdr->lid_pfx, sizeof(mdr->lid_pfx));
}

// Read as a whole into a copy: a report never mixes old and new settings.
static int load_reports(plum_cfg *cfg) {
    mdrep_cfg mdr{};
    if (load_config_bool("lum.md_report.enabled", &mdr.is_enabled, false) != 0)
        return -1;
    if (!mdr.is_enabled)
        config_skip("lum.md_report");
    if (mdr.is_enabled &&
        (load_required("lum.md_report.pub_url", mdr.url, sizeof(mdr.url)) != 0 ||
         load_report_ids(&mdr) != 0 ||
         load_required("lum.md_report.src_base", mdr.src_base, sizeof(mdr.src_base)) != 0 ||
         load_config_str("lum.md_report.mcast_ifc", mdr.mcast_ifc, sizeof(mdr.mcast_ifc) - 1, "") != 0))
        return -1;
    cfg->mdr = mdr;
    return 0;
}

static int load_lock_mode(plum_cfg *cfg) {
    static constexpr char KEY[] = "lum.lock_mode";
    static constexpr unsigned MAX_MODE = 0777;
    char text[16];
    if (load_config_str(KEY, text, sizeof(text) - 1, "0644") != 0)
        return -1;
    const char *end = text + strlen(text);
    unsigned mode = 0;
    auto [at, error] = std::from_chars(text, end, mode, 8);
    if (error != std::errc{} || at != end || mode > MAX_MODE) {
        LOG(LL_ERROR, "%s: %s=%s is out of range [0000..%04o]\n", "load_config", KEY, text, MAX_MODE);
        return -1;
    }
    cfg->lock_mode = mode;
    return 0;
}

static int load_additions(plum_cfg *cfg) {
    if (load_seconds("lum.min_target_sec", &cfg->min_target_sec, 0, 0, MAX_TARGET_SEC) != 0 ||
        load_seconds("lum.keep_retired_sec", &cfg->keep_retired_sec, 0, 0, 604800) != 0 ||
        load_lock_mode(cfg) != 0 ||
        load_path(cfg, "lum.status_file", cfg->status_file, sizeof(cfg->status_file), "") != 0)
        return -1;
    return load_seconds("lum.status_sec", &cfg->status_sec, DEFAULT_STATUS_SEC, 1, 60);
}

static int load_prefix(plum_cfg *cfg) {
    return load_config_str("lum.item_url_prefix", cfg->pl_item_pfx, sizeof(cfg->pl_item_pfx) - 1, "");
}

static int load_config(plum_cfg *cfg, bool reload) {
    if (!reload && load_fixed(cfg) != 0)
        return -1;
    // Every key has a default, so that a file that is being rewritten would be as good as any.
    if (!config_has_group(GROUP)) {
        LOG_FN(LL_ERROR, "missing group %s\n", GROUP);
        return -1;
    }
    using loader = int (*)(plum_cfg *);
    for (loader load : {load_data_dir, load_prefix, load_limits, load_switches, load_reports, load_additions})
        if (load(cfg) != 0)
            return -1;
    cfg->last_mtime = cfg->stamp.sec;
    if (reload)
        LOG_FN(LL_INFO, "configuration re-loaded, mtime=%ld\n", static_cast<long>(cfg->last_mtime));
    return 0;
}

// A reload must find the very same file.
static int store_path(plum_cfg *cfg, const char *path) {
    size_t len = strlen(path);
    if (path == cfg->config_path)
        return 0;
    if (len >= sizeof(cfg->config_path)) {
        LOG(LL_ERROR, "%s: config path is too long (%zu bytes), max=%zu bytes.\n", "load_plum_config", len,
            sizeof(cfg->config_path) - 1);
        return -1;
    }
    memcpy(cfg->config_path, path, len + 1);
    return 0;
}

static int load_opened(const char *path, plum_cfg *cfg, bool reload) {
    int rc = store_path(cfg, path);
    if (rc == 0)
        rc = load_config(cfg, reload);
    cfg_place place = config_last_place();
    if (rc != 0 && !place.path.empty())
        LOG(LL_ERROR, "%s: stopped at line %d of [%s]\n", "load_config", place.line, place.path.c_str());
    return rc;
}

int load_plum_config(const char *path, plum_cfg *cfg, bool reload, unread_key_fn *on_unread, void *arg) {
    int rc = config_open(path, cfg->start_dir);
    if (config_stamp().sec != 0)
        cfg->stamp = config_stamp();
    if (rc == 0)
        rc = load_opened(path, cfg, reload);
    if (rc == 0 && on_unread)
        config_visit_unread(on_unread, arg);
    config_close();
    if (rc != 0)
        LOG_FN(LL_ERROR, "FAILED (%d)\n", rc);
    return rc;
}

// --- the dump ---

static constexpr char DASHES[] =
    "--------------------------------------------------------------------------------\n";

static const char *yes_no(bool flag) {
    return flag ? "YES" : "no";
}

static void dump_listeners(FILE *out, const rui_cfg &rui) {
    const struct {
        const char *name;
        const rui_listener_cfg *entries;
    } sets[] = {{"user", rui.user}, {"admin", rui.admin}, {"custom", rui.custom}};
    fprintf(out, "Listeners:\n");
    for (const auto &set : sets)
        for (size_t i = 0; i < MAX_LISTENERS; ++i)
            if (set.entries[i].is_valid)
                fprintf(out, "\t%s listener[%s]: path=%s\n", set.name, set.entries[i].alias,
                        set.entries[i].domain_path);
    fprintf(out, "\tmax-accepted=%ld\n", static_cast<long>(rui.max_accept));
    fprintf(out, "\tI/O timeouts: user-rq=%d, admin-rq=%d custom-rq=%d\n", rui.user_request_tmout,
            rui.admin_request_tmout, rui.custom_request_tmout);
}

// Only what differs from the default.
static void dump_additions(FILE *out, const plum_cfg *cfg) {
    if (cfg->strict_hls)
        fprintf(out, "\tstrict HLS           = %s\n", yes_no(true));
    if (cfg->min_target_sec > 0)
        fprintf(out, "\tmin target duration  = %d sec\n", cfg->min_target_sec);
    if (cfg->keep_retired_sec > 0)
        fprintf(out, "\tkeep retired files   = %d sec\n", cfg->keep_retired_sec);
    if (cfg->lock_mode != DEFAULT_LOCK_MODE)
        fprintf(out, "\tlock file mode       = %04o\n", cfg->lock_mode);
    if (cfg->status_file[0])
        fprintf(out, "\tstatus file          = [%s]\n", cfg->status_file);
    if (cfg->status_sec != DEFAULT_STATUS_SEC)
        fprintf(out, "\tstatus interval      = %d sec\n", cfg->status_sec);
}

static void dump_others(FILE *out, const plum_cfg *cfg) {
    fprintf(out, "Others:\n");
    fprintf(out, "\tdata directory       = [%s]\n", cfg->data_dir);
    if (cfg->pl_item_pfx[0])
        fprintf(out, "\titem prefix          = [%s]\n", cfg->pl_item_pfx);
    fprintf(out, "\tsource time-out      = %d sec\n", cfg->src_tmout_sec);
    fprintf(out, "\ttask time-out        = %d sec\n", cfg->lk_tmout_sec);
    fprintf(out, "\trequest time-out     = %d sec\n", cfg->urq_tmout_sec);
    fprintf(out, "\tmax playback         = %zu sec\n", cfg->max_plbk_sec);
    fprintf(out, "\tmax sources          = %zu\n", cfg->max_sources);
    fprintf(out, "\tmax live items       = %zu\n", cfg->max_live_items);
    fprintf(out, "\tmin tasks per source = %zu\n", cfg->min_src_tasks);
    fprintf(out, "\tmax tasks per source = %zu %s\n", cfg->max_src_tasks,
            cfg->min_src_tasks == cfg->max_src_tasks ? "(fixed)" : "");
    fprintf(out, "\tplaylist format      = %s\n", cfg->has_gzip_pl ? "GZIP" : "text");
    fprintf(out, "\tverify item data     = %s\n", yes_no(cfg->verify_item_filesize));
    fprintf(out, "\tplaylist sid-dir     = %s\n", yes_no(cfg->use_sid_pl_dir));
    fprintf(out, "\trefresh playlists    = %s\n", yes_no(cfg->refresh_pl_files));
    if (cfg->text_live_pl)
        fprintf(out, "\tLIVE playlists are TEXT\n");
    dump_additions(out, cfg);
    fprintf(out, "\n");
}

static void dump_reports(FILE *out, const mdrep_cfg &mdr) {
    fprintf(out, "Meta-data reports: %s\n", mdr.is_enabled ? "" : "disabled");
    if (mdr.is_enabled) {
        fprintf(out, "\tpublish to           = %s\n", mdr.url);
        fprintf(out, "\tlock id              = %s-%zu..%zu\n", mdr.lid_pfx, mdr.lid_min, mdr.lid_max);
        fprintf(out, "\tsource base          = %s\n", mdr.src_base);
    }
    fprintf(out, "\n");
}

void dump_plum_config(FILE *out, const plum_cfg *cfg) {
    if (!out)
        return;
    fputs(DASHES, out);
    appcfg_dump_log(out, &cfg->log);
    appcfg_dump_rt(out, &cfg->rt);
    dump_listeners(out, cfg->rui);
    dump_others(out, cfg);
    dump_reports(out, cfg->mdr);
    fputs(DASHES, out);
}
