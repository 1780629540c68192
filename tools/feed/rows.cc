#include "tools/feed/rows.h"

#include "lib/strops.h"

#include <cerrno>
#include <charconv>
#include <cmath>
#include <unistd.h>

read_state lines_read(line_reader *reader, int fd) {
    char buf[ROW_MAX];
    ssize_t n = read(fd, buf, sizeof(buf));
    if (n > 0) {
        reader->text.append(buf, static_cast<size_t>(n));
        return READ_MORE;
    }
    if (n < 0 && (errno == EAGAIN || errno == EINTR))
        return READ_MORE;
    if (!reader->text.empty() && reader->text.back() != '\n')
        reader->text += '\n';
    return READ_END;
}

bool lines_take(line_reader *reader, std::string *line) {
    for (;;) {
        size_t end = reader->text.find('\n');
        if (end == std::string::npos) {
            if (reader->text.size() > ROW_MAX) {
                reader->text.clear();
                reader->is_over = true;
            }
            return false;
        }
        *line = reader->text.substr(0, end);
        reader->text.erase(0, end + 1);
        if (!reader->is_over)
            return true;
        reader->is_over = false;
    }
}

static bool parse_time(std::string_view text, double *value) {
    auto [end, err] = std::from_chars(text.data(), text.data() + text.size(), *value);
    return err == std::errc() && end == text.data() + text.size() && std::isfinite(*value);
}

// The times are taken from the end, since a file's name may hold commas.
bool row_parse(std::string_view line, seg_row *row) {
    line = strip_tail(line);
    size_t last = line.rfind(',');
    if (last == std::string_view::npos || last == 0)
        return false;
    size_t first = line.rfind(',', last - 1);
    if (first == std::string_view::npos || first == 0)
        return false;
    row->file = line.substr(0, first);
    return parse_time(line.substr(first + 1, last - first - 1), &row->start) &&
           parse_time(line.substr(last + 1), &row->end);
}
