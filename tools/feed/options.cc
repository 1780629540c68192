#include "tools/feed/options.h"

#include "common/meta.h"
#include "lib/config.h"
#include "lib/strops.h"
#include "lib/util.h"
#include "tools/cmdline.h"
#include "tools/feed/argfile.h"
#include "tools/feed/store.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/un.h>
#include <unistd.h>

static constexpr char PROGRAM[] = "lumo-feed";
static constexpr size_t MAX_PREFIX = 63;
static constexpr size_t MAX_PARAMETERS = 127; // of the init line
static constexpr size_t MAX_MANIFEST_PATH = 142;
static constexpr size_t NUMBER_ROOM = 14; // "-0000000000.ts"
static constexpr long MAX_DEPTH = 10L * 365 * 86400;
static constexpr long MAX_SEGMENT = 30; // the daemon drops a source that is silent for longer
static constexpr const char *CONFIGS[] = {"./lum.conf", "/etc/lum.conf", "/usr/local/etc/lum.conf"};
// A stand-in's own list is never played: its segments need not stay long.
static constexpr long STAND_IN_DEPTH = FEED_MIN_DEPTH;

enum long_option : char { OPT_FFMPEG = 1, OPT_AGO, OPT_RETAIN };

static constexpr cmd_option TABLE[] = {
    {'t', "test", nullptr, "feed a test picture with a running clock and a tone"},
    {'l', "list", nullptr, "take lines \"file,start,end\" from standard input instead of an encoder"},
    {'b', "backup", nullptr, "be the channel's stand-in"},
    {'1', "once", nullptr, "end with the encoder, with its status, instead of starting it again"},
    {'a', "args", "FILE", "read the encoder's arguments, or options, \"--\" and these, from FILE"},
    {'C', "config", "FILE", "the daemon's configuration; without it ./, /etc/ or /usr/local/etc/lum.conf"},
    {'S', "socket", "PATH", "the daemon's source socket [src_socket, or /tmp/lumo-source.sock]"},
    {'D', "data-dir", "DIR", "where the channel's directory is or is made [data_dir, or /tmp]"},
    {'d', "depth", "SEC", "how much is kept, at least 100 [3600]"},
    {'s', "segment", "SEC", "length of a segment, 1 to 30 [6]"},
    {'p', "prefix", "URL", "put before the segments' paths in playlists [the daemon's]"},
    {'n', "name", "NAME", "segments are called NAME-000001.ts [main, or backup]"},
    {OPT_RETAIN, "retain-pts", nullptr, "keep the input's time stamps"},
    {OPT_AGO, "start-ago", "SEC", "the stream began so long ago, and may run until it arrives at the clock"},
    {OPT_FFMPEG, "ffmpeg", "PROGRAM", "the encoder [ffmpeg]"},
    {'v', "verbose", nullptr, "tell each segment and the encoder's command line"},
    {'q', "quiet", nullptr, "tell errors only"},
    {'V', "version", nullptr, "print the version"},
    {'h', "help", nullptr, "print this guide"},
};

static constexpr cmd_guide GUIDE = {PROGRAM, "[options] CHANNEL [-- FFMPEG ARGUMENTS]",
                                    "Feeds a channel: runs ffmpeg with the arguments, cuts what it makes "
                                    "into segments and reports them to lumo.",
                                    TABLE, true};

// --- scanning ---

struct texts {
    const char *config = nullptr;
    const char *args_file = nullptr;
};

static bool take_number(char letter, long min, long max, long *value) {
    return cmd_number(GUIDE, letter, optarg, min, max, value);
}

static bool take_option(int letter, feed_options *opts, texts *files) {
    switch (letter) {
    case 't':
        opts->mode = FEED_TEST;
        return true;
    case 'l':
        opts->mode = FEED_LIST;
        return true;
    case 'b':
        return opts->is_backup = true;
    case '1':
        return opts->is_once = true;
    case 'v':
        return opts->is_verbose = true;
    case 'q':
        return opts->is_quiet = true;
    case OPT_RETAIN:
        return opts->retain_pts = true;
    case 'a':
        files->args_file = optarg;
        return true;
    case 'C':
        files->config = optarg;
        return true;
    case 'S':
        opts->socket = optarg;
        return true;
    case 'D':
        opts->data_dir = optarg;
        return true;
    case 'p':
        opts->url_prefix = optarg;
        return true;
    case 'n':
        opts->name = optarg;
        return true;
    case OPT_FFMPEG:
        opts->program = optarg;
        return true;
    case 'd':
        return take_number('d', FEED_MIN_DEPTH, MAX_DEPTH, &opts->depth_sec);
    case 's':
        return take_number('s', 1, MAX_SEGMENT, &opts->segment_sec);
    case OPT_AGO:
        return take_number(OPT_AGO, 0, MAX_DEPTH, &opts->ago_sec);
    default:
        return false;
    }
}

