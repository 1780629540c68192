// The encoder: one run of ffmpeg with the user's arguments and the segmenting output behind them. It ends
// with the feeder, however that one ends.
#pragma once

#include "tools/feed/rows.h"

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

struct encoder_setup {
    std::string program; // path of ffmpeg
    std::vector<std::string> args;
    double segment_sec = 4;
    bool retain_pts = false;
};

struct encoder {
    pid_t pid = 0;     // 0 = none, or reaped
    int rows_fd = -1;  // of finished segments
    int words_fd = -1; // what it says
    line_reader rows;
    line_reader words;
    int status = 0; // as the shell counts: 128 and the signal when one ended it
};

// The path of `program`, looked for as a shell does; empty when there is none.
std::string enc_find(const std::string &program);

// The whole command line of a run.
std::vector<std::string> enc_command(const encoder_setup &setup, const std::string &name_template,
                                     long first_number);

// False, told, when no process can be made.
bool enc_start(encoder *enc, const std::vector<std::string> &command);

// Picks up the status of the process when it has ended.
void enc_reap(encoder *enc);
void enc_signal(const encoder &enc, int signo);
// Ended, and all that it wrote is read.
bool enc_is_over(const encoder &enc);
