// Lines that arrive in pieces, and the "file,start,end" rows of a segmenter among them.
#pragma once

#include <string>
#include <string_view>

inline constexpr size_t ROW_MAX = 4096; // of one line; a longer one is dropped whole

struct line_reader {
    std::string text;     // not taken yet
    bool is_over = false; // in a line that is too long
};

enum read_state { READ_MORE, READ_END };

// Reads once what the non-blocking `fd` holds. READ_END at its end, also on an error; a last line without a
// line feed then counts as complete.
read_state lines_read(line_reader *reader, int fd);

// Takes the next complete line, without its end. False when there is none.
bool lines_take(line_reader *reader, std::string *line);

struct seg_row {
    std::string file;
    double start; // seconds on the stream's own clock
    double end;
};

// False when `line` is no row of three finite fields.
bool row_parse(std::string_view line, seg_row *row);
