// The connection to the daemon: questions are put one at a time over one UNIX socket, because the daemon
// reads one line at a time, and answered through callbacks from the event loop. Nothing here waits.
//
// The connection is opened for the first question and closed when it has been silent for a while. One that
// the daemon closed meanwhile is opened again once for the same question. Logged: the daemon's going and
// coming, each once.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

struct link_answer {
    int status = 0;       // 200, the daemon's status, or 502 (nonsense), 503 (away), 504 (no answer in time)
    bool is_gzip = false; // 200: how the playlist is stored
    std::string text;     // 200: the playlist's path; otherwise what is wrong
};
using link_done = void (*)(void *arg, const link_answer &answer);

struct link_counts {
    uint64_t questions; // put to the daemon
    uint64_t refused;   // answered with an error
    uint64_t failed;    // not answered
};
inline link_counts g_link_counts;

// `answer_ms`: from the asking to the answer, waiting in the queue included.
void link_init(const std::string &socket_path, long answer_ms);
// Fails what is still open, with 503.
void link_close();

// Puts a question, such as "LIV tv"; `done` is called once, never from inside this call. LINK_PROBE asks for
// a sign of life: it is 200 without a text when the daemon hangs up because this end has, of which the daemon
// makes no error.
inline constexpr char LINK_PROBE[] = "";
void link_ask(std::string_view question, link_done done, void *arg);

// The loop's part: an event on the record `link_udata`, the passing of time, and when that is wanted next
// (milliseconds from now, -1 = never).
void *link_udata();
void link_on_event(bool is_error);
void link_tick();
int64_t link_wait_ms();