// An option that ends the program, or is wrong; RUN for any other.
static options_result scan_option(int letter, feed_options *opts, texts *files) {
    if (letter == 'h') {
        cmd_print_guide(GUIDE);
        return OPTIONS_DONE;
    }
    if (letter == 'V') {
        printf("%s\n", meta_app_tag());
        return OPTIONS_DONE;
    }
    return take_option(letter, opts, files) ? OPTIONS_RUN : OPTIONS_WRONG;
}

static bool is_behind_dashes(char **argv) {
    return strcmp(argv[optind - 1], "--") == 0;
}

// Options stand before and behind the channel; "--" ends them. `optind` is left at what follows.
static options_result scan(int argc, char **argv, feed_options *opts, texts *files) {
    reset_getopt_state();
    opts->channel.clear();
    for (;;) {
        for (int letter; (letter = cmd_next(GUIDE, argc, argv)) != -1;)
            if (options_result rc = scan_option(letter, opts, files); rc != OPTIONS_RUN)
                return rc;
        if (optind >= argc || is_behind_dashes(argv) || !opts->channel.empty())
            break;
        opts->channel = argv[optind++];
    }
    if (optind < argc && !is_behind_dashes(argv)) {
        fprintf(stderr, "%s: more than one channel, or ffmpeg's arguments without \"--\": [%s]\n", PROGRAM,
                argv[optind]);
        return OPTIONS_WRONG;
    }
    return OPTIONS_RUN;
}

// What a file of arguments says before "--" are options.
static options_result scan_file(const char *path, feed_options *opts) {
    std::vector<std::string> words;
    if (!argfile_read(path, &words))
        return OPTIONS_FAILED;
    auto end = std::find(words.begin(), words.end(), "--");
    bool has_options = end != words.end();
    opts->encoder_args.assign(has_options ? end + 1 : words.begin(), words.end());
    if (!has_options)
        return OPTIONS_RUN;
    std::vector<char *> argv{const_cast<char *>(PROGRAM)};
    for (auto word = words.begin(); word != end; ++word)
        argv.push_back(word->data());
    int argc = static_cast<int>(argv.size());
    argv.push_back(nullptr);
    texts ignored;
    options_result rc = scan(argc, argv.data(), opts, &ignored);
    if (rc != OPTIONS_RUN || opts->channel.empty())
        return rc;
    fprintf(stderr, "%s: [%s] in [%s] is no option\n", PROGRAM, opts->channel.c_str(), path);
    return OPTIONS_WRONG;
}

// --- the daemon's configuration ---

static options_result read_config(const char *path, feed_options *opts) {
    if (!path)
        path = pick_first_file(CONFIGS, std::size(CONFIGS));
    if (!path)
        return OPTIONS_RUN;
    char socket[sizeof(sockaddr_un::sun_path)];
    char dir[128];
    int rc = config_open(path);
    if (rc == 0)
        rc = load_config_str("lum.src_socket", socket, sizeof(socket) - 1, opts->socket.c_str()) |
             load_config_str("lum.data_dir", dir, sizeof(dir) - 1, opts->data_dir.c_str());
    config_close();
    if (rc != 0) {
        fprintf(stderr, "%s: cannot use the configuration [%s]; lumo-conf tells why\n", PROGRAM, path);
        return OPTIONS_FAILED;
    }
    opts->socket = socket;
    opts->data_dir = dir;
    return OPTIONS_RUN;
}

// --- checks ---

static options_result refuse(const char *what, const std::string &text, const char *why) {
    fprintf(stderr, "%s: %s [%s] %s\n", PROGRAM, what, text.c_str(), why);
    return OPTIONS_WRONG;
}

static bool has_odd_character(const std::string &text) {
    return std::any_of(text.begin(), text.end(),
                       [](unsigned char c) { return isspace(c) || iscntrl(c) || c == 0; });
}

static bool is_component(const std::string &text) {
    return !text.empty() && text != "." && text != ".." && text.find('/') == std::string::npos &&
           !has_odd_character(text);
}

static options_result check_names(const feed_options &opts) {
    if (!is_component(opts.channel) || opts.channel[0] == '~')
        return refuse("a channel cannot be called", opts.channel,
                      "(no blank, no \"/\", not \"..\", no \"~\" in front)");
    if (!is_component(opts.name))
        return refuse("segments cannot be called", opts.name, "(no blank, no \"/\")");
    if (opts.channel.size() + 1 + opts.name.size() + NUMBER_ROOM > STORE_PATH_MAX)
        return refuse("the segments' paths of", opts.channel + "/" + opts.name,
                      "would be longer than 63 characters");
    if (has_odd_character(opts.url_prefix) || opts.url_prefix.size() > MAX_PREFIX)
        return refuse("the prefix", opts.url_prefix, "has a blank or more than 63 characters");
    if (opts.socket.empty() || opts.socket.size() >= sizeof(sockaddr_un::sun_path))
        return refuse("the socket", opts.socket, "has no name or one of more than 107 characters");
    return OPTIONS_RUN;
}

