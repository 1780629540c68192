// The configuration: built-in defaults, then the file, then the command line. A reload reads the file into
// the live record again, all but its log, socket and runtime settings.
#pragma once

#include "app/plum.h"
#include "lib/cfgtext.h"
#include "lib/log.h"

#include <cstdio>

enum : size_t { SRC_LISTENER = 1, PL_LISTENER = 2 }; // entries of rui.user

// Zeroes the record and sets the built-in values. 0.
int init_plum_config(plum_cfg *cfg);

// Defines listener `index` (1..MAX_LISTENERS, anything else is an assertion failure) as a UNIX socket at
// `path`, whose requests carry `tag`; an empty path leaves it undefined.
void config_plum_ifc(plum_cfg *cfg, size_t index, uint32_t tag, const char *path);
bool has_rui_ifc(const plum_cfg *cfg, size_t index);

// Told of a key in the file that nothing has read.
using unread_key_fn = void(const char *key, const cfg_place &place, void *arg);

// Reads the file at `path`. 0 or non-zero (logged, with the file and line where it stopped). Values are
// stored as they are read, so what a failing load did not reach keeps its value. After a first load that went
// well, `on_unread` is told of the keys that mean nothing.
int load_plum_config(const char *path, plum_cfg *cfg, bool reload, unread_key_fn *on_unread = nullptr,
                     void *arg = nullptr);

// Level of a record about a connection that ended with `err`: one that its peer closed is no failure.
inline int hangup_level(int err) {
    return err == 0 ? g_cfg.log.hangups : LL_ERROR;
}

// Prints the settings.
void dump_plum_config(FILE *out, const plum_cfg *cfg);
