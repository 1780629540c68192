// The channel's live manifest, from which a restarted daemon has the recording back. Who holds the lock on it
// is the channel's feeder and writes it; all others only read.
//
// A line is appended with one write; pruning writes a new file and renames it. What could not be written (a
// full disk) is kept and written first the next time, so that the order holds.
#pragma once

#include <ctime>
#include <string>
#include <string_view>
#include <vector>

struct manifest {
    std::string path;
    long depth_sec = 0; // playback depth: older entries go
    int fd = -1;        // locked while it is open
    long number = 0;    // of the last line
    time_t oldest = 0;  // start time of the first entry
    time_t kept_at = 0; // looked after
    std::string unwritten;
    std::vector<std::string> gone; // paths of segments that were pruned, for the holder to see to and clear
    bool is_failing = false;       // has been told
};

// Takes the lock without waiting, mends and prunes what is there. False when another holds it, or on a
// failure, which is told.
bool mft_take(manifest *mft, time_t now);
bool mft_is_taken(const manifest &mft);
void mft_release(manifest *mft);
// Whether there is an entry.
bool mft_has_entries(const manifest &mft);

// Appends `line`, a line of the source protocol that starts at `start_tm`, and prunes when it is time. A
// failure is told once until it has ended.
void mft_note(manifest *mft, std::string_view line, time_t start_tm, time_t now);

// Calls fn (path, arg) for the path in each entry, a discontinuity's too; nothing when there is no manifest.
void mft_each_path(const std::string &path, void (*fn)(std::string_view path, void *arg), void *arg);
