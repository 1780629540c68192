#include "app/options.h"

#include "app/cfg.h"
#include "common/meta.h"
#include "lib/log.h"
#include "lib/util.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>
#include <unistd.h>

LOG_UNIT(LOG_MOD_APP);

static constexpr char LOG_GROUP[8] = "LUM";

static constexpr const char *DEFAULT_CONFIGS[] = {
    "./lum.conf",    "/etc/lum.conf",    "/usr/local/etc/lum.conf",
    "./tarvex.conf", "/etc/tarvex.conf", "/usr/local/etc/tarvex.conf",
};

// --- the guide ---

struct option_row {
    const char *shorts; // "-Y"
    const char *name;   // long form
    const char *argument;
    const char *text;
};

static constexpr option_row PARAMETERS[] = {
    {"-Y", "items", "{path}", "playlist listener (UNIX socket path)"},
    {"-S", "sources", "{path}", "source listener (UNIX socket path)"},
    {"-C", "config", "{path}", "config file"},
};

static constexpr option_row OPTIONS[] = {
    {"-0", "default", "", "run with default settings [false]"},
    {"-D", "appdata", "{path}", "directory for playlist data [/tmp]"},
    {"-F", "prefix", "{URL}", "prefix for each media-segment URL []"},
    {"-l", "logfile", "{path}", "log file"},
    {"-L", "level", "{level}", "log level: crit|err|norm|warn|info|debug [info]"},
    {"-p", "pidfile", "{path}", "pid file"},
    {"-T", "term", "", "run as a non-daemon application [false]"},
    {"-V", "version", "", "output application's version"},
    {"-q", "quiet", "", "send no output to terminal"},
    {"-h|-?", "help", "", "output this option guide"},
};

static void print_row(const option_row &row) {
    char forms[32];
    snprintf(forms, sizeof(forms), "%s|--%s", row.shorts, row.name);
    fprintf(stderr, "  %-13s%-14s= %s\n", forms, row.argument, row.text);
}

[[noreturn]] void usage(int status) {
    fprintf(stderr, "%s\n", meta_banner());
    fprintf(stderr, "Usage: %s -Y ipath -S spath -C config [OPTIONS]\n\n", APP_NAME);
    fprintf(stderr, "Parameters:\n");
    for (const option_row &row : PARAMETERS)
        print_row(row);
    fprintf(stderr, "Options:\n");
    for (const option_row &row : OPTIONS)
        print_row(row);
    fprintf(stderr, "----\n%s\n----\n\n", meta_build_info());
    fprintf(stderr, "%s is part of the %s product family\n\n", APP_NAME, APP_FAMILY);
    exit(status);
}

// --- scanning ---

static constexpr char SHORT_OPTIONS[] = "0h?VqTl:p:L:S:Y:D:C:F:";

// "--default" yields no option character, so that the second pass refuses it.
static constexpr option LONG_OPTIONS[] = {
    {"items", required_argument, nullptr, 'Y'},
    {"sources", required_argument, nullptr, 'S'},
    {"config", required_argument, nullptr, 'C'},
    {"default", no_argument, nullptr, 0},
    {"appdata", required_argument, nullptr, 'D'},
    {"prefix", required_argument, nullptr, 'F'},
    {"logfile", required_argument, nullptr, 'l'},
    {"level", required_argument, nullptr, 'L'},
    {"pidfile", required_argument, nullptr, 'p'},
    {"term", no_argument, nullptr, 'T'},
    {"version", no_argument, nullptr, 'V'},
    {"quiet", no_argument, nullptr, 'q'},
    {"help", no_argument, nullptr, 'h'},
    {"options", no_argument, nullptr, 'h'},
    {nullptr, 0, nullptr, 0},
};

static constexpr int UNKNOWN = 256; // beside the option characters; `optopt` holds the one in question

// The next option: its character, 0 for "--default", UNKNOWN, or -1 at the end. The parser answers '?' for
// what it does not know and for "-?" alike; only the latter leaves `optopt` clear and was no long option.
static int next_option(int argc, char **argv) {
    opterr = 0;
    optopt = 0;
    int before = optind;
    int c = getopt_long(argc, argv, SHORT_OPTIONS, LONG_OPTIONS, nullptr);
    if (c != '?')
        return c;
    bool is_inside_word = optind == before && before > 0;
    bool is_long = !is_inside_word && optind > 0 && strncmp(argv[optind - 1], "--", 2) == 0;
    return optopt != 0 || is_long ? UNKNOWN : 'h';
}

