// Shows the status file of the daemon on a terminal: a line about the daemon and a table of its channels.
#include "tools/cmdline.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <map>
#include <string>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

enum { EXIT_FINE = 0, EXIT_NO_FILE = 1, EXIT_USAGE = 2 };

static constexpr long DEFAULT_SEC = 2;
static constexpr int NO_TERMINAL_ROWS = 1'000'000;

static constexpr cmd_option OPTIONS[] = {
    {'1', "once", nullptr, "print one table and end"},
    {'n', "interval", "SEC", "seconds between two looks, 1 to 60 [2]"},
    {'h', "help", nullptr, "print this guide"},
};
static constexpr cmd_guide GUIDE = {
    "lumo-top", "[OPTIONS] FILE",
    "Shows the channels of lumo and what becomes of them, from the status file FILE (key status_file).",
    OPTIONS};

// --- the file ---

// Values by name, where the labels but the source's are part of the name: "requests_total{kind=live}".
using values = std::map<std::string, double>;

struct status {
    values all;                            // of the daemon
    std::map<std::string, values> sources; // of each source
    time_t written;
};

// Takes the next `name="text"` of a list of labels off its front, the text unescaped.
static bool take_label(std::string_view *labels, std::string *name, std::string *text) {
    size_t equals = labels->find("=\"");
    if (equals == std::string_view::npos)
        return false;
    *name = labels->substr(labels->find_first_not_of(','), equals - labels->find_first_not_of(','));
    text->clear();
    size_t at = equals + 2;
    for (; at < labels->size() && (*labels)[at] != '"'; ++at) {
        if ((*labels)[at] == '\\' && at + 1 < labels->size())
            ++at;
        *text += (*labels)[at];
    }
    labels->remove_prefix(at < labels->size() ? at + 1 : at);
    return true;
}

// The end of the labels: a brace within quotes is text.
static size_t end_of_labels(std::string_view line) {
    bool is_text = false;
    for (size_t at = line.find('{'); at < line.size(); ++at) {
        if (line[at] == '\\' && is_text)
            ++at;
        else if (line[at] == '"')
            is_text = !is_text;
        else if (line[at] == '}' && !is_text)
            return at;
    }
    return std::string_view::npos;
}

static void take_line(std::string_view line, status *out) {
    static constexpr std::string_view PREFIX = "lumo_";
    if (!line.starts_with(PREFIX))
        return;
    line.remove_prefix(PREFIX.size());
    std::string key(line.substr(0, line.find_first_of(" {")));
    std::string source;
    bool has_source = false;
    size_t end = key.size();
    if (end < line.size() && line[end] == '{') {
        size_t close = end_of_labels(line);
        if (close == std::string_view::npos)
            return;
        std::string_view labels = line.substr(end + 1, close - end - 1);
        std::string name;
        std::string text;
        while (take_label(&labels, &name, &text)) {
            if (name == "source") {
                source = text;
                has_source = true;
            } else {
                key.append("{").append(name).append("=").append(text).append("}");
            }
        }
        end = close + 1;
    }
    double value = strtod(std::string(line.substr(end)).c_str(), nullptr);
    (has_source ? out->sources[source] : out->all)[key] = value;
}

static bool read_status(const char *path, status *out) {
    struct stat st;
    std::ifstream file(path);
    *out = {};
    if (!file || stat(path, &st) != 0)
        return false;
    out->written = st.st_mtime;
    for (std::string line; std::getline(file, line);)
        take_line(line, out);
    errno = ENODATA;
    return !out->all.empty();
}

static double value_of(const values &from, const char *name) {
    auto found = from.find(name);
    return found == from.end() ? 0 : found->second;
}

// All that begin with `prefix`.
static double sum_of(const values &from, std::string_view prefix) {
    double sum = 0;
    for (auto at = from.lower_bound(std::string(prefix)); at != from.end() && at->first.starts_with(prefix);
         ++at)
        sum += at->second;
    return sum;
}

// --- the table ---

static std::string span_text(double sec) {
    char text[32];
    long whole = static_cast<long>(sec);
    if (whole >= 86400)
        snprintf(text, sizeof(text), "%ldd%02ldh", whole / 86400, whole / 3600 % 24);
    else if (whole >= 3600)
        snprintf(text, sizeof(text), "%ldh%02ldm", whole / 3600, whole / 60 % 60);
    else if (whole >= 60)
        snprintf(text, sizeof(text), "%ldm%02lds", whole / 60, whole % 60);
    else
        snprintf(text, sizeof(text), "%.1fs", sec);
    return text;
}

