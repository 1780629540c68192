#include "tools/feed/clock.h"

#include "tools/feed/tsprobe.h"

#include <algorithm>
#include <cmath>

static constexpr double MAX_GAP =
    1.0; // between two segments, or of time stamps against times, that is no jump
static constexpr double WRAP_SEC = static_cast<double>(TS_WRAP) / TS_HZ;
static constexpr double ABSURD_SEC = 600; // and more than ten nominal lengths
static constexpr int MAX_DRIFTED = 3;
static constexpr double MAX_LOOK = 5; // seconds that an encoder looks at its input before it begins

void clock_restart(stream_clock *clock, double now) {
    if (clock->run_began != 0)
        clock->ago = 0;
    clock->run_began = now;
    clock->is_anchored = false;
}

// How far the stream's times lie from where they should, or from there after a wrap.
static double jump_of(stream_clock *clock, double start) {
    double gap = start + clock->unwrapped - clock->end;
    if (std::abs(gap + WRAP_SEC) < MAX_GAP) {
        clock->unwrapped += WRAP_SEC;
        gap += WRAP_SEC;
    }
    return gap;
}

// From one time stamp to the next, the shorter way around.
static int64_t pts_step(int64_t from, int64_t to) {
    int64_t step = (to - from) & (TS_WRAP - 1);
    return step >= TS_WRAP / 2 ? step - TS_WRAP : step;
}

// Behind a break the picture may begin later in the segment than the sound.
static bool do_stamps_go_on(const stream_clock *clock, double start, int64_t raw_pts) {
    if (clock->raw_pts == TS_NONE || raw_pts == TS_NONE)
        return true;
    double step = static_cast<double>(pts_step(clock->raw_pts, raw_pts)) / TS_HZ;
    double gap = step - (start + clock->unwrapped - clock->start);
    double late = clock->is_behind_break && step > 0 ? clock->end - clock->start : 0;
    return gap <= MAX_GAP && gap >= -MAX_GAP - late;
}

// What came in while the encoder looked at its input leaves it all at once, and the first segment late.
static bool catches_up(stream_clock *clock, double end, double duration, double now) {
    double early = clock->anchor + end - now;
    bool is_early = early > std::min(MAX_GAP, duration / 2);
    double step = is_early ? std::min({early, clock->may_be_late, duration / 2}) : 0;
    clock->anchor -= step;
    clock->may_be_late = is_early ? clock->may_be_late - step : 0;
    return step > 0;
}

static bool has_drifted(stream_clock *clock, double end, double duration, double now) {
    if (catches_up(clock, end, duration, now))
        return false;
    double drift = now - (clock->anchor + end);
    double limit = std::max(clock->segment_sec, duration);
    if (clock->is_arriving) {
        clock->is_arriving = drift > limit;
        return false;
    }
    clock->drifted = std::abs(drift) > limit ? clock->drifted + 1 : 0;
    return clock->drifted >= MAX_DRIFTED;
}

static const char *reason_to_break(stream_clock *clock, double start, double duration, int64_t raw_pts,
                                   double now) {
    if (!clock->is_anchored)
        return "the stream begins";
    if (std::abs(jump_of(clock, start)) > MAX_GAP)
        return "the stream's time jumps";
    if (!do_stamps_go_on(clock, start, raw_pts))
        return "the time stamps do not go on";
    if (has_drifted(clock, start + clock->unwrapped + duration, duration, now))
        return now > clock->anchor + clock->end
                   ? "the stream is more than a segment behind the wall clock"
                   : "the stream runs ahead of the wall clock (a file wants -re)";
    return nullptr;
}

static void set_anchor(stream_clock *clock, double end, double now) {
    bool is_from_past = !clock->is_anchored && clock->ago > 0;
    clock->anchor = is_from_past ? clock->run_began - clock->ago : now - end;
    clock->may_be_late = clock->is_anchored || is_from_past ? 0 : MAX_LOOK;
    clock->is_arriving = is_from_past;
    clock->is_anchored = true;
    clock->unwrapped = 0;
    clock->drifted = 0;
}

// Zero would count as missing; a whole turn is the same time.
static int64_t reported_pts(const stream_clock *clock, bool is_break, int64_t raw_pts, double start) {
    if (raw_pts == TS_NONE)
        raw_pts = static_cast<int64_t>(std::fmod(std::max(start, 0.0), WRAP_SEC) * TS_HZ);
    if (is_break || clock->raw_pts == TS_NONE)
        return raw_pts > 0 ? raw_pts : TS_WRAP;
    return clock->pts + pts_step(clock->pts, raw_pts);
}

// A segmenter counts the first segment from zero, wherever its time stamps begin.
static double first_start(double start, double end, int64_t raw_pts) {
    double stamp = static_cast<double>(raw_pts) / TS_HZ;
    return stamp > start && stamp < end ? stamp : start;
}

seg_time clock_place(stream_clock *clock, double start, double end, int64_t raw_pts, double now) {
    if (clock->has_input_stamps && !clock->is_anchored && raw_pts != TS_NONE)
        start = first_start(start, end, raw_pts);
    double duration = end - start;
    const char *odd = duration <= 0 ? "the stream's time stands still or goes back" : nullptr;
    if (duration > std::max(ABSURD_SEC, 10 * clock->segment_sec))
        odd = "the stream's time jumps";
    if (odd) {
        duration = clock->segment_sec;
        start = end - duration;
    }
    const char *why = reason_to_break(clock, start, duration, raw_pts, now);
    if (odd && clock->is_anchored)
        why = odd;
    if (why)
        set_anchor(clock, start + duration, now);
    clock->pts = reported_pts(clock, why != nullptr, raw_pts, start);
    clock->raw_pts = raw_pts;
    clock->is_behind_break = why != nullptr;
    clock->start = start + clock->unwrapped;
    clock->end = clock->start + duration;
    return {why, clock->anchor + clock->start, duration, clock->pts};
}
