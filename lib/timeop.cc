#include "lib/timeop.h"

#include "lib/check.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

static constexpr long NSEC_PER_SEC = 1'000'000'000;

static timeop_reporter g_reporter = nullptr;
static const timespec *g_loop_clock = nullptr;

void timeop_set_reporter(timeop_reporter fn) {
    g_reporter = fn;
}

void timeop_set_loop_clock(const timespec *now) {
    g_loop_clock = now;
}

static void report(const char *message) {
    if (g_reporter)
        g_reporter(message);
    else
        fputs(message, stderr);
}

void set_clk_now(timespec *ts, clockid_t clock) {
    if (clock_gettime(clock, ts) != 0) {
        perror("clock_gettime");
        abort();
    }
}

void set_real_now(timespec *ts) {
    set_clk_now(ts, CLOCK_REALTIME);
}

bool timed_out_as(const timespec &start, const timespec &span, bool real, const timespec *now) {
    timespec current;
    if (now) {
        current = *now;
    } else if (real) {
        set_real_now(&current);
    } else if (g_loop_clock) {
        current = *g_loop_clock;
    } else {
        set_clk_now(&current, CLOCK_MONOTONIC);
    }
    time_t sec = start.tv_sec + span.tv_sec;
    long nsec = start.tv_nsec + span.tv_nsec;
    if (nsec >= NSEC_PER_SEC) {
        nsec -= NSEC_PER_SEC;
        ++sec;
    }
    return current.tv_sec != sec ? current.tv_sec > sec : current.tv_nsec > nsec;
}

bool timed_out(const timespec &start, const timespec &span) {
    return timed_out_as(start, span, false, nullptr);
}

bool timed_out_ext(const timespec &start, const timespec &span, const timespec &now) {
    return timed_out_as(start, span, false, &now);
}

bool timed_out_real(const timespec &start, const timespec &span) {
    return timed_out_as(start, span, true, nullptr);
}

// The text of the last second asked for: a busy log asks for the same second again and again.
struct second_text {
    bool is_valid = false;
    bool is_gmt = false;
    time_t sec = 0;
    char date[48] = ""; // "YYYY-MM-DD HH:MM:SS"
    char zone[16] = "";
};

static const second_text *text_of_second(time_t sec, bool is_gmt) {
    static second_text cache;
    if (cache.is_valid && cache.sec == sec && cache.is_gmt == is_gmt)
        return &cache;
    cache.is_valid = false;
    tm p{};
    if (!(is_gmt ? gmtime_r(&sec, &p) : localtime_r(&sec, &p)))
        return nullptr;
    snprintf(cache.date, sizeof(cache.date), "%04d-%02d-%02d %02d:%02d:%02d", p.tm_year + 1900, p.tm_mon + 1,
             p.tm_mday, p.tm_hour, p.tm_min, p.tm_sec);
    get_timezone(sec, cache.zone, sizeof(cache.zone));
    cache.sec = sec;
    cache.is_gmt = is_gmt;
    cache.is_valid = true;
    return &cache;
}

// ".%06ld"
static size_t print_usec(long nsec, char (&out)[8]) {
    long usec = nsec / 1000;
    out[0] = '.';
    for (int i = 6; i > 0; --i, usec /= 10)
        out[i] = static_cast<char>('0' + usec % 10);
    out[7] = '\0';
    return 7;
}

static int print_date(const second_text &at, long nsec, uint32_t flags, char *buf, size_t size) {
    char usec[8] = "";
    const size_t date_len = strlen(at.date);
    const size_t usec_len = flags & TF_NO_USEC ? 0 : print_usec(nsec, usec);
    const size_t zone_len = strlen(at.zone);
    const size_t n = date_len + usec_len + zone_len;
    if (n >= size) {
        fprintf(stderr, "%s: timestamp buffer needs %d bytes, only %ld provided\n", "mk_timestr",
                static_cast<int>(n), static_cast<long>(size));
        return -1;
    }
    memcpy(buf, at.date, date_len);
    memcpy(buf + date_len, usec, usec_len);
    memcpy(buf + date_len + usec_len, at.zone, zone_len + 1);
    return static_cast<int>(n);
}

int mk_timestr(const timespec &ts, uint32_t flags, char *buf, size_t size) {
    if (flags & TF_RAW) {
        int n = snprintf(buf, size, "%ld.%06ld", static_cast<long>(ts.tv_sec), ts.tv_nsec / 1000);
        return n > 0 && static_cast<size_t>(n) < size ? n : -1;
    }
    // The zone database is behind a lock in the C library: a signal handler must not wait for itself.
    static volatile bool is_busy = false;
    if (is_busy)
        return TIMESTR_BUSY;
    is_busy = true;
    int n = -1;
    if (const second_text *at = text_of_second(ts.tv_sec, flags & TF_GMT))
        n = print_date(*at, ts.tv_nsec, flags, buf, size);
    else
        perror("gmtime_r/localtime_r");
    is_busy = false;
    return n;
}

