// A file of arguments, written as on a shell's command line but on as many lines as one likes: words are
// parted by white space, '...' and "..." and a backslash quote, and "#" at the beginning of a word starts a
// comment that ends with the line. Nothing is substituted.
#pragma once

#include <string>
#include <string_view>
#include <vector>

// The words of `text`. False when a quote is not closed.
bool argfile_split(std::string_view text, std::vector<std::string> *words);

// The words of a file; false, told on standard error, when it cannot be read or split.
bool argfile_read(const char *path, std::vector<std::string> *words);
