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

// --- from the status file: lumo_source_held_seconds{source="tv"} 3600 ---

static constexpr std::string_view LABEL = "{source=\"";

struct source_metric {
    std::string_view name;
    std::string source;
    double value;
};

// The daemon tells what is not ASCII as "\xc3".
static std::string plain_name(std::string_view label) {
    std::string name;
    unsigned byte = 0;
    for (size_t i = 0; i < label.size(); ++i) {
        std::string escape(label.substr(i, 4));
        bool is_byte = escape.size() == 4 && sscanf(escape.c_str(), "\\x%2x", &byte) == 1;
        name.push_back(is_byte ? static_cast<char>(byte) : label[i]);
        i += is_byte ? 3 : 0;
    }
    return name;
}

// Quotes and backslashes of a label stand behind a backslash.
static bool read_label(std::string_view *rest, std::string *label) {
    if (!rest->starts_with(LABEL))
        return false;
    for (size_t i = LABEL.size(); i < rest->size(); ++i) {
        if ((*rest)[i] == '"') {
            rest->remove_prefix(i + 1);
            return true;
        }
        i += (*rest)[i] == '\\' && i + 1 < rest->size();
        label->push_back((*rest)[i]);
    }
    return false;
}

static bool parse_metric(std::string_view line, source_metric *one) {
    static constexpr std::string_view PREFIX = "lumo_source_";
    if (!line.starts_with(PREFIX))
        return false;
    line.remove_prefix(PREFIX.size());
    one->name = line.substr(0, line.find('{'));
    line.remove_prefix(one->name.size());
    std::string label;
    if (!read_label(&line, &label) || !line.starts_with("} "))
        return false;
    one->source = plain_name(label);
    std::string value(line.substr(2));
    return sscanf(value.c_str(), "%lf", &one->value) == 1;
}

struct source_state {
    bool is_connected = false, has_segments = false;
    double held = 0, age = 0;
};

static std::map<std::string, source_state> read_states(std::string_view text) {
    std::map<std::string, source_state> all;
    source_metric one;
    while (!text.empty()) {
        std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(line.size() + 1, text.size()));
        if (!parse_metric(line, &one) || !text_is_channel(one.source))
            continue;
        source_state &state = all[one.source];
        if (one.name == "connected") {
            state.is_connected = one.value > 0;
        } else if (one.name == "held_seconds") {
            state.held = one.value;
        } else if (one.name == "newest_segment_age_seconds") {
            state.age = one.value;
            state.has_segments = true;
        }
    }
    return all;
}

// Ages are those of the moment when the file was written.
static channel_map look_at_status(std::string_view text, int64_t written_at) {
    channel_map all;
    for (const auto &[name, state] : read_states(text)) {
        channel &one = all[name];
        if (state.has_segments) {
            one.last = written_at - static_cast<int64_t>(state.age);
            one.first = one.last - static_cast<int64_t>(state.held);
        }
        bool is_new = clock_wall() - one.last < LIVE_SEC;
        one.state = !state.is_connected ? "off" : is_new ? "live" : "waiting";
    }
    return all;
}

static channel_map find_channels() {
    struct stat st;
    std::string text = channels_status_text();
    if (text.empty() || stat(g_channels.opts->status_path.c_str(), &st) != 0)
        return look_at_directories();
    return look_at_status(text, st.st_mtim.tv_sec);
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
        g_channels.json = std::make_shared<const std::string>(make_json(find_channels()));
        g_channels.made_at = clock_ms();
    }
    return g_channels.json;
}