int scan_log_time(const char *text, uint32_t flags, timespec *ts) {
    CHECK(text && ts);
    long usec = 0;
    int used = 0;
    if (flags & TF_RAW) {
        long sec = 0;
        if (sscanf(text, "%ld.%06ld %n", &sec, &usec, &used) < 2 || used == 0)
            return -1;
        *ts = {.tv_sec = sec, .tv_nsec = usec * 1000};
        return used;
    }
    tm p{};
    bool has_usec = !(flags & TF_NO_USEC);
    int used_date = 0;
    int fields = sscanf(text, "%04d-%02d-%02d %02d:%02d:%02d%n", &p.tm_year, &p.tm_mon, &p.tm_mday,
                        &p.tm_hour, &p.tm_min, &p.tm_sec, &used_date);
    if (fields < 6)
        return -1;
    if (has_usec && sscanf(text + used_date, ".%06ld %n", &usec, &used) < 1)
        return -1;
    if (!has_usec && text[used_date] == ' ')
        used = 1;
    if (used == 0)
        return -1;
    used += used_date;
    p.tm_year -= 1900;
    p.tm_mon -= 1;
    p.tm_isdst = -1;
    time_t sec = flags & TF_GMT ? timegm(&p) : mktime(&p);
    if (sec == -1) {
        char message[128];
        snprintf(message, sizeof(message), "%s: cannot make time from [%.64s]\n", __func__, text);
        report(message);
        return -1;
    }
    *ts = {.tv_sec = sec, .tv_nsec = usec * 1000};
    return used;
}

time_t get_endofday_utime(time_t t) {
    tm p{};
    if (!localtime_r(&t, &p)) {
        char message[64];
        snprintf(message, sizeof(message), "%s: localtime_r() FAILED\n", __func__);
        report(message);
        return -1;
    }
    p.tm_hour = 23;
    p.tm_min = 59;
    p.tm_sec = 59;
    p.tm_isdst = -1;
    return mktime(&p);
}

int mk_gmt_date(time_t t, char *buf, size_t size) {
    tm p{};
    if (!gmtime_r(&t, &p)) {
        perror("gmtime_r/localtime_r");
        return -1;
    }
    int n = snprintf(buf, size, "%04d-%02d-%02d", p.tm_year + 1900, p.tm_mon + 1, p.tm_mday);
    if (n < 0 || static_cast<size_t>(n) >= size) {
        char message[128];
        snprintf(message, sizeof(message), "%s: timestamp buffer needs %d bytes, only %ld provided\n",
                 __func__, n, static_cast<long>(size));
        report(message);
        return -1;
    }
    return 0;
}

const char *get_timezone(time_t t, char *buf, size_t size) {
    tm p{};
    if (localtime_r(&t, &p) && p.tm_zone)
        snprintf(buf, size, " %s", p.tm_zone);
    else
        snprintf(buf, size, "%s", "#ERR#");
    return buf;
}

void ms2timespec(int64_t ms, timespec *ts) {
    if (ms < 0)
        *ts = {.tv_sec = -1, .tv_nsec = 0};
    else
        *ts = {.tv_sec = ms / 1000, .tv_nsec = (ms % 1000) * 1'000'000};
}

long add_seconds(long a, long b) {
    long sum = 0;
    if (__builtin_add_overflow(a, b, &sum))
        return b > 0 ? LONG_MAX : LONG_MIN;
    return sum;
}

void cpy_timespec(const timespec *from, timespec *to) {
    *to = *from;
}

void calc_timespan(const timespec &a, const timespec &b, timespec *out) {
    out->tv_sec = b.tv_sec - a.tv_sec;
    out->tv_nsec = b.tv_nsec - a.tv_nsec;
    if (out->tv_nsec < 0) {
        out->tv_nsec += NSEC_PER_SEC;
        --out->tv_sec;
    }
}

int mk_timespan(long seconds, char *buf, size_t size) {
    char days[32] = "";
    if (seconds >= 86400)
        snprintf(days, sizeof(days), "%02ldd ", seconds / 86400);
    long rest = seconds % 86400;
    return snprintf(buf, size, "%s%02ldh:%02ldm:%02lds", days, rest / 3600, rest % 3600 / 60, rest % 60);
}

void set_tspan(tspan *span, uint32_t mode, uint32_t value) {
    CHECK(mode == TSPAN_TIME || mode == TSPAN_COUNT);
    span->mode = mode;
    if (mode == TSPAN_TIME)
        ms2timespec(value, &span->time);
    else
        span->count = value;
}

bool tspan_timed_out(const tspan &start, const tspan &span, const tspan &now) {
    CHECK(start.mode == span.mode && now.mode == span.mode);
    if (span.mode == TSPAN_TIME)
        return timed_out_ext(start.time, span.time, now.time);
    return start.count == 0 || now.count - start.count >= span.count;
}
