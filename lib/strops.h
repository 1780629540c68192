// Small text conversions: numbers with size suffixes, line ends, markers, hexadecimal, track tags, macros,
// and the field scanner of the line protocols.
#pragma once

#include "lib/tag.h"

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string_view>

// A number with an optional size suffix K, Kb, M, Mb, G, Gb in either case. 0; -5 for any other suffix, -3
// for a number part over 63 characters, -4 when it is no number.
int a2double(const char *text, double *value);
// The same as a truncated signed 64-bit integer; -2 beyond 2^63 either way.
int a2size(const char *text, int64_t *value);
// A plain signed 64-bit integer, same error convention.
int a2int64(const char *text, int64_t *value);

// Removes at most two line-end characters from the end, in place.
void chomp(char *text);
// Occurrences of `marker`; a marker that ends with ":" adds up the decimal numbers directly behind it.
long marker_count(const char *text, const char *marker);

int sym2hex(char c); // 0..15; 0 for any other character
size_t hex_to_bin(const char *hex, unsigned char *out, size_t size);
size_t bin_to_dhex(const unsigned char *bytes, size_t n, char *out, size_t size, const char *sep);

// A letter and the counter in decimal, at most 5 digits. The counter restarts when it has reached `max`, then
// counts up.
void mk_trk_tag(size_t *counter, n64_tag *tag, char letter, size_t max);
// Replaces every `macro` in `text` by the value in decimal (0: by nothing). 0; -34 when it does not fit or
// after 32 replacements; 12 without memory.
int replace_ul_macro(char *text, size_t size, const char *macro, unsigned long value);

// The text without its trailing white space.
std::string_view strip_tail(std::string_view text);
// True when `path` has a component "..".
bool has_dotdot(std::string_view path);

// Fields of a protocol line, taken from left to right the way scanf's %s, %ld, %f and %Nc take them: each
// skips leading white space, and once a field is missing or malformed nothing more is taken. `count` is the
// number of fields taken so far.
struct line_scan {
    std::string_view rest;
    int count = 0;
    bool is_open = true;
};
// A word; empty (and the scan closed) when there is none.
std::string_view scan_word(line_scan *scan);
// A decimal integer, clamped to the type's range. `value` is untouched when there is none.
bool scan_long(line_scan *scan, int64_t *value);
bool scan_int(line_scan *scan, int *value);
// A floating-point number in any form strtof takes, infinities and NaN included; one that breaks off in its
// exponent or behind "0x" is none.
bool scan_float(line_scan *scan, float *value);
// At most `max` characters of what is left, leading white space skipped.
std::string_view scan_rest(line_scan *scan, size_t max);
// Copies as much as fits, always terminated; returns `dst`.
char *copy_cut(char *dst, size_t size, std::string_view text);
// The same for several parts, one behind the other; returns the length that all of them have.
size_t join_cut(char *dst, size_t size, std::initializer_list<std::string_view> parts);