static void print_daemon(const status &now, const status *before) {
    static constexpr char REQUESTS[] = "requests_total{";
    double good = 0;
    double all = sum_of(now.all, REQUESTS);
    for (const char *kind : {"live", "vod", "event"})
        good += value_of(now.all, (std::string(REQUESTS) + "kind=" + kind + "}{status=200}").c_str());
    printf("lumo up %s, %zu channels, %.1f MiB, %.0f descriptors, longest pass %.1f ms, written %s ago\n",
           span_text(difftime(now.written, 0) - value_of(now.all, "start_time_seconds")).c_str(),
           now.sources.size(), value_of(now.all, "resident_memory_bytes") / 1048576,
           value_of(now.all, "open_fds"), value_of(now.all, "loop_longest_pass_seconds") * 1000,
           span_text(difftime(time(nullptr), now.written)).c_str());
    printf("%.0f requests, %.0f refused", all, all - good);
    double sec = before ? difftime(now.written, before->written) : 0;
    if (sec > 0)
        printf(", %.1f/s", (all - sum_of(before->all, REQUESTS)) / sec);
    printf("; %.0f playlists written, %.0f failed; %.0f errors in the log\n\n",
           sum_of(now.all, "playlists_written_total{"), sum_of(now.all, "playlist_failures_total{"),
           value_of(now.all, "log_records_total{level=error}"));
}

static void print_channel(const std::string &name, const values &of) {
    printf("%-24s %-5s %7.0f %8s %8s %9.0f %7.0f %8.0f %5.0f %5.0f %4.0f %4.0f %4.0f\n", name.c_str(),
           value_of(of, "source_connected") > 0 ? "on" : "off", value_of(of, "source_items"),
           span_text(value_of(of, "source_held_seconds")).c_str(),
           span_text(std::max(0.0, value_of(of, "source_newest_segment_age_seconds"))).c_str(),
           value_of(of, "source_segments_accepted_total"), sum_of(of, "source_lines_refused_total{"),
           value_of(of, "source_segments_retired_total"), value_of(of, "source_discontinuities_total"),
           value_of(of, "source_takeovers_total"), value_of(of, "source_tasks{kind=live}"),
           value_of(of, "source_tasks{kind=vod}"), value_of(of, "source_tasks{kind=event}"));
}

static int terminal_rows() {
    winsize size{};
    bool is_known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0;
    return is_known ? size.ws_row : NO_TERMINAL_ROWS;
}

static void print_status(const status &now, const status *before) {
    int rows = terminal_rows() - 6;
    print_daemon(now, before);
    printf("%-24s %-5s %7s %8s %8s %9s %7s %8s %5s %5s %4s %4s %4s\n", "CHANNEL", "STATE", "ITEMS", "HELD",
           "AGE", "SEGMENTS", "REFUSED", "RETIRED", "DISC", "TAKE", "LIV", "VOD", "EVE");
    for (const auto &[name, of] : now.sources)
        if (rows-- > 0)
            print_channel(name, of);
    if (rows < 0)
        printf("... and %d more\n", -rows);
}

// --- the program ---

static int show_once(const char *path) {
    status now;
    if (!read_status(path, &now)) {
        fprintf(stderr, "%s: cannot read [%s]: %s\n", GUIDE.program, path, strerror(errno));
        return EXIT_NO_FILE;
    }
    print_status(now, nullptr);
    return fflush(stdout) == 0 ? EXIT_FINE : EXIT_NO_FILE;
}

// Until it is interrupted; a file that is not there yet, or not now, is waited for.
static int show_on(const char *path, long sec) {
    // Lines that are too long for the terminal end at its edge, or the rows would not count.
    static constexpr char BEGIN[] = "\033[H\033[J\033[?7l";
    static constexpr char END[] = "\033[?7h";
    status now;
    status last;   // as the file was when it was last new
    status before; // and the time before that
    bool has_last = false;
    bool has_before = false;
    for (; fflush(stdout) == 0; sleep(static_cast<unsigned>(sec))) {
        fputs(BEGIN, stdout);
        if (!read_status(path, &now)) {
            printf("waiting for [%s]: %s\n%s", path, strerror(errno), END);
            has_last = has_before = false;
            continue;
        }
        if (!has_last || now.written != last.written) {
            before = std::move(last);
            has_before = has_last;
            last = std::move(now);
            has_last = true;
        }
        print_status(last, has_before ? &before : nullptr);
        fputs(END, stdout);
    }
    return EXIT_NO_FILE;
}

int main(int argc, char **argv) {
    bool is_once = false;
    long sec = DEFAULT_SEC;
    for (int c = 0; (c = cmd_next(GUIDE, argc, argv)) != -1;) {
        if (c == 'h') {
            cmd_print_guide(GUIDE);
            return EXIT_FINE;
        }
        bool is_fine = c == '1' || (c == 'n' && cmd_number(GUIDE, 'n', optarg, 1, 60, &sec));
        if (!is_fine)
            return EXIT_USAGE;
        is_once = is_once || c == '1';
    }
    if (argc - optind != 1) {
        fprintf(stderr, "%s: wants one file; --help tells more\n", GUIDE.program);
        return EXIT_USAGE;
    }
    return is_once ? show_once(argv[optind]) : show_on(argv[optind], sec);
}
