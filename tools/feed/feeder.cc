#include "tools/feed/feeder.h"

#include "lib/strops.h"
#include "lib/syswrap.h"
#include "tools/feed/say.h"
#include "tools/feed/tsprobe.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

static constexpr char BREAK_LINE[] = "SEGMENT: DISCONTINUITY";
// A channel whose feeder has just gone may look occupied; after so many refusals somebody else feeds it.
static constexpr int MAX_REFUSALS = 4;
static constexpr int64_t LOCK_REST_MS = 30'000; // then the lock is left to him
// As long as the daemon lists a stand-in's segments, and as long again for what it keeps of them.
static constexpr long ASIDE_SEC = 2 * FEED_MIN_DEPTH;
static constexpr size_t ASIDE_SLACK = 4;

double wall_now() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

int64_t mono_now_ms() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000L + now.tv_nsec / 1'000'000;
}

void feeder_init(feeder *feed, const feed_options *opts) {
    feed->opts = opts;
    feed->store = {.data_dir = opts->data_dir, .channel = opts->channel, .name = opts->name};
    feed->mft.path = store_manifest(feed->store);
    feed->mft.depth_sec = opts->depth_sec;
    feed->link.socket_path = opts->socket;
    feed->clock.segment_sec = static_cast<double>(opts->segment_sec);
    feed->clock.has_input_stamps = opts->retain_pts;
    feed->clock.ago = static_cast<double>(opts->ago_sec);
}

bool feeder_is_on_air(const feeder &feed) {
    return mft_is_taken(feed.mft);
}

static bool is_lock_resting(const feeder &feed) {
    return mono_now_ms() < feed.lock_rest_until;
}

// --- segments that nobody will list ---

// Files of another segmenter are its own.
static void drop_file(const feeder &feed, const std::string &path) {
    if (feed.opts->mode != FEED_LIST)
        unlink(store_full(feed.store, path).c_str());
}

// The newest may have come to the channel's list already, when its stand-in was taken over.
static void drop_aside(feeder *feed) {
    if (!feed->aside.empty())
        feed->aside.pop_back();
    for (const std::string &path : feed->aside)
        drop_file(*feed, path);
    feed->aside.clear();
}

// A stand-in's segments retire, and the daemon deletes them, unless it is away.
static void put_aside(feeder *feed, const std::string &path, bool is_listed) {
    if (is_lock_resting(*feed))
        return; // whose list they come to is not known here
    if (!is_listed) {
        drop_file(*feed, path);
        return;
    }
    feed->aside.push_back(path);
    if (feed->aside.size() > static_cast<size_t>(ASIDE_SEC / feed->opts->segment_sec) + ASIDE_SLACK)
        feed->aside.pop_front();
}

// --- the lock ---

static void break_next(feeder *feed) {
    if (feed->held.empty())
        feed->must_break = true;
    else
        feed->held.front().is_break = true;
}

static bool take_air(feeder *feed) {
    if (feeder_is_on_air(*feed))
        return true;
    if (is_lock_resting(*feed) || !mft_take(&feed->mft, static_cast<time_t>(wall_now())))
        return false;
    say(SAY_NOTE, "is the channel's feeder");
    break_next(feed);
    drop_aside(feed);
    return true;
}

// --- the daemon ---

static void call_daemon(feeder *feed) {
    bool is_on_air = take_air(feed);
    link_connect(&feed->link, options_init_line(*feed->opts, !is_on_air), is_on_air ? feed->mft.path : "",
                 mono_now_ms());
}

static void send_entry(feeder *feed, const seg_entry &entry) {
    if (entry.is_break)
        link_send(&feed->link, BREAK_LINE);
    link_send(&feed->link, entry.line);
}

// Entries leave the manifest by their start times, a discontinuity's too.
static void note_entry(feeder *feed, const seg_entry &entry) {
    time_t now = static_cast<time_t>(wall_now());
    if (entry.is_break && mft_has_entries(feed->mft))
        mft_note(&feed->mft,
                 std::string(BREAK_LINE) + " " + std::to_string(entry.start_tm) + " 0.000000 0 0 0",
                 entry.start_tm, now);
    mft_note(&feed->mft, entry.line, entry.start_tm, now);
}

