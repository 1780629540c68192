// Live and VOD playlists: one task of each kind per source, shared by all its clients, and the response
// lines.
#pragma once

#include "app/plum.h"

// Result codes of a playlist request, as errno2http maps them.
enum : int { PL_OK = 0, PL_NO_ITEMS = 2, PL_NOT_FOUND = 3 };

// Answer a LIV or VOD request: find or make the source's task, bring its playlist up to date, and leave a
// response line in the request, also for errors. 0 or the result code.
int get_live_pl(pl_urq *urq, const char *itag, const char *nametag);
int get_vod_pl(pl_urq *urq, const char *itag, const char *nametag);

// Make a task over the source's items, which must not be empty; null when there are too many tasks or the
// playlist cannot be written (logged).
pl_task *mk_live_task(pl_source *src, bool must_gzip);
pl_task *mk_vod_task(pl_source *src, bool must_gzip);

// Search predicate over a source's tasks: non-zero for a task of the key's kind, first item and end time
// that is bound to no peer and not about to be removed. `spec` is a pl_tspec.
int match_task(void *tasks, size_t idx, void *spec);

// The source of a playlist request, or null with `*errmsg` and `*code` set: unknown, or without items.
pl_source *find_pl_source(const char *nametag, const char **errmsg, int *code);

// The response line, owned by the caller (malloc). `*prc` is the result code so far and gets the final one;
// a served task counts as client activity. At most 126 characters are kept.
char *mk_response(pl_task *task, const char *client_id, const char *errmsg, int *prc);
// Leaves the response line in the request, unless it has one.
void set_response(pl_urq *urq, pl_task *task, const char *itag, const char *errmsg, int *prc);
int errno2http(int err);

inline constexpr size_t MAX_RESPONSE = 127; // characters; a line of exactly that many loses its line end
// Characters of the shortest line that names a playlist of such a source.
size_t shortest_response(const char *dir, const char *nametag);
