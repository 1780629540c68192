// What a viewer's request means: the table of URLs, and the handler that the HTTP library calls.
//
//   /  and the page's files      /CHANNEL/live.m3u8   /CHANNEL/event.m3u8?start=TIME[&duration=SEC]
//   /channels.json               /CHANNEL/vod.m3u8    /CHANNEL/shift.m3u8?back=SEC
//   /metrics  /healthz           /PATH below the data directory, of a media segment
//
// Playlists name segments by path below the data directory, which a player takes relative to /CHANNEL/, so
// /CHANNEL/CHANNEL/NAME is the same file as /CHANNEL/NAME.
#pragma once

#include "tools/web/files.h"
#include "tools/web/options.h"

#include <microhttpd.h>

// `www` may be closed (fd -1): then there is no page.
void routes_init(const web_options *opts, file_root *data, file_root *www);

MHD_Result routes_handle(void *cls, MHD_Connection *conn, const char *url, const char *method,
                         const char *version, const char *upload, size_t *upload_size, void **state);
void routes_completed(void *cls, MHD_Connection *conn, void **state, MHD_RequestTerminationCode how);
