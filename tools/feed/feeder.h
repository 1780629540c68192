// The channel's books: what becomes of a finished segment. It is placed in time, noted in the manifest when
// this feeder is the channel's, and told to the daemon.
//
// Who holds the lock on the manifest is the channel's feeder and connects under its name; any other stands in
// as "~CHANNEL". A feeder without the lock tries for it with every segment, connected or not, and on getting
// it connects anew under the channel's name. One whose encoder fails leaves the daemon and gives the lock
// away, so that a stand-in takes over at once, and is a stand-in itself when it is back. The daemon is
// connected to with the first segment, not before.
//
// While the link asks (see link.h) segments are held, neither noted nor sent.
#pragma once

#include "tools/feed/clock.h"
#include "tools/feed/link.h"
#include "tools/feed/manifest.h"
#include "tools/feed/options.h"
#include "tools/feed/rows.h"
#include "tools/feed/store.h"

#include <cstdint>
#include <deque>
#include <string>

struct seg_entry {
    std::string path; // in the data directory
    std::string line; // of the source protocol
    time_t start_tm;
    bool is_break; // a discontinuity goes before it
};

struct feeder {
    const feed_options *opts;
    seg_store store;
    manifest mft;
    daemon_link link;
    stream_clock clock;
    std::deque<seg_entry> held;    // not noted, not sent
    std::deque<seg_entry> missed;  // noted while there was no daemon
    std::deque<std::string> aside; // segments that are in no manifest: told as a stand-in, or to nobody
    bool must_break = true;        // the next segment does not follow the last one
    int refusals = 0;              // in a row
    int64_t lock_rest_until = 0;   // the lock is not tried for before, milliseconds
    long segments = 0;
    long last_size = 0;
    double media_sec = 0;
};

void feeder_init(feeder *feed, const feed_options *opts);

// A run of the segmenter begins, or has ended by itself.
void feeder_run_begins(feeder *feed);
void feeder_run_ends(feeder *feed);

// A segment is finished. False, told, when it is left out.
bool feeder_on_row(feeder *feed, const seg_row &row);

// To be called when poll reports something on the link's descriptor, and in every pass.
void feeder_on_link(feeder *feed, short revents);
void feeder_on_time(feeder *feed);
// Milliseconds until feeder_on_time has something to do; -1 when it has not.
int feeder_wait_ms(const feeder &feed);

// Notes what is held, when it can; for the end.
void feeder_flush(feeder *feed);
// Nothing is on its way to the daemon.
bool feeder_is_settled(const feeder &feed);

bool feeder_is_on_air(const feeder &feed);

double wall_now(); // seconds of the epoch
int64_t mono_now_ms();
