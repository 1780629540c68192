// A configuration file and the files that it includes, read whole and joined into one text. The parser gets
// nothing but that text: it would end the process when a file failed under its hands.
#pragma once

#include "lib/util.h"

#include <cstddef>
#include <string>
#include <vector>

// A line of one of the files.
struct cfg_place {
    std::string path; // empty = nowhere
    int line;         // from 1
};

struct cfg_text {
    std::string text;               // without include lines, and without a zero byte
    std::vector<std::string> files; // the first is the one that was asked for
    struct origin {
        size_t file; // index in `files`
        int line;
    };
    std::vector<origin> lines; // of the text, where each came from
    file_stamp stamp;          // of the first file, taken before it was read
};

inline constexpr size_t CFG_TEXT_MAX = 1024 * 1024; // bytes of all files together

// Reads `path`; a relative path in an include line is below `home`, or as it stands when that is empty. 0; -1
// (logged, an unreadable first file also printed on standard error) for anything that is no regular file or
// cannot be read to its end, a zero byte, a circle of includes, and a comment or text that is open at its
// file's end.
int cfgtext_read(const char *path, const char *home, cfg_text *out);

// Where a line of the joined text came from.
cfg_place cfgtext_place(const cfg_text &text, int line);

// Logs a fault in the words that a syntax error has.
void cfgtext_report(const cfg_place &place, const char *what);