static const char *first_pass(int argc, char **argv, const char *path) {
    for (int c = 0; (c = next_option(argc, argv)) != -1;) {
        switch (c) {
        case 'h':
            usage(1);
        case 'C':
            path = optarg;
            break;
        case 'V':
            fprintf(stderr, "%s\n", meta_banner());
            exit(1);
        case 'q':
            g_cfg.rt.quiet = true;
            break;
        default:
            break;
        }
    }
    return path;
}

// Copies an option's text; -1 when it is too long.
static int take_path(char *dst, size_t size, const char *what) {
    size_t len = strlen(optarg);
    if (len < size) {
        memcpy(dst, optarg, len + 1);
        return 0;
    }
    fprintf(stderr, "%s is too long (%ld bytes), max=%ld bytes.\n", what, static_cast<long>(len),
            static_cast<long>(size));
    return -1;
}

static int take_socket(size_t index, uint32_t tag, const char *what) {
    char path[sizeof(g_cfg.rui.user[0].domain_path)];
    int rc = take_path(path, sizeof(path), what);
    if (rc == 0)
        config_plum_ifc(&g_cfg, index, tag, path);
    return rc;
}

static int take_level() {
    int rc = match_log_level(optarg, &g_cfg.log.level);
    if (rc != 0)
        fprintf(stderr, "Invalid log level: %s\n", optarg);
    return rc;
}

// What the command line says overrides the file.
static int apply_option(int c) {
    switch (c) {
    case '0':
    case 'C':
        return 0;
    case 'D':
        return take_path(g_cfg.data_dir, sizeof(g_cfg.data_dir), "Data path");
    case 'F':
        return take_path(g_cfg.pl_item_pfx, sizeof(g_cfg.pl_item_pfx), "Segment prefix");
    case 'L':
        return take_level();
    case 'S':
        return take_socket(SRC_LISTENER, YLI_tag, "Source socket path");
    case 'Y':
        return take_socket(PL_LISTENER, SLI_tag, "Playlist socket path");
    case 'l':
        return take_path(g_cfg.log.path, sizeof(g_cfg.log.path), "Log path");
    case 'p':
        return take_path(g_cfg.rt.pidfile, sizeof(g_cfg.rt.pidfile), "Pidfile path");
    case 'T':
        g_cfg.rt.non_daemon = true;
        return 0;
    case 'q':
        g_cfg.rt.quiet = true;
        return 0;
    default:
        fprintf(stderr, "Unknown option: %c\n", c == UNKNOWN ? optopt : c);
        return -1;
    }
}

static int second_pass(int argc, char **argv) {
    int rc = 0;
    for (int c = 0; rc == 0 && (c = next_option(argc, argv)) != -1;)
        rc = apply_option(c);
    return rc;
}

static void require_sockets() {
    const char *missing = nullptr;
    if (!has_rui_ifc(&g_cfg, PL_LISTENER))
        missing = "Playlist";
    else if (!has_rui_ifc(&g_cfg, SRC_LISTENER))
        missing = "Source";
    if (!missing)
        return;
    fprintf(stderr, "%s socket path undefined\n", missing);
    usage(1);
}

int setup_config(int argc, char **argv) {
    init_plum_config(&g_cfg);
    log_default(&g_log, stderr);
    n64_tag group;
    memcpy(group.sym8, LOG_GROUP, sizeof(group.sym8));
    log_set_group(&g_log, group.num64);
    constexpr size_t n = sizeof(DEFAULT_CONFIGS) / sizeof(DEFAULT_CONFIGS[0]);
    const char *path = first_pass(argc, argv, pick_first_file(DEFAULT_CONFIGS, n));
    if (!path) {
        fprintf(stderr, "Invalid or unspecified config [%s], please use -C path\n", "");
        usage(1);
    }
    if (load_plum_config(path, &g_cfg, false) != 0)
        exit(1);
    reset_getopt_state();
    log_timefmt(&g_log, static_cast<uint32_t>(g_cfg.log.timefmt));
    if (geteuid() != 0)
        g_cfg.rt.non_daemon = true;
    int rc = second_pass(argc, argv);
    require_sockets();
    if (rc != 0)
        exit(1);
    log_set_modules(&g_log, g_cfg.log.level);
    return 0;
}
