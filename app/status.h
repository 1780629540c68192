// The status file: what every source, playlist and request counter stands at, in the text exposition format
// of Prometheus. The counters are plain integers in the records, raised where the thing happens; only this
// room reads them. One rule: without a configured file nothing is done here but counting passes.
#pragma once

#include <string>

// Before the loop is entered: the first writing, and the loop's reason to wake up for the next.
void status_start();
// At the end of each pass of the event loop: writes the file through a temporary name when `status_sec` have
// passed. While a file is configured the loop wakes up for it, also an idle one. A file that cannot be
// written is told once, and once when it can be again.
void status_pass();

// The text as it would be written now.
std::string status_text();
