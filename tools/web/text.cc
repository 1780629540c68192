#include "tools/web/text.h"

#include "lib/strops.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <sys/random.h>

static bool is_control(char c) {
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
}

static bool is_hex(char c) {
    return isxdigit(static_cast<unsigned char>(c)) != 0;
}

static bool is_alnum(char c) {
    return isalnum(static_cast<unsigned char>(c)) != 0;
}

static bool unescape(std::string_view raw, std::string *out) {
    out->clear();
    for (size_t i = 0; i < raw.size(); ++i) {
        char c = raw[i];
        if (c == '%') {
            if (raw.size() - i < 3 || !is_hex(raw[i + 1]) || !is_hex(raw[i + 2]))
                return false;
            c = static_cast<char>(sym2hex(raw[i + 1]) * 16 + sym2hex(raw[i + 2]));
            i += 2;
        }
        if (is_control(c))
            return false;
        out->push_back(c);
    }
    return true;
}

static bool has_odd_component(std::string_view path) {
    while (!path.empty()) {
        size_t slash = path.find('/');
        std::string_view one = path.substr(0, slash);
        if (one.empty() || one == "." || one == ".." || slash == path.size() - 1)
            return true;
        path.remove_prefix(slash == std::string_view::npos ? path.size() : slash + 1);
    }
    return false;
}

bool text_path(std::string_view raw, std::string *path) {
    if (!raw.starts_with('/'))
        return false;
    return unescape(raw.substr(1), path) && !has_odd_component(*path);
}

std::string text_escape(std::string_view path) {
    std::string out;
    for (char c : path) {
        char hex[4];
        if (is_alnum(c) || strchr("-._~/", c)) {
            out.push_back(c);
            continue;
        }
        snprintf(hex, sizeof(hex), "%%%02X", static_cast<unsigned char>(c));
        out += hex;
    }
    return out;
}

bool text_is_channel(std::string_view name) {
    auto is_odd = [](char c) { return is_control(c) || c == ' ' || c == '/'; };
    return !name.empty() && name.size() < 128 && name[0] != '~' && name[0] != '.' &&
           std::none_of(name.begin(), name.end(), is_odd);
}

bool text_number(std::string_view text, int64_t *value) {
    if (text.empty() || text.size() > 11)
        return false;
    auto [end, err] = std::from_chars(text.data(), text.data() + text.size(), *value);
    return err == std::errc() && end == text.data() + text.size();
}

static std::string_view trimmed(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
        text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t'))
        text.remove_suffix(1);
    return text;
}

// The next entry of a list, cut off its front.
static std::string_view next_of(std::string_view *list, char separator) {
    size_t end = std::min(list->find(separator), list->size());
    std::string_view one = trimmed(list->substr(0, end));
    list->remove_prefix(std::min(end + 1, list->size()));
    return one;
}

// A weight of zero: "0", "0.", "0.000".
static bool is_refused(std::string_view params) {
    while (!params.empty()) {
        std::string_view one = next_of(&params, ';');
        if ((one.starts_with("q=") || one.starts_with("Q=")) &&
            one.substr(2).find_first_not_of("0.") == std::string_view::npos)
            return true;
    }
    return false;
}

bool text_takes_gzip(const char *value) {
    std::string_view list = value ? value : "";
    bool takes_any = false;
    while (!list.empty()) {
        std::string_view params = next_of(&list, ',');
        std::string_view coding = next_of(&params, ';');
        if (coding == "*")
            takes_any = !is_refused(params);
        else if (coding.size() == 4 && strncasecmp(coding.data(), "gzip", 4) == 0)
            return !is_refused(params);
    }
    return takes_any;
}

bool text_has_etag(std::string_view value, std::string_view etag) {
    while (!value.empty()) {
        std::string_view one = next_of(&value, ',');
        if (one.starts_with("W/"))
            one.remove_prefix(2);
        if (one == "*" || one == etag)
            return true;
    }
    return false;
}

static constexpr char HTTP_DATE[] = "%a, %d %b %Y %H:%M:%S GMT";

std::string text_http_date(time_t at) {
    char buf[64];
    tm parts{};
    gmtime_r(&at, &parts);
    return std::string(buf, strftime(buf, sizeof(buf), HTTP_DATE, &parts));
}

time_t text_parse_date(const char *value) {
    tm parts{};
    const char *end = strptime(value, HTTP_DATE, &parts);
    return end && *end == '\0' ? timegm(&parts) : -1;
}

static bool is_digits(std::string_view text) {
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// A number beyond 64 bits is beyond every file.
static uint64_t as_offset(std::string_view digits) {
    uint64_t value = 0;
    auto [end, err] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    return err == std::errc() ? value : UINT64_MAX;
}

byte_range text_range(std::string_view value, uint64_t size) {
    static constexpr byte_range WHOLE = {range_kind::none, 0, 0}, NOTHING = {range_kind::unsatisfiable, 0, 0};
    std::string_view spec = trimmed(value);
    if (!spec.starts_with("bytes="))
        return WHOLE;
    spec = trimmed(spec.substr(6));
    size_t dash = spec.find('-');
    if (dash == std::string_view::npos)
        return WHOLE;
    std::string_view from = spec.substr(0, dash), to = spec.substr(dash + 1);
    if (from.empty()) { // the last so many
        if (!is_digits(to))
            return WHOLE;
        uint64_t count = std::min(as_offset(to), size);
        return count == 0 ? NOTHING : byte_range{range_kind::part, size - count, count};
    }
    if (!is_digits(from) || (!to.empty() && !is_digits(to)))
        return WHOLE;
    uint64_t first = as_offset(from), last = to.empty() ? UINT64_MAX : as_offset(to);
    if (last < first)
        return WHOLE;
    if (first >= size)
        return NOTHING;
    return {range_kind::part, first, std::min(last, size - 1) - first + 1};
}

uint64_t text_hash(std::string_view data) {
    uint64_t hash = 0xcbf29ce484222325;
    for (char c : data)
        hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3;
    return hash;
}

static constexpr std::string_view ID_LETTERS =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

std::string text_random_id(size_t n) {
    std::string id(n, '\0');
    if (getrandom(id.data(), n, 0) != static_cast<ssize_t>(n))
        return "";
    for (char &c : id)
        c = ID_LETTERS[static_cast<unsigned char>(c) % ID_LETTERS.size()];
    return id;
}

bool text_is_id(std::string_view text, size_t n) {
    return text.size() == n && text.find_first_not_of(ID_LETTERS) == std::string_view::npos;
}

std::string text_json(std::string_view text) {
    std::string out = "\"";
    for (char c : text) {
        char buf[8];
        if (c == '"' || c == '\\' || is_control(c)) {
            snprintf(buf, sizeof(buf), "\\u%04x", static_cast<unsigned char>(c));
            out += buf;
        } else {
            out.push_back(c);
        }
    }
    return out + "\"";
}
