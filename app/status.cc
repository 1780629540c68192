#include "app/status.h"

#include "app/cfg.h"
#include "app/retry.h"
#include "common/meta.h"
#include "lib/log.h"
#include "lib/logcount.h"
#include "lib/rqs.h"
#include "lib/syswrap.h"
#include "lib/timeop.h"
#include "lib/tmout.h"
#include "lib/util.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <unistd.h>

LOG_UNIT(LOG_MOD_APP);

static constexpr int64_t LOOK_MS = 1000; // between two looks whether it is time

static constexpr const char *KIND_NAMES[] = {"live", "vod", "event"};
static constexpr const char *REFUSAL_NAMES[] = {"malformed", "value", "stamp", "size", "missing", "other"};
static_assert(sizeof(KIND_NAMES) / sizeof(KIND_NAMES[0]) == PL_KINDS);
static_assert(sizeof(REFUSAL_NAMES) / sizeof(REFUSAL_NAMES[0]) == REFUSED_REASONS);

// From LL_PANIC on, spelled as one looks for them.
static constexpr const char *LEVEL_NAMES[LOG_COUNTED] = {"panic",  "error", "critical", "warning",
                                                         "normal", "info",  "debug"};

// --- the text ---

__attribute__((format(printf, 2, 3))) static void put(std::string *out, const char *format, ...) {
    char line[5 * MAX_SRC_NAME + 256]; // five characters tell a byte of a name
    va_list args;
    va_start(args, format);
    int n = vsnprintf(line, sizeof(line), format, args);
    va_end(args);
    if (n > 0)
        out->append(line, n < static_cast<int>(sizeof(line)) ? static_cast<size_t>(n) : sizeof(line) - 1);
}

static void put_family(std::string *out, const char *name, const char *type, const char *help) {
    put(out, "# HELP lumo_%s %s\n# TYPE lumo_%s %s\n", name, help, name, type);
}

static void put_value(std::string *out, const char *name, const char *type, const char *help, double value) {
    put_family(out, name, type, help);
    put(out, "lumo_%s %.17g\n", name, value);
}

static double seconds(int64_t usec) {
    return static_cast<double>(usec) / 1e6;
}

// Of the first call, at the start.
static double start_time() {
    static const double began = static_cast<double>(time(nullptr));
    return began;
}

static double resident_bytes() {
    unsigned long pages = 0;
    FILE *fp = fopen("/proc/self/statm", "re");
    if (fp && fscanf(fp, "%*u %lu", &pages) != 1)
        pages = 0;
    if (fp)
        fclose(fp);
    return static_cast<double>(pages) * static_cast<double>(sysconf(_SC_PAGESIZE));
}

static double open_descriptors() {
    DIR *dir = opendir("/proc/self/fd");
    double count = -1; // the directory's own
    while (const dirent *entry = dir ? readdir(dir) : nullptr)
        count += entry->d_name[0] != '.';
    if (dir)
        closedir(dir);
    return count;
}

static void put_process(std::string *out) {
    put_family(out, "info", "gauge", "Version of the daemon.");
    put(out, "lumo_info{version=\"%s-%d.%d\"} 1\n", APP_VERSION, APP_BUILD_MAJOR, APP_BUILD_MINOR);
    put_value(out, "start_time_seconds", "gauge", "Unix time at which the daemon was started.", start_time());
    put_value(out, "resident_memory_bytes", "gauge", "Resident memory of the daemon.", resident_bytes());
    put_value(out, "open_fds", "gauge", "Open descriptors of the daemon.", open_descriptors());
    put_value(out, "loop_passes_total", "counter", "Passes of the event loop.",
              static_cast<double>(g_ctx.counts.passes));
    put_value(out, "loop_longest_pass_seconds", "gauge",
              "Longest pass of the event loop since the status was last written.",
              seconds(g_ctx.counts.longest_pass_us));
    put_value(out, "files_undeleted", "gauge", "Files whose deletion failed and is tried again.",
              static_cast<double>(deletions_left()));
    put_family(out, "log_records_total", "counter", "Log records written by level.");
    for (size_t i = 0; i < LOG_COUNTED; ++i)
        put(out, "lumo_log_records_total{level=\"%s\"} %lu\n", LEVEL_NAMES[i], g_log_written[i]);
}

