// The command line: the option guide, and the two passes around the configuration file.
#pragma once

// Prints the option guide to standard error and ends the process with `status`.
[[noreturn]] void usage(int status);

// Reads the command line and the configuration file into g_cfg. 0, or ends the process with status 1.
int setup_config(int argc, char **argv);
