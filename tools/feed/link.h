// The connection to the daemon.
//
// The daemon never writes to a source, but closes its sending side when it has taken one, after it has
// imported the manifest: until then the link is asking, from then on it is up. Whether it did read the
// manifest is seen on the file itself; where that cannot be watched, a daemon with another process id than
// before has read it.
//
// The rule that nothing is lost and nothing listed twice: while the link asks, nothing is noted in the
// manifest and nothing sent. So all that was noted before is either in what the daemon has imported, or, when
// it lived on and did not import, is sent again as far as it was not sent to it; and all that is noted from
// then on is sent.
#pragma once

#include <cstdint>
#include <string>

enum link_state {
    LINK_OFF,     // not wanted
    LINK_WAITING, // until the next attempt
    LINK_ASKING,  // the init line is sent
    LINK_UP,
};

// What an event has changed.
enum link_news {
    LINK_NO_NEWS,
    LINK_ACCEPTED,
    LINK_REFUSED, // hung up while asking
    LINK_LOST,
};

struct daemon_link {
    std::string socket_path;
    link_state state = LINK_OFF;
    int fd = -1;
    int64_t retry_at = 0;      // milliseconds on the monotonic clock, while waiting
    int64_t pause_ms = 0;      // before the next attempt; grows
    int watch_fd = -1;         // on the manifest while asking
    bool has_imported = false; // the last one that accepted
    int pid = 0;               // of the peer; 0 = none, or not to be seen from here
    uint64_t born = 0;         // when that process was started, as the kernel counts
    int last_pid = 0;          // of the last peer that accepted
    uint64_t last_born = 0;
    std::string queue;    // not taken by the socket yet
    bool is_told = false; // that there is no daemon
};

// Connects and sends `init_line`; `manifest_path` is watched unless empty. The state is ASKING, or WAITING
// for the next attempt after a growing pause (0.1 to 5 s).
void link_connect(daemon_link *link, const std::string &init_line, const std::string &manifest_path,
                  int64_t now_ms);

// To be called when poll reports something on `fd`; link_events tells what to ask for.
short link_events(const daemon_link &link);
link_news link_on_event(daemon_link *link, short revents, int64_t now_ms);

// Sends one line, or keeps it until the socket takes it. Only while the link is up.
void link_send(daemon_link *link, const std::string &line);

// Whether the daemon has read all that was sent. It drops what it has not read of a connection that is
// closed.
bool link_is_drained(const daemon_link &link);
void link_close(daemon_link *link);
