#include "common/appcfg.h"

#include "lib/config.h"
#include "lib/log.h"

#include <climits>
#include <cstring>
#include <ctime>

LOG_UNIT(LOG_MOD_APP);

static constexpr size_t MB = 1048576;

struct timefmt_row {
    const char *name;
    int flags;
};
static constexpr timefmt_row TIME_FORMATS[] = {
    {"raw", TF_RAW},     {"raw_mono", TF_RAW | TF_MONO}, {"no_time", TF_NO_TIME}, {"gmt", TF_GMT},
    {"local", TF_LOCAL},
};

void appcfg_init_log(log_cfg *cfg) {
    *cfg = {};
    cfg->level = LL_INFO;
    cfg->timefmt = TF_LOCAL;
    cfg->max_size_mb = 4;
    cfg->max_files = 4;
    cfg->ring_pages = RING_DEFAULT_PAGES;
    cfg->hangups = LL_ERROR;
}

void appcfg_init_rt(rt_cfg *cfg) {
    *cfg = {};
}

// "GROUP.SECTION.KEY"
struct key_name {
    char text[64];
    key_name(const char *group, const char *section, const char *key) {
        snprintf(text, sizeof(text), "%s.%s%s%s", group, section, *key ? "." : "", key);
    }
};

static int load_int(const key_name &key, int *value, int fallback) {
    int64_t wide = 0;
    if (load_config_int(key.text, &wide, fallback) != 0)
        return -1;
    if (wide < INT_MIN || wide > INT_MAX) {
        LOG_FN(LL_ERROR, "%s=%ld is out of range [%d..%d]\n", key.text, static_cast<long>(wide), INT_MIN,
               INT_MAX);
        return -1;
    }
    *value = static_cast<int>(wide);
    return 0;
}

static int load_level(const key_name &key, int *level, const char *fallback) {
    char word[16];
    if (load_config_str(key.text, word, sizeof(word) - 1, fallback) != 0)
        return -1;
    if (match_log_level(word, level) == 0)
        return 0;
    LOG_FN(LL_ERROR, "Invalid log level: %s\n", word);
    return -1;
}

static int load_time_format(const key_name &key, int *timefmt) {
    char word[16];
    if (load_config_str(key.text, word, sizeof(word) - 1, "local") != 0)
        return -1;
    for (const timefmt_row &row : TIME_FORMATS)
        if (strcmp(row.name, word) == 0) {
            *timefmt = row.flags;
            return 0;
        }
    LOG(LL_ERROR, "Invalid time format: %s\n", word);
    return -1;
}

int appcfg_load_ranged(const char *key, int64_t *value, int64_t fallback, int64_t min, int64_t max,
                       bool is_size) {
    int64_t read = 0;
    if (load_config_int(key, &read, fallback) != 0)
        return -1;
    if (read >= min && read <= max) {
        *value = read;
        return 0;
    }
    if (is_size)
        LOG(LL_ERROR, "%s: %s=%zu is out of range [%ld..%ld]\n", "load_config", key,
            static_cast<size_t>(read), min, max);
    else
        LOG(LL_ERROR, "%s: %s=%ld is out of range [%ld..%ld]\n", "load_config", key, read, min, max);
    return -1;
}

