// Clocks, deadlines and printable times.
//
// This room lies below the log and the event loop: it reports failures through a callback that the log
// core installs, and reads the loop's current time through a pointer that the event service installs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>

// Flags of printable times and of the log's time stamps. The low two bits choose the clock
// (0 = real time, 1 = monotonic).
enum : uint32_t {
    TF_LOCAL = 0,       // local time with microseconds and zone
    TF_MONO = 1,        // monotonic clock
    TF_NO_USEC = 0x10,  // without microseconds
    TF_NO_TIME = 0x100, // no time stamp at all
    TF_GMT = 0x200,     // UTC instead of local time
    TF_RAW = 0x400,     // seconds.microseconds since the clock's start
    TF_CLOCK_MASK = 3,
};

// Receives one finished failure message, newline included.
using timeop_reporter = void (*)(const char *message);
void timeop_set_reporter(timeop_reporter fn);

// Where the event loop keeps its current time; without one, deadlines are compared with the monotonic
// clock. The pointer must stay valid until it is replaced.
void timeop_set_loop_clock(const timespec *now);

// Reads `clock` into `ts`; a failing clock prints the system error for "clock_gettime" and aborts.
void set_clk_now(timespec *ts, clockid_t clock);
// The wall clock.
void set_real_now(timespec *ts);

// True when the loop's current time is strictly later than start + span.
bool timed_out(const timespec &start, const timespec &span);
// The same against a given `now`.
bool timed_out_ext(const timespec &start, const timespec &span, const timespec &now);
// The same against the wall clock, read at the call.
bool timed_out_real(const timespec &start, const timespec &span);
// The one routine behind the three: `now` when given, else the wall clock when `real`, else the loop's time.
bool timed_out_as(const timespec &start, const timespec &span, bool real, const timespec *now);

// Formats `ts` by TF_ flags into `buf`; returns the characters written, -1 on failure (reported on
// standard error), TIMESTR_BUSY when re-entered from a signal handler.
inline constexpr int TIMESTR_BUSY = -35;
int mk_timestr(const timespec &ts, uint32_t flags, char *buf, size_t size);

// The inverse of mk_timestr for "%ld.%06ld ", "%Y-%m-%d %H:%M:%S " and the latter with ".%06ld ", each
// with its trailing blank. `flags` as given to mk_timestr. Returns the characters used, or -1 (reported).
int scan_log_time(const char *text, uint32_t flags, timespec *ts);

// Local 23:59:59 of the day that contains `t`, seconds since the epoch; -1 (reported) when it fails.
time_t get_endofday_utime(time_t t);

// UTC date of `t` as "YYYY-MM-DD"; 0, or -1 (reported) when it does not fit.
int mk_gmt_date(time_t t, char *buf, size_t size);

// The local zone's abbreviation with a leading blank, "#ERR#" on failure; returns `buf`.
const char *get_timezone(time_t t, char *buf, size_t size);

// Milliseconds to seconds and nanoseconds; a negative value becomes {-1, 0}, "no limit".
void ms2timespec(int64_t ms, timespec *ts);
// a + b without leaving the range of a time.
long add_seconds(long a, long b);
void cpy_timespec(const timespec *from, timespec *to);

// out = b - a, nanoseconds normalised into 0..999,999,999.
void calc_timespan(const timespec &a, const timespec &b, timespec *out);
// "%02ldd " for whole days when there are any, then "%02ldh:%02ldm:%02lds"; characters needed.
int mk_timespan(long seconds, char *buf, size_t size);

// A span either of time or of counted events.
struct tspan {
    uint32_t mode; // TSPAN_TIME or TSPAN_COUNT
    union {
        timespec time;
        uint32_t count;
    };
};
enum : uint32_t { TSPAN_TIME = 1, TSPAN_COUNT = 2 };

// A time-based span of `ms` milliseconds, or a count-based one of `value` events, by `mode`.
void set_tspan(tspan *span, uint32_t mode, uint32_t value);
// Time-based: compares with timed_out_ext. Count-based: true once the counter has advanced by at least
// the span's count since `start`, across the 32-bit wrap, and always when the start count is 0.
// `start` and `now` must be of the span's mode.
bool tspan_timed_out(const tspan &start, const tspan &span, const tspan &now);
