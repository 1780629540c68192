// The playlists that viewers ask for: each is a question to the daemon, put at most every half second however
// many ask, with the answer's file kept in memory until the next. Whoever serves a playlist from here keeps
// its lock file touched, at most once a second.
//
// A playlist lives here while it is asked for. Those of events count for the address that asked first, which
// bounds the tasks that one viewer can make the daemon keep.
#pragma once

#include "tools/web/files.h"
#include "tools/web/link.h"
#include "tools/web/options.h"
#include "tools/web/reply.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

enum class shelf_kind { live, vod, event, moving_event, probe };

// A stored form of a playlist and what is sent of it, made when first wanted.
struct shelf_form {
    std::shared_ptr<const std::string> body;
    std::string etag;
    response_ptr whole;
};

struct shelf_entry {
    std::string question; // also the key
    shelf_kind kind;
    std::string owner; // the address that it counts for; empty = nobody's
    bool is_asking;
    bool was_gone;     // the last answer's file was gone, asked once more
    int status;        // of the last answer; 0 = none yet
    std::string fault; // what was wrong
    bool is_gzip;      // how the playlist is stored
    shelf_form stored, plain;
    std::string lock;                               // path below the data directory
    int64_t asked_at, good_at, used_at, touched_at; // milliseconds of the loop's clock
    size_t pins;                                    // requests that hold it
    std::vector<MHD_Connection *> waiting;          // suspended until the answer
};

struct shelf_numbers {
    size_t playlists, sessions;
};

void shelf_init(const web_options *opts, file_root *root);
// Wakes up whoever waits; forgets everything, when no request is left.
void shelf_close();
void shelf_clear();
// The loop's part: forgets what nobody asks for.
void shelf_tick();
shelf_numbers shelf_count();
// Whether suspended requests were let go since the last call: the HTTP library wants to run then.
bool shelf_has_woken();

enum class shelf_result { ready, wait, full, too_many };
// Looks a question up for a viewer at `owner` (empty: it counts for nobody). ready: the entry can be served.
// wait: its answer is on the way; shelf_suspend the request. full: there is no room. too_many: that address
// has all that it may have.
shelf_result shelf_get(const std::string &question, shelf_kind kind, const std::string &owner,
                       shelf_entry **entry);
// Suspends a request until the entry is answered. It stays until it is released.
void shelf_suspend(shelf_entry *entry, MHD_Connection *conn);
void shelf_release(shelf_entry *entry, MHD_Connection *conn);

// Sends an answered entry, or its fault.
MHD_Result shelf_send(shelf_entry *entry, MHD_Connection *conn, route what);