static options_result check_dir(feed_options *opts) {
    char *path = realpath(opts->data_dir.c_str(), nullptr);
    if (!path) {
        fprintf(stderr, "%s: no data directory [%s]: %m\n", PROGRAM, opts->data_dir.c_str());
        return OPTIONS_FAILED;
    }
    opts->data_dir = path;
    free(path);
    if (opts->data_dir.size() > STORE_DIR_MAX || has_odd_character(opts->data_dir))
        return refuse("the data directory", opts->data_dir, "has a blank or more than 63 characters");
    if (opts->data_dir.size() + 2 * opts->channel.size() + strlen("//.manifest_live") > MAX_MANIFEST_PATH ||
        options_init_line(*opts, false).size() > MAX_PARAMETERS + strlen("S1 init ") + opts->channel.size())
        return refuse("the names of data directory, channel and prefix", opts->data_dir,
                      "are too long together");
    return OPTIONS_RUN;
}

static options_result check_source(const feed_options &opts) {
    bool has_args = !opts.encoder_args.empty();
    if (opts.channel.empty()) {
        fprintf(stderr, "%s: no channel is named\nTry '%s --help'.\n", PROGRAM, PROGRAM);
        return OPTIONS_WRONG;
    }
    if (opts.mode == FEED_ENCODER && !has_args)
        return refuse("nothing to feed to", opts.channel,
                      "(say it in ffmpeg's arguments behind \"--\", or --test, or --list)");
    if (opts.mode == FEED_LIST && has_args)
        return refuse("with --list there is no encoder for", opts.encoder_args.front(), "");
    return OPTIONS_RUN;
}

// A picture and a tone; the time of day needs a font.
static std::vector<std::string> test_args() {
    static constexpr const char *FONTS[] = {
        "/usr/share/fonts/truetype/dejavu/DejaVuSansMono.ttf",
        "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf", "/usr/share/fonts/truetype/freefont/FreeMono.ttf",
        "/usr/share/fonts/truetype/liberation/LiberationMono-Regular.ttf"};
    std::vector<std::string> args = {"-re",
                                     "-f",
                                     "lavfi",
                                     "-i",
                                     "testsrc2=size=640x360:rate=25",
                                     "-f",
                                     "lavfi",
                                     "-i",
                                     "sine=frequency=440:beep_factor=2:sample_rate=48000",
                                     "-af",
                                     "volume=-12dB"};
    if (const char *font = pick_first_file(FONTS, std::size(FONTS)))
        args.insert(args.end(), {"-vf", std::string("drawtext=fontfile=") + font +
                                            ":text='%{localtime\\:%T}':fontsize=48:x=(w-tw)/2:"
                                            "y=h-80:fontcolor=white:box=1:boxcolor=black@0.6:boxborderw=8"});
    args.insert(args.end(),
                {"-c:v", "libx264", "-preset", "ultrafast", "-tune", "zerolatency", "-pix_fmt", "yuv420p",
                 "-b:v", "800k", "-maxrate", "800k", "-bufsize", "1600k", "-c:a", "aac", "-b:a", "64k"});
    return args;
}

static void complete(feed_options *opts) {
    if (opts->mode == FEED_TEST) {
        std::vector<std::string> args = test_args(); // the user's own may change the rest
        args.insert(args.end(), opts->encoder_args.begin(), opts->encoder_args.end());
        opts->encoder_args = args;
    }
    if (opts->name.empty())
        opts->name = opts->is_backup ? "backup" : "main";
}

options_result options_read(int argc, char **argv, feed_options *opts) {
    texts files;
    feed_options first;
    options_result rc = scan(argc, argv, &first, &files);
    if (rc == OPTIONS_RUN)
        rc = read_config(files.config, opts);
    if (rc == OPTIONS_RUN && files.args_file)
        rc = scan_file(files.args_file, opts);
    if (rc == OPTIONS_RUN)
        rc = scan(argc, argv, opts, &files);
    if (rc == OPTIONS_WRONG)
        fprintf(stderr, "Try '%s --help'.\n", PROGRAM);
    if (rc != OPTIONS_RUN)
        return rc;
    if (optind < argc)
        opts->encoder_args.assign(argv + optind, argv + argc);
    rc = check_source(*opts);
    complete(opts);
    if (rc == OPTIONS_RUN)
        rc = check_names(*opts);
    return rc == OPTIONS_RUN ? check_dir(opts) : rc;
}

std::string options_init_line(const feed_options &opts, bool is_stand_in) {
    std::string line = std::string("S1 init ") + (is_stand_in ? "~" : "") + opts.channel;
    line += " max_sec=" + std::to_string(is_stand_in ? STAND_IN_DEPTH : opts.depth_sec);
    line += " target_sec=" + std::to_string(opts.segment_sec);
    line += " data_dir=" + opts.data_dir;
    return opts.url_prefix.empty() ? line : line + " item_pfx=" + opts.url_prefix;
}