// What was pruned is in the list of a daemon that lived on, which sees to its file, and in nobody's else.
static void settle_gone(feeder *feed, bool is_unlisted) {
    const std::string top = feed->opts->channel + "/";
    for (const std::string &path : feed->mft.gone)
        if (is_unlisted && path.starts_with(top) && path.find('/', top.size()) == std::string::npos &&
            path.ends_with(".ts"))
            drop_file(*feed, path);
    feed->mft.gone.clear();
}

// Nothing older than the depth is worth sending.
static void trim(std::deque<seg_entry> *entries, long depth_sec) {
    while (!entries->empty() && entries->back().start_tm - entries->front().start_tm > depth_sec)
        entries->pop_front();
}

// Puts what is held where it belongs by now. While it is not known who feeds the channel, it stays.
static void settle(feeder *feed) {
    bool is_on_air = feeder_is_on_air(*feed);
    bool is_up = feed->link.state == LINK_UP;
    trim(&feed->held, feed->opts->depth_sec);
    if (feed->link.state == LINK_ASKING || (!is_up && feed->refusals > 0))
        return;
    for (; !feed->held.empty(); feed->held.pop_front()) {
        const seg_entry &entry = feed->held.front();
        if (is_on_air)
            note_entry(feed, entry);
        else
            put_aside(feed, entry.path, is_up);
        if (is_up)
            send_entry(feed, entry);
        else if (is_on_air)
            feed->missed.push_back(entry);
    }
    trim(&feed->missed, feed->opts->depth_sec);
    if (is_up || feed->link.is_told)
        settle_gone(feed, !is_up);
}

// What a daemon that did not import has missed, in its order.
static void send_missed(feeder *feed) {
    if (feeder_is_on_air(*feed) && !feed->link.has_imported)
        for (const seg_entry &entry : feed->missed)
            send_entry(feed, entry);
    feed->missed.clear();
}

static void on_accepted(feeder *feed) {
    bool is_on_air = feeder_is_on_air(*feed);
    say(SAY_NOTE, "connected to the daemon, process %d%s%s", feed->link.pid,
        is_on_air ? "" : ", as the stand-in",
        is_on_air && feed->link.has_imported ? "; it has the manifest" : "");
    feed->refusals = 0;
    settle_gone(feed, is_on_air && feed->link.has_imported);
    // The daemon has put a break behind what it imported, and the next import is to find it too.
    if (is_on_air && feed->link.has_imported)
        break_next(feed);
    send_missed(feed);
    settle(feed);
}

// Somebody else feeds the channel without the lock, so this one stands in; or the daemon has another reason,
// which its log tells. Names are tried in turn then.
static void on_refused(feeder *feed) {
    bool was_on_air = feeder_is_on_air(*feed);
    if (++feed->refusals == MAX_REFUSALS)
        say(SAY_ERROR, "the daemon does not take %s%s: it has a feeder already, or see the daemon's log",
            was_on_air ? "" : "~", feed->opts->channel.c_str());
    if (feed->refusals < MAX_REFUSALS)
        return;
    feed->lock_rest_until = was_on_air ? mono_now_ms() + LOCK_REST_MS : 0;
    mft_release(&feed->mft);
}

void feeder_on_link(feeder *feed, short revents) {
    switch (link_on_event(&feed->link, revents, mono_now_ms())) {
    case LINK_ACCEPTED:
        on_accepted(feed);
        break;
    case LINK_REFUSED:
        on_refused(feed);
        break;
    case LINK_LOST:
        say(SAY_NOTE, "the connection to the daemon is lost");
        if (!feeder_is_on_air(*feed))
            drop_aside(feed);
        break;
    case LINK_NO_NEWS:
        break;
    }
}

int feeder_wait_ms(const feeder &feed) {
    if (feed.link.state != LINK_WAITING)
        return -1;
    return static_cast<int>(std::max<int64_t>(0, feed.link.retry_at - mono_now_ms()));
}

void feeder_on_time(feeder *feed) {
    if (feeder_wait_ms(*feed) == 0)
        call_daemon(feed);
}

