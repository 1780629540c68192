// Live manifest import: when a main source appears, its item list is rebuilt from the list of segments that
// its producer keeps in "DATA_DIR/NAME/NAME.manifest_live", so that playlists are complete at once after a
// restart. Each line is a source line behind a running number and a colon.
#pragma once

#include "app/plum.h"

#include <string_view>

// Imports the manifest of `src`; a missing one is normal. A malformed line ends the import; one that is stale
// or refused and one whose file is missing or has another size are skipped (logged). Markers do not age. A
// discontinuity marker closes what was imported.
// With a sequence file whose segment is among the entries, counting goes on from it.
void read_manifest(pl_source *src);
// 0 when the line became an item, -7 for a stale entry, -1 for one that stops the import, or another error.
int add_manifest_entry(pl_source *src, std::string_view line, size_t line_no);
bool is_stale_mitem(const src_params *params, const char *path, long start_tm);

// "DATA_DIR/NAME/NAME.manifest_live" into `buf`; the length it needs.
int mk_manifest_path(const src_params *params, const char *nametag, char *buf, size_t size);
