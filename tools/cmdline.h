// The command lines of the programs around the daemon: one table of options gives the parser and the guide.
#pragma once

#include <getopt.h>
#include <span>

struct cmd_option {
    char letter;      // what `cmd_next` returns; a letter or digit is a short option too
    const char *name; // long form
    const char *arg;  // what the guide calls its argument; null = takes none
    const char *text; // one line of the guide
};

struct cmd_guide {
    const char *program;
    const char *usage;   // what follows the program's name on the command line
    const char *summary; // one or two lines
    std::span<const cmd_option> options;
    bool is_strict = false; // the first operand ends the options
};

// Prints the guide to standard output.
void cmd_print_guide(const cmd_guide &guide);

// The next option's letter, its argument in `optarg`; -1 behind the last one, with `optind` at the first
// operand ("--" ends the options; operands before them are moved behind them unless the guide is strict); '?'
// for what the table does not know or a missing argument, which has then been told on standard error.
int cmd_next(const cmd_guide &guide, int argc, char **argv);

// A whole number from `min` to `max`, in seconds or whatever the option counts. False, told on standard error
// in the option's long name, when `text` is none.
bool cmd_number(const cmd_guide &guide, char letter, const char *text, long min, long max, long *value);
