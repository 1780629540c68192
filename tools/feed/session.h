// One feeder at work: runs of the encoder one after another, or the rows of standard input, until it is told
// to stop. A run that ends, or hangs (no finished segment in three segment lengths, and some seconds more
// before the first), is followed by another after a growing pause.
#pragma once

#include "tools/feed/encoder.h"
#include "tools/feed/feeder.h"

#include <cstdint>

enum session_phase {
    PHASE_RUN,
    PHASE_SETTLE, // the run is over, what it made is still on its way to the daemon
    PHASE_PAUSE,
    PHASE_END,
};

struct session {
    feeder feed;
    encoder_setup setup;
    encoder enc;
    line_reader rows; // of standard input
    session_phase phase = PHASE_PAUSE;
    int64_t until = 0; // milliseconds: the end of a pause, or the last moment to settle
    int64_t pause_ms = 0;
    int64_t run_at = 0;       // when the run began
    int64_t writes_since = 0; // when it was first seen to write, or finished a segment; 0 = not yet
    int64_t hang_at = 0;      // when the run may count as hanging
    int64_t kill_at = 0;      // when an encoder that was told to end is killed; 0 = it was not told
    int64_t began_at = 0;
    int64_t first_row_at = 0, last_row_at = 0; // of the run; 0 = none yet
    double first_media = 0;                    // media seconds at the first row
    long first_number = 0;                     // of the run's segments
    bool is_quitting = false;
    bool is_hanging = false;
    int status = 0; // of the program
};

// False, told, when there is nothing to begin with.
bool session_open(session *self, const feed_options *opts);

// Waits for at most `max_wait_ms`, or for `signal_fd` to be readable, and takes what has come in. True when
// there are signals, which are to be taken then, before session_on_time draws the conclusions.
bool session_wait(session *self, int signal_fd, int max_wait_ms);
void session_on_time(session *self);

// Ends the run behind the last whole segment; told a second time, at once.
void session_quit(session *self);
void session_on_child(session *self);
bool session_is_over(const session &self);
int session_close(session *self); // the exit status

std::string session_state_text(const session &self);
