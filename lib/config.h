// Access to the configuration file: one file at a time is open, its settings are looked up by full path
// ("lum.log.file"), and every message names the key that way. A key that is absent takes its default; one
// of the wrong type is refused, so that a misspelt value never goes unnoticed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <libconfig.h>

// Opens and parses `path`. 0; -1 when it cannot be opened (also printed on standard error) or parsed
// (logged). Anything but a regular file is refused, also where one is included.
// Must be followed by config_close in either case.
int config_open(const char *path);
void config_close();

bool config_has_group(const char *key);
config_setting_t *config_find(const char *key); // null = absent

// Each returns 0, or -1 for a value of the wrong type or, for strings, of more than `max` characters
// (logged); the target is untouched then.
int load_config_int(const char *key, int64_t *value, int64_t fallback);
int load_config_bool(const char *key, bool *value, bool fallback);
// `buf` holds max + 1 bytes.
int load_config_str(const char *key, char *buf, size_t max, const char *fallback);
// The same for `key` inside `setting`.
int load_config_setting_str(config_setting_t *setting, const char *key, char *buf, size_t max,
                            const char *fallback);
// A size, plain or with a suffix K, M or G.
int load_config_setting_size(config_setting_t *setting, const char *key, size_t *value, size_t fallback);
// Calls fn (text, arg) for each string of a list or array; the number of strings, or -1.
int load_config_string_list(const char *key, void (*fn)(const char *text, void *arg), void *arg);
