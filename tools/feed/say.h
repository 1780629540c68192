// What the feeder tells its user: plain lines on standard error, and on a terminal one line of state below
// them that is written over again.
#pragma once

#include <string>

enum say_level : int { SAY_ERROR = 0, SAY_NOTE = 1, SAY_DETAIL = 2 };

// Lines above `level` are left out. `channel` stands before each line.
void say_init(const char *channel, say_level level);
bool say_is_wanted(say_level level);

// One line, without its line feed.
[[gnu::format(printf, 2, 3)]] void say(say_level level, const char *format, ...);

// Whether a state line is shown at all, so that nobody makes one in vain.
bool say_has_state();
void say_state(const std::string &line);
// Takes the state line away; for the end.
void say_clear();