int appcfg_load_log(const char *group, log_cfg *cfg) {
    auto key = [group](const char *name) { return key_name(group, "log", name); };
    if (!config_has_group(key("").text)) {
        LOG(LL_ERROR, "%s: missing log section\n", "load_config");
        return -1;
    }
    int64_t pages = 0;
    if (load_config_str(key("file").text, cfg->path, sizeof(cfg->path) - 1, "") != 0 ||
        load_level(key("level"), &cfg->level, "info") != 0 ||
        load_time_format(key("time_format"), &cfg->timefmt) != 0 ||
        load_int(key("max_size_mb"), &cfg->max_size_mb, 64) != 0 ||
        load_int(key("max_files"), &cfg->max_files, 16) != 0 ||
        load_config_bool(key("enable_syslog").text, &cfg->enable_syslog, true) != 0 ||
        load_config_bool(key("eod_rotate").text, &cfg->eod_rotate, false) != 0 ||
        load_config_str(key("ring").text, cfg->ring, sizeof(cfg->ring) - 1, "") != 0 ||
        appcfg_load_ranged(key("ring_pages").text, &pages, RING_DEFAULT_PAGES, RING_MIN_PAGES, RING_MAX_PAGES,
                           false) != 0 ||
        load_level(key("hangups"), &cfg->hangups, "err") != 0)
        return -1;
    cfg->ring_pages = static_cast<int>(pages);
    return 0;
}

int appcfg_load_rt(const char *group, rt_cfg *cfg) {
    auto key = [group](const char *name) { return key_name(group, "runtime", name); };
    if (!config_has_group(key("").text)) {
        LOG(LL_ERROR, "%s: missing runtime section\n", "load_config");
        return -1;
    }
    if (load_config_str(key("pidfile").text, cfg->pidfile, sizeof(cfg->pidfile) - 1, "") != 0 ||
        load_config_bool(key("non_daemon").text, &cfg->non_daemon, false) != 0 ||
        load_config_bool(key("quiet").text, &cfg->quiet, false) != 0 ||
        load_config_bool(key("enforce_core_dumps").text, &cfg->enforce_core_dumps, true) != 0 ||
        load_int(key("cpunum"), &cfg->cpunum, -1) != 0 ||
        load_config_str(key("run_as_user").text, cfg->user, sizeof(cfg->user) - 1, "") != 0)
        return -1;
    return 0;
}

void appcfg_apply_log(const log_cfg *cfg) {
    size_t max_total = cfg->max_size_mb > 0 ? static_cast<size_t>(cfg->max_size_mb) * MB : 0;
    log_set_rota(&g_log, max_total, cfg->max_files, cfg->eod_rotate ? time(nullptr) : 0);
}

const char *appcfg_timefmt_name(int timefmt) {
    for (const timefmt_row &row : TIME_FORMATS)
        if (row.flags == timefmt)
            return row.name;
    return "?";
}

void appcfg_dump_log(FILE *out, const log_cfg *cfg) {
    fprintf(out, "Log (%s):\n", "regular");
    fprintf(out, "\tpath            = %s\n", cfg->path);
    fprintf(out, "\tlevel           = %s\n", log_level_str(cfg->level));
    fprintf(out, "\tformat          = %s\n", appcfg_timefmt_name(cfg->timefmt));
    if (cfg->max_size_mb > 0)
        fprintf(out, "\trota:max size   = %d MB\n", cfg->max_size_mb);
    else
        fprintf(out, "\trota:max size   = off\n");
    fprintf(out, "\trota:max files  = %d\n", cfg->max_files);
    fprintf(out, "\trota:end-of-day = %s\n", cfg->eod_rotate ? "on" : "off");
    if (cfg->ring[0])
        fprintf(out, "\tring            = %s, %d pages\n", cfg->ring, cfg->ring_pages);
    if (cfg->hangups != LL_ERROR)
        fprintf(out, "\thang-ups        = %s\n", log_level_str(cfg->hangups));
}

void appcfg_dump_rt(FILE *out, const rt_cfg *cfg) {
    fprintf(out, "Runtime:\n");
    fprintf(out, "\tpid file = %s\n", cfg->pidfile);
    fprintf(out, "\trun as user: %s\n", cfg->user);
    fprintf(out, "\tCPU: %d\n", cfg->cpunum);
    fprintf(out, "\tflags:%s%s%s\n", cfg->enforce_core_dumps ? " [cores]" : "", cfg->quiet ? " [quiet]" : "",
            cfg->non_daemon ? " [non-daemon]" : "");
}
