#include "tools/feed/argfile.h"

#include "lib/util.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>

static constexpr size_t MAX_SIZE = 65536;

static bool is_blank(char c) {
    return isspace(static_cast<unsigned char>(c)) != 0;
}

// Takes one word from `text` at `*at`, which stands on no blank.
static bool take_word(std::string_view text, size_t *at, std::string *word) {
    char quote = 0;
    for (; *at < text.size() && (quote || !is_blank(text[*at])); ++*at) {
        char c = text[*at];
        bool is_escape = c == '\\' && quote != '\'' && *at + 1 < text.size();
        if (is_escape) {
            char next = text[++*at];
            if (quote && next != '"' && next != '\\')
                *word += c;
            if (next != '\n') // a line goes on
                *word += next;
        } else if (quote ? c == quote : c == '\'' || c == '"') {
            quote = quote ? 0 : c;
        } else {
            *word += c;
        }
    }
    return quote == 0;
}

bool argfile_split(std::string_view text, std::vector<std::string> *words) {
    for (size_t at = 0; at < text.size();) {
        if (is_blank(text[at])) {
            ++at;
        } else if (text[at] == '#') {
            at = std::min(text.find('\n', at), text.size());
        } else if (text.substr(at, 2) == "\\\n") {
            at += 2;
        } else {
            words->emplace_back();
            if (!take_word(text, &at, &words->back()))
                return false;
        }
    }
    return true;
}

bool argfile_read(const char *path, std::vector<std::string> *words) {
    std::string text(MAX_SIZE, '\0');
    FILE *fp = fopen_regular(path);
    if (!fp) {
        fprintf(stderr, "lumo-feed: cannot read [%s]: %s\n", path, strerror(errno));
        return false;
    }
    size_t len = fread(text.data(), 1, text.size(), fp);
    bool is_whole = len < text.size() && !ferror(fp);
    fclose(fp);
    text.resize(len);
    if (is_whole && text.find('\0') == std::string::npos && argfile_split(text, words))
        return true;
    fprintf(stderr, "lumo-feed: [%s] %s\n", path,
            is_whole ? "has a quote that is not closed, or a zero byte" : "is too long or cannot be read");
    return false;
}
