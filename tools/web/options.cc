#include "tools/web/options.h"

#include "app/cfg.h"
#include "common/meta.h"
#include "tools/cmdline.h"

#include <cstdio>
#include <filesystem>
#include <iterator>
#include <memory>

enum : char { OPT_ACCEL = 1, OPT_GRID, OPT_SESSIONS, OPT_SESSION_TMOUT, OPT_CLIENT, OPT_ANSWER, OPT_GRACE };
enum : char { OPT_IDLE = 20, OPT_CONNECTIONS };

static constexpr cmd_option TABLE[] = {
    {'C', "config", "FILE", "the daemon's configuration: playlist socket, data directory, status file"},
    {'Y', "pl-socket", "PATH", "the daemon's playlist socket (/tmp/lumo-playlist.sock)"},
    {'d', "data-dir", "DIR", "where segments and playlists lie (/tmp)"},
    {'l', "listen", "ADDRESS", "address to listen on (127.0.0.1)"},
    {'p', "port", "PORT", "port to listen on (8080)"},
    {'s', "status", "FILE", "the daemon's status file, for the list of channels and /metrics"},
    {'w', "www", "DIR", "the player page (as installed)"},
    {OPT_ACCEL, "accel", "PREFIX", "answer segments with X-Accel-Redirect: PREFIX/PATH"},
    {OPT_CLIENT, "client-header", "NAME", "header in which a proxy names the viewer's address"},
    {OPT_GRID, "event-grid", "SEC", "round event times to so many seconds (10)"},
    {OPT_SESSIONS, "max-sessions", "N", "events of one viewer's address (8)"},
    {OPT_SESSION_TMOUT, "session-tmout", "SEC", "forget an event that nobody asks for (30)"},
    {OPT_ANSWER, "answer-tmout", "MS", "how long the daemon may take for an answer (2000)"},
    {OPT_GRACE, "grace", "SEC", "how long a moving playlist outlives the daemon (10)"},
    {OPT_IDLE, "idle-tmout", "SEC", "close a connection without a whole request (60)"},
    {OPT_CONNECTIONS, "max-conns", "N", "connections at a time (10000)"},
    {'h', "help", nullptr, "print this text"},
    {'v', "version", nullptr, "print the version"},
};
static constexpr cmd_guide GUIDE = {
    "lumo-web", "[OPTIONS]", "Serves the playlists and segments of lumo, and a page that plays them.", TABLE};

struct text_option {
    char letter;
    std::string web_options::*field;
};
static constexpr text_option TEXTS[] = {
    {'Y', &web_options::pl_socket},   {'d', &web_options::data_dir},
    {'l', &web_options::address},     {'p', &web_options::port},
    {'s', &web_options::status_path}, {'w', &web_options::www_dir},
    {OPT_ACCEL, &web_options::accel}, {OPT_CLIENT, &web_options::client_header},
};

struct number_option {
    char letter;
    long web_options::*field;
    long min, max;
};
static constexpr number_option NUMBERS[] = {
    {OPT_GRID, &web_options::event_grid, 1, 3600},
    {OPT_SESSIONS, &web_options::max_sessions, 1, 10000},
    {OPT_SESSION_TMOUT, &web_options::session_tmout, 5, 3600},
    {OPT_ANSWER, &web_options::answer_ms, 100, 60000},
    {OPT_GRACE, &web_options::grace, 0, 300},
    {OPT_IDLE, &web_options::idle_tmout, 1, 3600},
    {OPT_CONNECTIONS, &web_options::max_connections, 16, 1000000},
};

static bool read_config(const char *path, web_options *opts) {
    auto cfg = std::make_unique<plum_cfg>();
    init_plum_config(cfg.get());
    if (load_plum_config(path, cfg.get(), false) != 0) {
        fprintf(stderr, "lumo-web: cannot read the configuration [%s]\n", path);
        return false;
    }
    if (has_rui_ifc(cfg.get(), PL_LISTENER))
        opts->pl_socket = cfg->rui.user[PL_LISTENER - 1].domain_path;
    opts->data_dir = cfg->data_dir;
    opts->status_path = cfg->status_file;
    return true;
}

static bool set_option(char letter, const char *text, web_options *opts) {
    for (const text_option &one : TEXTS)
        if (one.letter == letter)
            opts->*one.field = text;
    for (const number_option &one : NUMBERS)
        if (one.letter == letter)
            return cmd_number(GUIDE, letter, text, one.min, one.max, &(opts->*one.field));
    return true;
}

static bool check_options(const web_options &opts) {
    if (opts.data_dir.empty() || opts.data_dir[0] != '/')
        fprintf(stderr, "lumo-web: the data directory must be an absolute path, not [%s]\n",
                opts.data_dir.c_str());
    else if (!opts.accel.empty() && opts.accel[0] != '/')
        fprintf(stderr, "lumo-web: --accel wants a path that begins with /, not [%s]\n", opts.accel.c_str());
    else
        return true;
    return false;
}

// The file's values stand below those of the command line, wherever on it the file is named.
static int read_pass(int argc, char **argv, bool is_config_pass, web_options *opts) {
    optind = 0; // a fresh start of the parser
    for (int c; (c = cmd_next(GUIDE, argc, argv)) != -1;) {
        char letter = static_cast<char>(c);
        if (letter == '?')
            return 2;
        if (letter == 'h') {
            cmd_print_guide(GUIDE);
            return 0;
        }
        if (letter == 'v') {
            printf("lumo-web %s\n", APP_VERSION);
            return 0;
        }
        bool is_config = letter == 'C';
        if (is_config != is_config_pass)
            continue;
        if (is_config ? !read_config(optarg, opts) : !set_option(letter, optarg, opts))
            return 2;
    }
    if (optind == argc)
        return OPTIONS_GO;
    fprintf(stderr, "lumo-web: what is [%s]? See lumo-web --help\n", argv[optind]);
    return 2;
}

// Beside the program's directory, wherever that was installed.
static std::string installed_page() {
    std::error_code err;
    auto program = std::filesystem::read_symlink("/proc/self/exe", err);
    return program.parent_path().parent_path() / "share/lumo/www";
}

int options_read(int argc, char **argv, web_options *opts) {
    opts->www_dir = installed_page();
    int code = read_pass(argc, argv, true, opts);
    if (code == OPTIONS_GO)
        code = read_pass(argc, argv, false, opts);
    while (opts->data_dir.size() > 1 && opts->data_dir.back() == '/')
        opts->data_dir.pop_back();
    while (!opts->accel.empty() && opts->accel.back() == '/')
        opts->accel.pop_back();
    return code == OPTIONS_GO && !check_options(*opts) ? 2 : code;
}
