// The configuration: built-in defaults, then the file, then the command line. A reload reads the file into
// the live record again, all but its log, socket and runtime settings.
#pragma once

#include "app/plum.h"
#include "lib/log.h"

#include <cstdio>

enum : size_t { SRC_LISTENER = 1, PL_LISTENER = 2 }; // entries of rui.user

// Zeroes the record and sets the built-in values. 0.
int init_plum_config(plum_cfg *cfg);

// Defines listener `index` (1..MAX_LISTENERS, anything else is an assertion failure) as a UNIX socket at
// `path`, whose requests carry `tag`; an empty path leaves it undefined.
void config_plum_ifc(plum_cfg *cfg, size_t index, uint32_t tag, const char *path);
bool has_rui_ifc(const plum_cfg *cfg, size_t index);

// Reads the file at `path`. 0 or non-zero (logged). Values are stored as they are read, so what a failing
// load did not reach keeps its value.
int load_plum_config(const char *path, plum_cfg *cfg, bool reload);

// Level of a record about a connection that ended with `err`: one that its peer closed is no failure.
inline int hangup_level(int err) {
    return err == 0 ? g_cfg.log.hangups : LL_ERROR;
}

// Prints the settings.
void dump_plum_config(FILE *out, const plum_cfg *cfg);
