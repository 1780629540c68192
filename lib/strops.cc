#include "lib/strops.h"

#include "lib/check.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <strings.h>

static constexpr int E_RANGE = -2;
static constexpr int E_TOO_LONG = -3;
static constexpr int E_NOT_NUMBER = -4;
static constexpr int E_SUFFIX = -5;

static bool is_space(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

static bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

static bool is_alpha(char c) {
    return isalpha(static_cast<unsigned char>(c)) != 0;
}

static bool only_space(const char *text) {
    while (is_space(*text))
        text++;
    return *text == '\0';
}

// --- numbers ---

struct size_suffix {
    const char *text;
    double factor;
};

static constexpr size_suffix SUFFIXES[] = {
    {"Kb", 1024.0},   {"K", 1024.0},        {"Mb", 1048576.0},
    {"M", 1048576.0}, {"Gb", 1073741824.0}, {"G", 1073741824.0},
};

static const size_suffix *find_suffix(const char *text) {
    for (const size_suffix &suffix : SUFFIXES)
        if (strcasecmp(text, suffix.text) == 0)
            return &suffix;
    return nullptr;
}

int a2double(const char *str, double *value) {
    CHECK(str);
    size_t len = 0;
    while (str[len] && !is_alpha(str[len]))
        len++;
    if (!str[len]) {
        *value = strtod(str, nullptr);
        return 0;
    }
    const size_suffix *suffix = find_suffix(str + len);
    if (!suffix)
        return E_SUFFIX;
    char number[64];
    if (len >= sizeof(number))
        return E_TOO_LONG;
    copy_cut(number, sizeof(number), {str, len});
    char *end = nullptr;
    double base = strtod(number, &end);
    if (end == number || !only_space(end))
        return E_NOT_NUMBER;
    *value = base * suffix->factor;
    return 0;
}

int a2size(const char *str, int64_t *value) {
    static constexpr double LIMIT = 9223372036854775808.0; // 2^63
    double number = 0;
    int rc = a2double(str, &number);
    if (rc != 0)
        return rc;
    if (number > LIMIT || number < -LIMIT)
        return E_RANGE;
    // The limit itself passes the check but is one more than the type holds.
    *value = number == LIMIT ? INT64_MAX : static_cast<int64_t>(number);
    return 0;
}

int a2int64(const char *str, int64_t *value) {
    CHECK(str);
    const int saved = errno;
    errno = 0;
    char *end = nullptr;
    long long number = strtoll(str, &end, 10);
    const bool is_range = errno == ERANGE;
    errno = saved;
    if (end == str)
        return E_NOT_NUMBER;
    if (!only_space(end))
        return is_alpha(*end) ? E_SUFFIX : E_NOT_NUMBER;
    if (is_range)
        return E_RANGE;
    *value = number;
    return 0;
}

// --- texts ---

void chomp(char *text) {
    size_t len = strlen(text);
    for (int i = 0; i < 2 && len > 0 && (text[len - 1] == '\n' || text[len - 1] == '\r'); i++)
        text[--len] = '\0';
}

static long decimal_at(const char *text) {
    return is_digit(*text) ? strtol(text, nullptr, 10) : 0;
}

long marker_count(const char *text, const char *marker) {
    const size_t len = strlen(marker);
    if (len == 0)
        return 0;
    const bool is_sum = marker[len - 1] == ':';
    long total = 0;
    for (const char *at = strstr(text, marker); at; at = strstr(at + len, marker))
        if (__builtin_add_overflow(total, is_sum ? decimal_at(at + len) : 1L, &total))
            return LONG_MAX;
    return total;
}

int sym2hex(char c) {
    if (is_digit(c))
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return 0;
}

size_t hex_to_bin(const char *hex, unsigned char *out, size_t size) {
    size_t n = 0;
    while (n < size && *hex) {
        out[n++] = static_cast<unsigned char>(sym2hex(hex[0]) << 4 | sym2hex(hex[1]));
        hex += hex[1] ? 2 : 1;
    }
    return n;
}

size_t bin_to_dhex(const unsigned char *bytes, size_t n, char *out, size_t size, const char *sep) {
    if (size == 0)
        return 0;
    if (!sep)
        sep = "";
    const size_t step = 2 + strlen(sep);
    size_t done = 0;
    size_t used = 0;
    out[0] = '\0';
    for (; done < n && size - used >= step + 1; done++, used += step)
        snprintf(out + used, size - used, "%02x%s", bytes[done], sep);
    out[size - 1] = '\0';
    return done;
}

void mk_trk_tag(size_t *counter, n64_tag *tag, char letter, size_t max) {
    tag->num64 = 0;
    if (*counter >= max)
        *counter = 0;
    ++*counter;
    int n = snprintf(tag->sym8, sizeof(tag->sym8), "%c%zu", letter, *counter);
    CHECK(n > 0 && n <= (ssize_t)sizeof(tag->sym8) - 2);
}

static constexpr int E_MACRO = -34;
static constexpr int MAX_MACROS = 32;

int replace_ul_macro(char *text, size_t size, const char *macro, unsigned long value) {
    char number[24] = "";
    if (value != 0)
        snprintf(number, sizeof(number), "%lu", value);
    const size_t number_len = strlen(number);
    const size_t macro_len = strlen(macro);
    for (int i = 0; i < MAX_MACROS; i++) {
        char *at = strstr(text, macro);
        if (!at)
            return 0;
        if (strlen(text) - macro_len + number_len >= size)
            return E_MACRO;
        char *tail = strdup(at + macro_len);
        if (!tail) {
            perror("strdup");
            return ENOMEM;
        }
        memcpy(at, number, number_len);
        strcpy(at + number_len, tail);
        free(tail);
    }
    return strstr(text, macro) ? E_MACRO : 0;
}

std::string_view strip_tail(std::string_view text) {
    while (!text.empty() && is_space(text.back()))
        text.remove_suffix(1);
    return text;
}

bool has_dotdot(std::string_view path) {
    for (;;) {
        const size_t slash = path.find('/');
        if (path.substr(0, slash) == "..")
            return true;
        if (slash == std::string_view::npos)
            return false;
        path.remove_prefix(slash + 1);
    }
}

char *copy_cut(char *dst, size_t size, std::string_view text) {
    if (size == 0)
        return dst;
    const size_t n = text.size() < size ? text.size() : size - 1;
    if (n > 0)
        memcpy(dst, text.data(), n);
    dst[n] = '\0';
    return dst;
}

// --- fields of a line ---

// A zero byte ends the line, as it would for scanf: no field can hide characters behind one.
static bool at_end(std::string_view text) {
    return text.empty() || text.front() == '\0';
}

// Moves to the next field; false, and the scan is over, when there is none.
static bool open_field(line_scan *scan) {
    size_t n = 0;
    while (n < scan->rest.size() && is_space(scan->rest[n]))
        n++;
    scan->rest.remove_prefix(n);
    scan->is_open = scan->is_open && !at_end(scan->rest);
    return scan->is_open;
}

static bool close_scan(line_scan *scan) {
    scan->is_open = false;
    return false;
}

static std::string_view take(line_scan *scan, size_t len) {
    std::string_view field = scan->rest.substr(0, len);
    scan->rest.remove_prefix(len);
    scan->count++;
    return field;
}

std::string_view scan_word(line_scan *scan) {
    if (!open_field(scan))
        return {};
    size_t len = 1;
    while (len < scan->rest.size() && scan->rest[len] != '\0' && !is_space(scan->rest[len]))
        len++;
    return take(scan, len);
}

// Characters of a leading sign.
static size_t sign_len(std::string_view text) {
    return text[0] == '-' || text[0] == '+' ? 1 : 0;
}

bool scan_long(line_scan *scan, int64_t *value) {
    if (!open_field(scan))
        return false;
    const std::string_view text = scan->rest;
    const size_t sign = sign_len(text);
    if (sign == text.size() || !is_digit(text[sign]))
        return close_scan(scan);
    const bool is_negative = text[0] == '-';
    const char *begin = text.data() + (is_negative ? 0 : sign);
    const auto got = std::from_chars(begin, text.data() + text.size(), *value);
    if (got.ec == std::errc::result_out_of_range)
        *value = is_negative ? INT64_MIN : INT64_MAX;
    take(scan, static_cast<size_t>(got.ptr - text.data()));
    return true;
}

bool scan_int(line_scan *scan, int *value) {
    int64_t number = 0;
    if (!scan_long(scan, &number))
        return false;
    *value = static_cast<int>(std::clamp<int64_t>(number, INT_MIN, INT_MAX));
    return true;
}

// The unusual forms: infinities, NaN, hexadecimal, and what overflows.
static size_t parse_rare_float(std::string_view text, float *value) {
    const std::string copy(text);
    const int saved = errno;
    char *end = nullptr;
    const float number = strtof(copy.c_str(), &end);
    errno = saved;
    const auto used = static_cast<size_t>(end - copy.c_str());
    if (used > 0)
        *value = number;
    return used;
}

// Characters used, 0 = no number.
static size_t parse_float(std::string_view text, float *value) {
    const size_t sign = sign_len(text);
    const std::string_view digits = text.substr(sign);
    const bool is_hex = digits.size() > 1 && digits[0] == '0' && (digits[1] | 0x20) == 'x';
    if (is_hex || digits.empty() || !(is_digit(digits[0]) || digits[0] == '.'))
        return parse_rare_float(text, value);
    float number = 0;
    const auto got = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    if (got.ec != std::errc())
        return parse_rare_float(text, value);
    *value = text[0] == '-' ? -number : number;
    return static_cast<size_t>(got.ptr - text.data());
}

// Whether a number breaks off in what only digits could have finished: "9.5e", "0x", "0x1p".
static bool is_unfinished(std::string_view text, size_t used) {
    const size_t sign = sign_len(text);
    const std::string_view taken = text.substr(sign, used - sign);
    const bool is_hex = taken.size() > 1 && (taken[1] | 0x20) == 'x';
    const int next = used < text.size() ? text[used] | 0x20 : 0;
    return next == (is_hex ? 'p' : 'e') || (next == 'x' && taken == "0");
}

bool scan_float(line_scan *scan, float *value) {
    if (!open_field(scan))
        return false;
    float number = 0;
    const size_t used = parse_float(scan->rest, &number);
    if (used == 0 || is_unfinished(scan->rest, used))
        return close_scan(scan);
    *value = number;
    take(scan, used);
    return true;
}

std::string_view scan_rest(line_scan *scan, size_t max) {
    if (!open_field(scan) || max == 0)
        return {};
    const size_t len = scan->rest.substr(0, max).find('\0');
    return take(scan, len == std::string_view::npos ? std::min(max, scan->rest.size()) : len);
}

size_t join_cut(char *dst, size_t size, std::initializer_list<std::string_view> parts) {
    size_t len = 0;
    for (std::string_view part : parts) {
        if (len < size && !part.empty())
            memcpy(dst + len, part.data(), std::min(part.size(), size - len));
        len += part.size();
    }
    if (size > 0)
        dst[std::min(len, size - 1)] = '\0';
    return len;
}
