// The texts of HTTP: paths, header values, times. Nothing here keeps state or logs.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>

// A request's path without its leading slash, percent signs resolved. False for a broken escape, a control
// character or zero byte, and for a component that is empty, "." or ".." ("" itself is the root).
bool text_path(std::string_view raw, std::string *path);
// A path for use in a header or URL: everything but letters, digits and "-._~/" is escaped.
std::string text_escape(std::string_view path);
// Whether a channel of this name can be asked for: one component without blanks, at most 127 bytes, and no
// stand-in, which must not be given playlists of its own.
bool text_is_channel(std::string_view name);

// A whole decimal number of at most 11 digits, with a minus sign if need be.
bool text_number(std::string_view text, int64_t *value);

// Whether the value of Accept-Encoding (null = none) takes gzip.
bool text_takes_gzip(const char *value);
// Whether the value of If-None-Match names the tag, quotes included.
bool text_has_etag(std::string_view value, std::string_view etag);

// "Sun, 06 Nov 1994 08:49:37 GMT", and back; -1 = none.
std::string text_http_date(time_t at);
time_t text_parse_date(const char *value);

enum class range_kind { none, part, unsatisfiable };
struct byte_range {
    range_kind kind;
    uint64_t first, count;
};
// The value of Range for a file of `size` bytes. Several ranges, other units and what is malformed count as
// none: the whole file is a right answer to them.
byte_range text_range(std::string_view value, uint64_t size);

// A FNV-1a hash, for tags of contents.
uint64_t text_hash(std::string_view data);
// `n` random letters and digits.
std::string text_random_id(size_t n);
bool text_is_id(std::string_view text, size_t n);
// As a JSON string, with its quotes.
std::string text_json(std::string_view text);