static void put_requests(std::string *out) {
    const app_counts &counts = g_ctx.counts;
    put_family(out, "requests_total", "counter", "Answered playlist requests by kind and status.");
    for (size_t kind = 0; kind < PL_KINDS; ++kind)
        for (size_t i = 0; i < HTTP_COUNT; ++i)
            put(out, "lumo_requests_total{kind=\"%s\",status=\"%d\"} %lu\n", KIND_NAMES[kind], HTTP_CODES[i],
                counts.requests[kind][i]);
    put_value(out, "requests_unanswered_total", "counter",
              "Request lines without an answer, malformed or of unknown kind.",
              static_cast<double>(counts.unanswered));
    put_family(out, "reports_total", "counter", "Meta-data reports by result.");
    put(out, "lumo_reports_total{result=\"sent\"} %lu\n", counts.reports[0]);
    put(out, "lumo_reports_total{result=\"failed\"} %lu\n", counts.reports[1]);
}

static void put_histogram(std::string *out, const char *kind, const write_counts &counts) {
    static constexpr char NAME[] = "lumo_playlist_write_seconds";
    uint64_t sum = 0;
    for (size_t i = 0; i < WRITE_BUCKETS; ++i)
        put(out, "%s_bucket{kind=\"%s\",le=\"%g\"} %lu\n", NAME, kind, seconds(WRITE_BOUNDS_US[i]),
            sum += counts.by_usec[i]);
    sum += counts.by_usec[WRITE_BUCKETS];
    put(out, "%s_bucket{kind=\"%s\",le=\"+Inf\"} %lu\n", NAME, kind, sum);
    put(out, "%s_sum{kind=\"%s\"} %.6f\n", NAME, kind, seconds(static_cast<int64_t>(counts.usec)));
    put(out, "%s_count{kind=\"%s\"} %lu\n", NAME, kind, sum);
}

static void put_playlists(std::string *out) {
    static constexpr struct {
        const char *name;
        const char *help;
        uint64_t write_counts::*count;
    } FAMILIES[] = {
        {"playlists_written_total", "Playlist files written by kind.", &write_counts::written},
        {"playlist_failures_total", "Playlist files that could not be written.", &write_counts::failed},
        {"playlist_bytes_total", "Bytes of playlist files written.", &write_counts::bytes},
    };
    for (const auto &family : FAMILIES) {
        put_family(out, family.name, "counter", family.help);
        for (size_t kind = 0; kind < PL_KINDS; ++kind)
            put(out, "lumo_%s{kind=\"%s\"} %lu\n", family.name, KIND_NAMES[kind],
                g_ctx.counts.writes[kind].*family.count);
    }
    put_family(out, "playlist_write_seconds", "histogram", "Time spent writing one playlist file.");
    for (size_t kind = 0; kind < PL_KINDS; ++kind)
        put_histogram(out, KIND_NAMES[kind], g_ctx.counts.writes[kind]);
}

// --- sources ---

// A name as a label: what is no printable ASCII is told in hexadecimal, since the format wants UTF-8.
static std::string label_of(const pl_source *src) {
    std::string label;
    for (const char *at = src->nametag; *at; ++at) {
        unsigned char c = static_cast<unsigned char>(*at);
        char hex[8];
        snprintf(hex, sizeof(hex), "\\\\x%02x", c);
        if (c == '"' || c == '\\')
            label += '\\';
        if (c >= ' ' && c < 0x7f)
            label += *at;
        else
            label += hex;
    }
    return label;
}

static void put_newest_age(std::string *out, const char *name, const char *label, const pl_source *src) {
    if (const pl_item *item = newest_segment(src))
        put(out, "lumo_%s{source=\"%s\"} %.3f\n", name, label,
            static_cast<double>(time(nullptr)) - static_cast<double>(item->start_tm) - item->duration);
}

static void put_refusals(std::string *out, const char *name, const char *label, const pl_source *src) {
    for (size_t i = 0; i < REFUSED_REASONS; ++i)
        put(out, "lumo_%s{source=\"%s\",reason=\"%s\"} %lu\n", name, label, REFUSAL_NAMES[i],
            src->counts.refused[i]);
}

static void put_tasks(std::string *out, const char *name, const char *label, const pl_source *src) {
    size_t counts[PL_KINDS] = {};
    for (size_t i = 0; src->tasks.len > 0 && i <= src->tasks.last; ++i)
        if (xvlst_taken(src->tasks, i))
            ++counts[kind_of(src_task(src, static_cast<ssize_t>(i))->tag.num)];
    for (size_t kind = 0; kind < PL_KINDS; ++kind)
        put(out, "lumo_%s{source=\"%s\",kind=\"%s\"} %zu\n", name, label, KIND_NAMES[kind], counts[kind]);
}

static double as_number(uint64_t count) {
    return static_cast<double>(count);
}

