// The channels and their state: from the daemon's status file when one is given, else from the directories
// below the data directory that hold a NAME/NAME.manifest_live.
#pragma once

#include "tools/web/files.h"
#include "tools/web/options.h"

#include <memory>
#include <string>

void channels_init(const web_options *opts, file_root *root);

// A JSON object for the page, made at most once a second:
//   {"now": SEC, "grid": SEC, "channels": [{"name", "state", "first", "last"}, ...]}
// sorted by name; state is "live", "waiting" (nothing new for a while) or "off" (no producer); first and last
// are the recording's ends in Unix seconds, 0 = not known.
std::shared_ptr<const std::string> channels_json();

// The status file's text; empty = none is given, or it cannot be read.
std::string channels_status_text();
