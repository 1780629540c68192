#include "tools/feed/manifest.h"

#include "lib/strops.h"
#include "lib/syswrap.h"
#include "lib/util.h"
#include "tools/feed/say.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

static constexpr time_t KEEP_SEC = 10;
// Entries stay longer than they are played: a restarted daemon finds the files that another had still to
// delete.
static constexpr time_t LINGER_SEC = 120;
static constexpr size_t MAX_LINE = 254;

struct entry {
    long number;
    std::string_view path;
    time_t start_tm;
};

static bool parse_entry(std::string_view line, entry *out) {
    line_scan scan{.rest = line};
    int64_t number = 0;
    int64_t start_tm = 0;
    if (line.size() > MAX_LINE || !scan_long(&scan, &number) || !scan.rest.starts_with(':'))
        return false;
    scan.rest.remove_prefix(1);
    bool is_segment = scan_word(&scan) == "SEGMENT:";
    out->path = scan_word(&scan);
    bool has_start = scan_long(&scan, &start_tm);
    out->number = number;
    out->start_tm = start_tm;
    return is_segment && has_start;
}

// The lines of a file; one without a line feed at its end was not written whole and is left out.
static bool next_line(FILE *fp, char (&buf)[MAX_LINE + 2], std::string_view *line) {
    while (fgets(buf, sizeof(buf), fp)) {
        *line = buf;
        if (line->ends_with('\n')) {
            line->remove_suffix(1);
            return true;
        }
    }
    return false;
}

void mft_each_path(const std::string &path, void (*fn)(std::string_view path, void *arg), void *arg) {
    FILE *fp = fopen_regular(path.c_str());
    if (!fp)
        return;
    char buf[MAX_LINE + 2];
    std::string_view line;
    entry one;
    while (next_line(fp, buf, &line))
        if (parse_entry(line, &one))
            fn(one.path, arg);
    fclose(fp);
}

static void tell_failure(manifest *mft, const char *what, int err) {
    if (!mft->is_failing)
        say(SAY_ERROR, "cannot %s the manifest [%s]: %s; its lines are kept until it can be written", what,
            mft->path.c_str(), strerror(err));
    mft->is_failing = true;
}

// --- writing anew ---

// What is kept of the manifest, and its counters on the way. Entries start behind the limit, and not with a
// discontinuity. False when there is more than can be read.
static bool kept_text(manifest *mft, time_t limit, std::string *text) {
    mft->oldest = 0;
    std::vector<std::pair<time_t, std::string>> gone;
    FILE *fp = fopen_regular(mft->path.c_str());
    if (!fp)
        return errno == ENOENT;
    char buf[MAX_LINE + 2];
    std::string_view line;
    entry one;
    while (next_line(fp, buf, &line)) {
        if (!parse_entry(line, &one))
            continue;
        mft->number = std::max(mft->number, one.number);
        bool is_marker = one.path == "DISCONTINUITY";
        if (one.start_tm < limit && !is_marker)
            gone.emplace_back(one.start_tm, one.path);
        if (one.start_tm < limit || (mft->oldest == 0 && is_marker))
            continue;
        if (mft->oldest == 0)
            mft->oldest = one.start_tm;
        text->append(line) += '\n';
    }
    // What grew too old meanwhile lies right before the rest. Where there is none, or a gap, a clock may be
    // wrong.
    for (auto &[start_tm, path] : gone)
        if (mft->oldest != 0 && mft->oldest - start_tm <= mft->depth_sec)
            mft->gone.push_back(std::move(path));
    bool is_whole = !ferror(fp);
    fclose(fp);
    return is_whole;
}

static bool write_all(int fd, std::string_view text) {
    while (!text.empty()) {
        ssize_t n = write(fd, text.data(), text.size());
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        text.remove_prefix(static_cast<size_t>(n));
    }
    return true;
}

// The new file is locked before it has the name: nobody else can get in between.
static bool rewrite(manifest *mft, time_t now) {
    std::string text;
    if (!kept_text(mft, now - mft->depth_sec - LINGER_SEC, &text)) {
        tell_failure(mft, "read", errno);
        return false;
    }
    std::string fresh = mft->path + ".new";
    fd_guard out(open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644));
    if (out.fd < 0 || flock(out.fd, LOCK_EX | LOCK_NB) != 0 || !write_all(out.fd, text) ||
        fdatasync(out.fd) != 0 || rename(fresh.c_str(), mft->path.c_str()) != 0) {
        tell_failure(mft, "rewrite", errno);
        if (out.fd >= 0)
            unlink(fresh.c_str());
        return false;
    }
    if (mft->fd >= 0)
        close(mft->fd);
    mft->fd = out.release();
    return true;
}

// --- the lock ---

// The file may have been replaced by its keeper while the lock was taken on the old one.
static bool is_current(const manifest &mft) {
    struct stat mine, named;
    return fstat(mft.fd, &mine) == 0 && stat(mft.path.c_str(), &named) == 0 && mine.st_ino == named.st_ino &&
           mine.st_dev == named.st_dev;
}

bool mft_take(manifest *mft, time_t now) {
    if (mft->fd >= 0)
        return true;
    mft->fd = open(mft->path.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (mft->fd < 0) {
        tell_failure(mft, "open", errno);
        return false;
    }
    if (flock(mft->fd, LOCK_EX | LOCK_NB) != 0 || !is_current(*mft)) {
        mft_release(mft);
        return false;
    }
    mft->number = 0;
    rewrite(mft, now);
    return true;
}

bool mft_is_taken(const manifest &mft) {
    return mft.fd >= 0;
}

void mft_release(manifest *mft) {
    if (mft->fd >= 0)
        close(mft->fd);
    mft->fd = -1;
    mft->unwritten.clear();
}

bool mft_has_entries(const manifest &mft) {
    return mft.oldest != 0;
}

// --- lines ---

// A file that was deleted under the lock is begun anew.
static bool is_deleted(const manifest &mft) {
    struct stat st;
    return fstat(mft.fd, &st) == 0 && st.st_nlink == 0;
}

// A part of a line is taken back: the file ends with a whole one at any time.
static bool append(manifest *mft) {
    ssize_t n = write(mft->fd, mft->unwritten.data(), mft->unwritten.size());
    if (n == static_cast<ssize_t>(mft->unwritten.size()))
        return true;
    int err = n < 0 ? errno : ENOSPC;
    struct stat st;
    if (n > 0 && (fstat(mft->fd, &st) != 0 || ftruncate(mft->fd, st.st_size - n) != 0))
        err = errno;
    tell_failure(mft, "write", err);
    return false;
}

// Now and then the file is looked after: too old entries go, and it is made again when somebody has deleted
// it.
static void keep_up(manifest *mft, time_t now) {
    if (std::abs(now - mft->kept_at) < KEEP_SEC)
        return;
    mft->kept_at = now;
    if (is_deleted(*mft) || now - mft->oldest > mft->depth_sec + mft->depth_sec / 10 + LINGER_SEC)
        rewrite(mft, now);
}

void mft_note(manifest *mft, std::string_view line, time_t start_tm, time_t now) {
    mft->unwritten += std::to_string(++mft->number) + ": ";
    mft->unwritten.append(line) += '\n';
    keep_up(mft, now);
    if (mft->oldest == 0)
        mft->oldest = start_tm;
    if (!append(mft))
        return;
    mft->unwritten.clear();
    if (mft->is_failing)
        say(SAY_NOTE, "the manifest is written again");
    mft->is_failing = false;
}
