// Configuration sections that the daemons of this family share: the log and the process itself.
#pragma once

#include <cstdint>
#include <cstdio>

struct log_cfg {
    char path[128]; // empty = no log file; "|command" = a pipe
    int level;
    int timefmt; // TF_ flags
    bool enable_syslog;
    int max_size_mb; // of 1,048,576 bytes
    int max_files;
    bool eod_rotate;
    char ring[64]; // name of the shared-memory ring; empty = none
    int ring_pages;
    int hangups; // level of the records about a connection that its peer closed without an error
};

struct rt_cfg {
    char pidfile[128];
    char user[32]; // run as this user
    bool non_daemon;
    bool quiet;
    bool enforce_core_dumps;
    int cpunum; // -1 = do not pin
};

inline constexpr int RING_MIN_PAGES = 4;
inline constexpr int RING_MAX_PAGES = 65536;
inline constexpr int RING_DEFAULT_PAGES = 64;

// Built-in values, before any file.
void appcfg_init_log(log_cfg *cfg);
void appcfg_init_rt(rt_cfg *cfg);

// Read the sections GROUP.log and GROUP.runtime of the open configuration file; 0 or -1 (logged).
int appcfg_load_log(const char *group, log_cfg *cfg);
int appcfg_load_rt(const char *group, rt_cfg *cfg);

// An integer key of the open file within min..max; 0 or -1 (logged) with `value` untouched. With `is_size` a
// negative value is told as the size it would be.
int appcfg_load_ranged(const char *key, int64_t *value, int64_t fallback, int64_t min, int64_t max,
                       bool is_size);

// Rotation settings of the application log.
void appcfg_apply_log(const log_cfg *cfg);

const char *appcfg_timefmt_name(int timefmt);

void appcfg_dump_log(FILE *out, const log_cfg *cfg);
void appcfg_dump_rt(FILE *out, const rt_cfg *cfg);
