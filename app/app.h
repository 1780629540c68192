// The application context and the registry of sources: adding, re-attaching and destroying them.
#pragma once

#include "app/plum.h"

#include <string_view>

// Builds g_ctx from g_cfg: listeners (whose requests are made and removed by `cb`), source table, removal
// list, name hash, reporter. 0, or an error (logged) after which nothing is left behind. A second call is an
// assertion failure.
int init_plum_ctx(const rui_socket_cb &cb);
// Accepts a context that was never, or only partly, built.
void destroy_plum_ctx();

// Registers the source of a connection, or re-attaches one that is suspended. `params` is the parameter text
// of the init line, null or empty for none. 0; -34 when there are as many sources as may be, -16 when the
// name is connected, -1 or another error for bad parameters and the like (logged).
int add_source(pl_urq *urq, const char *nametag, const char *params);

// Parses "max_sec=", "data_dir=", "item_pfx=" and "target_sec=" out of `text`; 0 or -1 (logged), also for a
// directory that cannot be written.
int get_src_params(const char *text, src_params *params);
// Copies what is set of the playback length and the data directory, nothing else.
void copy_params(src_params *dst, const src_params *src);

// Fills a fresh record for the connection `fd`, owned by the source from then on, and registers it with the
// event service. 0 or an error (logged); the record can be destroyed in either case.
int init_src(pl_source *src, const char *nametag, ssize_t idx, int fd, std::string_view tail,
             const src_params *params);
// Releases everything a source owns, half-built ones included; segment files stay. The tag is expired.
void destroy_src(pl_source *src);
// The element destructor behind it.
int rm_src_rec(void *sources, size_t i);

// Event callbacks for errors and hang-ups: a source is suspended; a listening socket's error aborts.
void source_error(pl_source *src, bool is_hup);
[[noreturn]] void listener_error(rui_socket_ctx *srv, bool is_hup);
