// Meta-data reports: each accepted segment is announced in one UDP datagram that carries its location and
// the time until which it stays available:
//
//   #!PREFIX-NUMBER /src/BASE/PATH/dst/ EXPIRY #EOM
#pragma once

#include "app/plum.h"

// Opens a reporter; null when its URL cannot be used (logged). Owned by the caller until mdr_close.
mdr_t mdr_open(const mdrep_cfg *cfg);
// Sends one report without blocking: `path` as received from the source, `expiry` in Unix seconds. 0 when
// the datagram went out whole, else -1 (logged).
int mdr_send(mdr_t mdr, const char *path, time_t expiry);
// Takes over what can change while it runs: ids, prefix and base. What cannot is told in the log. `mdr` may
// be null: reports that a reload turned on need a restart.
void mdr_reconfigure(mdr_t mdr, const mdrep_cfg *cfg);
// Closes the socket and frees the reporter.
void mdr_close(mdr_t mdr);
