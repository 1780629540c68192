// Where a segment stands in time. Start times come from one anchor, the wall-clock time of the stream's time
// zero, and the stream's own clock; arrival times are not used, since they jitter. The anchor is set with the
// first segment of a run, so that this segment ends when it is reported, and anew, behind a break, when
//
//  - the stream's time jumps: a segment does not begin where the last one ended, or its time stamps tell
//    another distance than its times (a wrap of the 33 bits is no jump, nor does it matter how far behind
//    the sound the picture begins after a break);
//  - a segment's end is not behind its start, or absurdly far: its length is then the nominal one;
//  - stream and wall clock are more than a segment apart, three segments in a row, so that a hiccup of the
//    machine does not count.
//
// A first segment that came late, since the encoder looks at its input for some seconds, is made up for: the
// anchor goes back, by half a segment at most, with those behind it.
//
// A stream that begins in the past (`ago`) may run towards the wall clock at any pace; the last rule holds
// from when it has arrived.
#pragma once

#include <cstdint>

struct stream_clock {
    double segment_sec = 4;        // nominal length
    double ago = 0;                // seconds that the first run begins in the past
    bool has_input_stamps = false; // times and time stamps are the same clock
    double run_began = 0;          // wall clock
    bool is_anchored = false;      // false at the beginning of a run
    bool is_arriving = false;      // on the way from the past to the wall clock
    double anchor = 0;             // wall clock of the stream's time zero
    double may_be_late = 0;        // seconds that the anchor may still go back
    double unwrapped = 0;          // added to the stream's times
    double start = 0, end = 0;     // of the last segment, unwrapped
    int64_t raw_pts = -1;          // of the last segment
    bool is_behind_break = false;  // the last segment
    int64_t pts = 0;               // as reported
    int drifted = 0;               // segments in a row
};

struct seg_time {
    const char *why; // the stream breaks before the segment: for what reason; null = it goes on
    double start_tm; // seconds of the epoch
    double duration;
    int64_t pts; // above 0 and rising until the next break
};

// A run of the segmenter begins: its first segment comes behind a break.
void clock_restart(stream_clock *clock, double now);

// Places the segment that the stream's clock has at `start` to `end`, in seconds, with the first time stamp
// `raw_pts` (TS_NONE: it has none), finished at `now`.
seg_time clock_place(stream_clock *clock, double start, double end, int64_t raw_pts, double now);
