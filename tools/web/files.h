// Files below a directory, and nothing else: no link is followed, nothing outside is reached, and only
// regular files are opened. Sends them with ranges, tags and times, straight from the file to the socket.
#pragma once

#include "tools/web/reply.h"

#include <string>
#include <sys/stat.h>

struct file_root {
    std::string dir;
    std::string real; // the same directory without links
    int fd = -1;
};

// Opens the directory; 0 or -1 (told on standard error).
int root_open(file_root *root, const std::string &dir);
void root_close(file_root *root);

// Opens a regular file; the descriptor (the caller's) and its status, or -1 with errno: ENOENT also stands
// for everything that must not be opened. A directory that was replaced is opened anew.
int root_open_file(file_root *root, const std::string &path, struct stat *st);

// The type of a media segment by its name; null for a name that is none.
const char *files_segment_type(std::string_view path);
// The same for the parts of the page.
const char *files_page_type(std::string_view path);

// Answers with the file at `path`. With `accel` (null = none) the answer only names the file to the proxy.
MHD_Result files_send(MHD_Connection *conn, route what, file_root *root, const std::string &path,
                      const char *type, const char *cache, const std::string *accel);

// The loop's part: lets go of the files that were kept open for those who ask for the same within a second.
void files_tick();
void files_close();

inline constexpr char CACHE_SEGMENT[] = "public, max-age=86400, immutable";
inline constexpr char CACHE_PAGE[] = "no-cache";
