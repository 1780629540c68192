#include "tools/web/channels.h"

#include "lib/syswrap.h"
#include "lib/util.h"
#include "tools/web/clock.h"
#include "tools/web/text.h"

#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <map>
#include <unistd.h>

static constexpr int64_t KEEP_MS = 1000;
static constexpr off_t MAX_STATUS = 4 << 20;
static constexpr size_t LINE_ROOM = 512; // more than any line of a manifest
static constexpr int64_t LIVE_SEC = 30;  // a recording that ends longer ago is not live
static constexpr size_t MAX_CHANNELS = 1024;

struct channel {
    const char *state = "off";
    int64_t first = 0, last = 0; // Unix seconds, 0 = not known
};
using channel_map = std::map<std::string, channel>;

static struct {
    const web_options *opts;
    file_root *root;
    std::shared_ptr<const std::string> json;
    int64_t made_at;
} g_channels;

void channels_init(const web_options *opts, file_root *root) {
    g_channels.opts = opts;
    g_channels.root = root;
}

static std::string read_part(int fd, off_t at, size_t count) {
    std::string text(count, '\0');
    ssize_t n = pread(fd, text.data(), count, at);
    text.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return text;
}

std::string channels_status_text() {
    if (g_channels.opts->status_path.empty())
        return "";
    FILE *file = fopen_regular(g_channels.opts->status_path.c_str());
    if (!file)
        return "";
    struct stat st;
    bool is_fit = fstat(fileno(file), &st) == 0 && st.st_size <= MAX_STATUS;
    std::string text = is_fit ? read_part(fileno(file), 0, static_cast<size_t>(st.st_size)) : "";
    fclose(file);
    return text;
}

// --- from manifests: "17: SEGMENT: tv/0017.ts 1700000096 6.000000 812345 1 8766000" ---

struct span {
    long start = 0;
    double sec = 0;
};

static span parse_line(const char *line) {
    span one;
    if (sscanf(line, "%*[0-9]: SEGMENT: %*s %ld %lf", &one.start, &one.sec) < 1)
        one.start = 0;
    return one;
}

static void read_manifest(int fd, off_t size, channel *found) {
    off_t tail = size > static_cast<off_t>(LINE_ROOM) ? size - static_cast<off_t>(LINE_ROOM) : 0;
    found->first = parse_line(read_part(fd, 0, LINE_ROOM).c_str()).start;
    std::string end = read_part(fd, tail, LINE_ROOM);
    while (!end.empty() && end.back() == '\n')
        end.pop_back();
    size_t begin = end.rfind('\n');
    span last = parse_line(end.c_str() + (begin == std::string::npos ? 0 : begin + 1));
    if (last.start > 0)
        found->last = last.start + static_cast<int64_t>(last.sec);
}

static void look_at_directory(const char *name, channel_map *all) {
    struct stat st;
    if (!text_is_channel(name))
        return;
    std::string path = std::string(name) + "/" + name + ".manifest_live";
    fd_guard manifest(root_open_file(g_channels.root, path, &st));
    if (manifest.fd < 0)
        return;
    channel found;
    read_manifest(manifest.fd, st.st_size, &found);
    found.state = clock_wall() - std::max<int64_t>(found.last, st.st_mtim.tv_sec) < LIVE_SEC ? "live" : "off";
    (*all)[name] = found;
}

static channel_map look_at_directories() {
    channel_map all;
    DIR *dir = opendir(g_channels.root->dir.c_str());
    while (dirent *entry = dir ? readdir(dir) : nullptr)
        if ((entry->d_type == DT_DIR || entry->d_type == DT_UNKNOWN) && all.size() < MAX_CHANNELS)
            look_at_directory(entry->d_name, &all);
    if (dir)
        closedir(dir);
    return all;
}

static std::string make_json(const channel_map &all) {
    std::string out = "{\"now\": " + std::to_string(clock_wall()) +
                      ", \"grid\": " + std::to_string(g_channels.opts->event_grid) + ", \"channels\": [";
    const char *comma = "";
    for (const auto &[name, one] : all) {
        out += comma + ("\n{\"name\": " + text_json(name)) + ", \"state\": \"" + one.state +
               "\", \"first\": " + std::to_string(one.first) + ", \"last\": " + std::to_string(one.last) +
               "}";
        comma = ",";
    }
    return out + "]}\n";
}

std::shared_ptr<const std::string> channels_json() {
    if (!g_channels.json || clock_ms() - g_channels.made_at >= KEEP_MS) {
        g_channels.json = std::make_shared<const std::string>(make_json(look_at_directories()));
        g_channels.made_at = clock_ms();
    }
    return g_channels.json;
}
