// Reads a configuration as the daemon does: prints the settings in force, or the fault.
#include "app/cfg.h"
#include "lib/log.h"
#include "tools/cmdline.h"

#include <cstdio>
#include <cstring>
#include <utility>

enum { EXIT_FINE = 0, EXIT_FAULT = 1 };

static constexpr cmd_option OPTIONS[] = {
    {'q', "quiet", nullptr, "print faults and warnings only"},
    {'h', "help", nullptr, "print this guide"},
};
static constexpr cmd_guide GUIDE = {
    "lumo-conf", "[OPTIONS] FILE",
    "Reads a configuration of lumo, prints the settings that it gives, or the fault, and warns about keys\n"
    "that nobody reads. Ends with 0, or with 1 when the daemon would refuse it.",
    OPTIONS};

static void warn_unread(const char *key, const cfg_place &place, void *) {
    fprintf(stderr, "%s: warning: line %d of [%s]: nobody reads %s\n", GUIDE.program, place.line,
            place.path.c_str(), key);
}

static void warn_sockets() {
    for (auto [index, key] : {std::pair(SRC_LISTENER, "src_socket"), std::pair(PL_LISTENER, "pl_socket")})
        if (!has_rui_ifc(&g_cfg, index))
            fprintf(stderr, "%s: warning: no lum.%s, which the command line must give then\n", GUIDE.program,
                    key);
}

// The daemon's own records, without what a log file would want.
static void log_to_terminal() {
    glog_init(GUIDE.program);
    log_timefmt(&g_log, TF_NO_TIME);
    log_default(&g_log, stderr);
    log_set_modules(&g_log, LL_NORM);
}

static int check(const char *path, bool is_quiet) {
    log_to_terminal();
    init_plum_config(&g_cfg);
    if (load_plum_config(path, &g_cfg, false, warn_unread) != 0)
        return EXIT_FAULT;
    warn_sockets();
    if (is_quiet)
        return EXIT_FINE;
    dump_plum_config(stdout, &g_cfg);
    if (fflush(stdout) == 0)
        return EXIT_FINE;
    perror(GUIDE.program);
    return EXIT_FAULT;
}

int main(int argc, char **argv) {
    bool is_quiet = false;
    for (int c = 0; (c = cmd_next(GUIDE, argc, argv)) != -1;) {
        if (c == 'h') {
            cmd_print_guide(GUIDE);
            return EXIT_FINE;
        }
        if (c != 'q')
            return EXIT_FAULT;
        is_quiet = true;
    }
    if (argc - optind == 1)
        return check(argv[optind], is_quiet);
    fprintf(stderr, "%s: wants one file; --help tells more\n", GUIDE.program);
    return EXIT_FAULT;
}