// One value for each source, or a function that puts its own lines.
static constexpr struct source_family {
    const char *name;
    const char *type;
    const char *help;
    double (*value)(const pl_source *src);
    void (*lines)(std::string *out, const char *name, const char *label, const pl_source *src);
} SOURCE_FAMILIES[] = {
    {"source_connected", "gauge", "Whether the source has a connection; 0 while it is suspended.",
     [](const pl_source *src) { return src->sockfd >= 0 ? 1.0 : 0.0; }, nullptr},
    {"source_items", "gauge", "Segments and discontinuities held.",
     [](const pl_source *src) { return as_number(dlep_count(src->items)); }, nullptr},
    {"source_held_seconds", "gauge", "Durations of the segments held.",
     [](const pl_source *src) { return src->total_sec; }, nullptr},
    {"source_newest_segment_age_seconds", "gauge", "Time since the end of the newest segment.", nullptr,
     put_newest_age},
    {"source_segments_accepted_total", "counter", "Segments accepted from the source.",
     [](const pl_source *src) { return as_number(src->counts.accepted); }, nullptr},
    {"source_segments_imported_total", "counter", "Segments taken from the manifest.",
     [](const pl_source *src) { return as_number(src->counts.imported); }, nullptr},
    {"source_lines_refused_total", "counter", "Lines refused by reason.", nullptr, put_refusals},
    {"source_segments_retired_total", "counter", "Segments that left the list.",
     [](const pl_source *src) { return as_number(src->counts.retired); }, nullptr},
    {"source_files_deleted_total", "counter", "Files of retired segments that were deleted.",
     [](const pl_source *src) { return as_number(src->counts.deleted); }, nullptr},
    {"source_discontinuities_total", "counter", "Discontinuities put into the list.",
     [](const pl_source *src) { return as_number(src->breaks); }, nullptr},
    {"source_takeovers_total", "counter", "Times that the backup's connection was taken over.",
     [](const pl_source *src) { return as_number(src->counts.take_overs); }, nullptr},
    {"source_tasks", "gauge", "Playlists kept, by kind.", nullptr, put_tasks},
};

static void put_family_of_sources(std::string *out, const source_family &family) {
    put_family(out, family.name, family.type, family.help);
    for (size_t i = 0; g_ctx.sources.len > 0 && i <= g_ctx.sources.last; ++i) {
        const auto *src = xvlst_at<pl_source>(g_ctx.sources, i);
        if (!xvlst_taken(g_ctx.sources, i) || src->tag.num != PL_SRC)
            continue;
        std::string label = label_of(src);
        if (family.lines)
            family.lines(out, family.name, label.c_str(), src);
        else
            put(out, "lumo_%s{source=\"%s\"} %.17g\n", family.name, label.c_str(), family.value(src));
    }
}

std::string status_text() {
    std::string out;
    put_process(&out);
    put_requests(&out);
    put_playlists(&out);
    put_value(&out, "sources", "gauge", "Sources known.", as_number(g_ctx.sources.len));
    for (const source_family &family : SOURCE_FAMILIES)
        put_family_of_sources(&out, family);
    return out;
}

// --- the file ---

static void write_status() {
    static int last_err = 0;
    int err = replace_file(g_cfg.status_file, status_text());
    g_ctx.counts.longest_pass_us = 0;
    if (err != 0 && last_err == 0)
        LOG_FN(LL_ERROR, "[%s] cannot be written, ERROR(%d): %s\n", g_cfg.status_file, err, strerror(err));
    if (err == 0 && last_err != 0)
        LOG_FN(LL_NORM, "[%s] is written again\n", g_cfg.status_file);
    last_err = err;
}

static bool g_was_on = false; // at the last look

static bool is_on() {
    return g_cfg.status_file[0] != '\0';
}

// A file that has just been switched on is written at once.
static bool is_due() {
    static timespec last_write;
    bool is_wanted = is_on();
    timespec span;
    ms2timespec(g_cfg.status_sec * 1000L, &span);
    keep_timeout(TMO_STATUS, LOOK_MS, is_wanted);
    bool is_time = is_wanted && (!g_was_on || timed_out(last_write, span));
    g_was_on = is_wanted;
    if (is_time)
        rqs_set_now(&last_write);
    return is_time;
}

static void measure_pass() {
    timespec now;
    set_clk_now(&now, CLOCK_MONOTONIC);
    timespec began = rqs_now();
    int64_t usec = (now.tv_sec - began.tv_sec) * 1'000'000 + (now.tv_nsec - began.tv_nsec) / 1000;
    if (usec > g_ctx.counts.longest_pass_us)
        g_ctx.counts.longest_pass_us = usec;
}

void status_start() {
    start_time();
    if (is_due())
        write_status();
}

void status_pass() {
    ++g_ctx.counts.passes;
    if (!is_on() && !g_was_on)
        return;
    measure_pass();
    if (is_due())
        write_status();
}
