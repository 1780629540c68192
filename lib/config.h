// Access to the configuration file: one file at a time is open, its settings are looked up by full path
// ("lum.log.file"), and every message names the key that way. A key that is absent takes its default; one
// of the wrong type is refused, so that a misspelt value never goes unnoticed. What was looked up is
// remembered, so that a misspelt key can be told too.
#pragma once

#include "lib/cfgtext.h"

#include <cstddef>
#include <cstdint>
#include <libconfig.h>

// Opens and parses `path`, with what it includes below `home` (see cfgtext_read). 0; -1 when it cannot be
// read (also printed on standard error) or parsed (logged, with the file and line of the fault).
// Must be followed by config_close in either case.
int config_open(const char *path, const char *home = "");
void config_close();
// Of the open file, before it was read.
file_stamp config_stamp();

// Where the setting that was looked up last stands; an empty path when it was absent.
cfg_place config_last_place();
// Calls fn (key, place, arg) for each setting that nobody has looked up; a group that holds nothing but such
// settings, and was not asked for itself, is told as one.
void config_visit_unread(void (*fn)(const char *key, const cfg_place &place, void *arg), void *arg);
// What stands below `key` counts as looked up: the group is switched off.
void config_skip(const char *key);

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
