#include "lib/cfgtext.h"

#include "lib/log.h"
#include "lib/syswrap.h"

#include <cerrno>
#include <cstring>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

LOG_UNIT(LOG_MOD_APP);

static constexpr int MAX_DEPTH = 10; // of includes
static constexpr std::string_view DIRECTIVE = "@include";

// --- reading ---

// 0 or errno.
static int read_whole(const char *path, std::string *text, file_stamp *stamp) {
    const fd_guard file(open_regular(path));
    struct stat st;
    if (file.fd < 0 || fstat(file.fd, &st) != 0)
        return errno;
    *stamp = stamp_of(st);
    text->clear();
    char buf[4096];
    ssize_t n;
    while ((n = read(file.fd, buf, sizeof(buf))) != 0) {
        if (n < 0 && errno != EINTR)
            return errno;
        if (n > 0)
            text->append(buf, static_cast<size_t>(n));
        if (text->size() > CFG_TEXT_MAX)
            return EFBIG;
    }
    return 0;
}

void cfgtext_report(const cfg_place &place, const char *what) {
    LOG(LL_ERROR, "Error reading/parsing config file [%s]: line %d: %s\n", place.path.c_str(), place.line,
        what);
}

cfg_place cfgtext_place(const cfg_text &text, int line) {
    if (line < 1 || static_cast<size_t>(line) > text.lines.size())
        return {};
    const cfg_text::origin &from = text.lines[static_cast<size_t>(line) - 1];
    return {text.files[from.file], from.line};
}

// --- joining ---

// What the text is in between two characters, as the parser sees it.
enum lex_state { LEX_PLAIN, LEX_STRING, LEX_LINE_COMMENT, LEX_BLOCK_COMMENT };

// One file on its way into the joined text.
struct cfg_scan {
    std::string_view rest;
    size_t file;
    int line = 1;
    lex_state state = LEX_PLAIN;
    int open_line = 1; // where the state was last plain
};

// What begins, goes on or ends at the head of the text: the characters that belong together.
static size_t lex_step(lex_state *state, std::string_view text) {
    std::string_view two = text.substr(0, 2);
    switch (*state) {
    case LEX_PLAIN:
        if (two == "/*")
            *state = LEX_BLOCK_COMMENT;
        else if (two == "//" || text[0] == '#')
            *state = LEX_LINE_COMMENT;
        else if (text[0] == '"')
            *state = LEX_STRING;
        return *state == LEX_BLOCK_COMMENT ? 2 : 1;
    case LEX_STRING:
        if (text[0] == '"')
            *state = LEX_PLAIN;
        return two == "\\\"" || two == "\\\\" ? 2 : 1;
    case LEX_LINE_COMMENT:
        if (text[0] == '\n')
            *state = LEX_PLAIN;
        return 1;
    case LEX_BLOCK_COMMENT:
        if (two != "*/")
            return 1;
        *state = LEX_PLAIN;
        return 2;
    }
    return 1;
}

static void take(cfg_text *out, cfg_scan *scan, size_t n) {
    for (char c : scan->rest.substr(0, n)) {
        out->text += c;
        if (c == '\n')
            out->lines.push_back({scan->file, ++scan->line});
    }
    scan->rest.remove_prefix(n);
}

static int fault(const cfg_text &out, const cfg_scan &scan, const std::string &what) {
    cfgtext_report({out.files[scan.file], scan.line}, what.c_str());
    return -1;
}

// Whether the text, which begins a line, is an include line; its path goes to `path`, and `len` is the length
// up to and with the closing quote. A path that does not end is left to the caller: its `len` is 0.
static bool is_include(std::string_view text, std::string *path, size_t *len) {
    size_t at = text.find_first_not_of(" \t");
    if (at == std::string_view::npos || text.substr(at, DIRECTIVE.size()) != DIRECTIVE)
        return false;
    size_t gap = at + DIRECTIVE.size();
    at = text.find_first_not_of(" \t", gap);
    if (at == gap || at == std::string_view::npos || text[at] != '"')
        return false;
    path->clear();
    *len = 0;
    for (++at; at < text.size() && text[at] != '\n'; ++at) {
        if (text[at] == '"') {
            *len = at + 1;
            break;
        }
        if (text[at] == '\\' && at + 1 < text.size() && (text[at + 1] == '"' || text[at + 1] == '\\'))
            ++at;
        *path += text[at];
    }
    return true;
}

static int add_file(const char *home, int depth, cfg_scan scan, cfg_text *out);

static int include(const char *home, int depth, const std::string &path, const cfg_scan &by, cfg_text *out) {
    std::string full = path.starts_with('/') || !*home ? path : std::string(home) + "/" + path;
    std::string text;
    file_stamp unused{};
    int err = depth < MAX_DEPTH ? read_whole(full.c_str(), &text, &unused) : ELOOP;
    if (err != 0)
        return fault(*out, by,
                     "cannot include [" + full + "] ERROR(" + std::to_string(err) + "): " + strerror(err));
    out->files.push_back(full);
    if (!text.ends_with('\n'))
        text += '\n';
    return add_file(home, depth + 1, {.rest = text, .file = out->files.size() - 1}, out);
}

// Adds a file; the joined text is at the beginning of a line.
static int add_file(const char *home, int depth, cfg_scan scan, cfg_text *out) {
    out->lines.back() = {scan.file, 1};
    for (bool begins_line = true; !scan.rest.empty();) {
        std::string path;
        size_t len = 0;
        if (begins_line && scan.state == LEX_PLAIN && is_include(scan.rest, &path, &len)) {
            if (len == 0)
                return fault(*out, scan, "an include path that does not end");
            if (include(home, depth, path, scan, out) != 0)
                return -1;
            scan.rest.remove_prefix(len);
            out->lines.back() = {scan.file, scan.line};
            continue;
        }
        if (scan.rest[0] == '\0')
            return fault(*out, scan, "a zero byte");
        begins_line = scan.rest[0] == '\n';
        if (scan.state == LEX_PLAIN)
            scan.open_line = scan.line;
        take(out, &scan, lex_step(&scan.state, scan.rest));
        if (out->text.size() > CFG_TEXT_MAX)
            return fault(*out, scan, "too much text");
    }
    scan.line = scan.open_line;
    if (scan.state == LEX_STRING || scan.state == LEX_BLOCK_COMMENT)
        return fault(*out, scan, "a text or comment that does not end");
    return 0;
}

int cfgtext_read(const char *path, const char *home, cfg_text *out) {
    std::string text;
    *out = {};
    int err = read_whole(path, &text, &out->stamp);
    if (err != 0) {
        LOG(LL_ERROR, "%s: [%s] ERROR(%d): %s\n", "config_open", path, err, strerror(err));
        fprintf(stderr, "Failed to load [%s]\n", path);
        return -1;
    }
    out->files.push_back(path);
    out->lines.push_back({});
    return add_file(home, 0, {.rest = text, .file = 0}, out);
}
