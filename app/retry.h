// Deleting files, again and again where it fails for a reason that may pass: a disk that cannot be read or
// written, a directory without permission. The names of such files wait here, up to MAX_DELETIONS_LEFT of
// them; what is given up is told.
#pragma once

#include <cstddef>

inline constexpr size_t MAX_DELETIONS_LEFT = 1024;

// Deletes a file. 0, or -1 (logged in the name of `caller`), in which case the name is kept if another try
// may do; with no room left for it, it is given up (logged).
int delete_file(const char *caller, const char *path);
// The name is in use again: what bears it stays.
void forget_deletion(const char *path);
size_t deletions_left();

// Tries all names again; those that fail are told in one record.
void retry_deletions();
// The last try; names each file that stays.
void end_deletions();