// --- segments ---

void feeder_run_begins(feeder *feed) {
    clock_restart(&feed->clock, wall_now());
}

void feeder_run_ends(feeder *feed) {
    settle(feed);
    link_close(&feed->link);
    mft_release(&feed->mft);
}

// The size and first time stamp of a file; false, told, when there is nothing to report. What the encoder
// could not write whole takes up room that is wanted.
static bool examine(const feeder &feed, const std::string &path, long *size, int64_t *pts) {
    bool is_own = feed.opts->mode != FEED_LIST;
    std::string full = store_full(feed.store, path);
    int as_owner = is_own ? O_NOATIME : 0; // the inode is not written for a look
    fd_guard file(open(full.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | as_owner));
    struct stat st;
    if (file.fd < 0 || fstat(file.fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        say(SAY_ERROR, "left out: no segment [%s]: %s", full.c_str(),
            file.fd < 0 ? strerror(errno) : "no file");
        return false;
    }
    *size = st.st_size;
    if (*size == 0 || (is_own && *size % static_cast<long>(TS_PACKET) != 0)) {
        say(SAY_ERROR, "left out: [%s] was not written whole, %ld bytes", full.c_str(), *size);
        drop_file(feed, path);
        return false;
    }
    *pts = ts_probe(file.fd);
    return true;
}

static bool is_path_fit(const std::string &path) {
    bool is_odd =
        std::any_of(path.begin(), path.end(), [](unsigned char c) { return c <= ' ' || c == 0x7f; });
    if (path.size() <= STORE_PATH_MAX && !is_odd && path.front() != '/' && !has_dotdot(path))
        return true;
    say(SAY_ERROR,
        "left out: the segment's path [%s] is not inside the data directory, has a blank, or more than 63 "
        "characters",
        path.c_str());
    return false;
}

static seg_entry make_entry(const feeder &feed, const std::string &path, const seg_time &at, long size) {
    char text[256];
    auto start_tm = static_cast<time_t>(std::llround(at.start_tm));
    snprintf(text, sizeof(text), "SEGMENT: %s %ld %.6f %ld %d %ld", path.c_str(), static_cast<long>(start_tm),
             at.duration, size, feed.opts->is_backup ? 2 : 1, static_cast<long>(at.pts));
    return {path, text, start_tm, at.why || feed.must_break};
}

static void tell_segment(const feeder &feed, const seg_entry &entry, const seg_time &at) {
    if (at.why && feed.segments > 0 && !feed.must_break)
        say(SAY_NOTE, "a break before %s: %s", entry.path.c_str(), at.why);
    if (say_is_wanted(SAY_DETAIL))
        say(SAY_DETAIL, "%s", entry.line.c_str());
}

bool feeder_on_row(feeder *feed, const seg_row &row) {
    std::string path = store_segment(feed->store, row.file);
    long size = 0;
    int64_t pts = TS_NONE;
    if (!is_path_fit(path) || !examine(*feed, path, &size, &pts)) {
        feed->must_break = true;
        return false;
    }
    seg_time at = clock_place(&feed->clock, row.start, row.end, pts, wall_now());
    seg_entry entry = make_entry(*feed, path, at, size);
    tell_segment(*feed, entry, at);
    feed->must_break = false;
    ++feed->segments;
    feed->last_size = size;
    feed->media_sec += at.duration;
    feed->held.push_back(std::move(entry));
    bool has_taken_over = !feeder_is_on_air(*feed) && feed->link.state != LINK_OFF && take_air(feed);
    if (has_taken_over)
        link_close(&feed->link);
    if (feed->link.state == LINK_OFF)
        call_daemon(feed);
    settle(feed);
    return true;
}

// --- the end ---

void feeder_flush(feeder *feed) {
    if (!feeder_is_on_air(*feed)) {
        drop_aside(feed);
        return;
    }
    for (const seg_entry &entry : feed->held)
        note_entry(feed, entry);
    feed->held.clear();
}

bool feeder_is_settled(const feeder &feed) {
    return feed.link.state != LINK_ASKING && link_is_drained(feed.link);
}
