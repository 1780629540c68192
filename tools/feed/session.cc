#include "tools/feed/session.h"

#include "tools/feed/say.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

static constexpr int64_t MIN_PAUSE_MS = 100;
static constexpr int64_t MAX_PAUSE_MS = 5000;
static constexpr int64_t MAX_INPUT_WAIT_MS = 60'000; // for an encoder to begin
static constexpr int64_t INPUT_LOOK_MS = 1000;       // between two looks whether it has
static constexpr int64_t KILL_MS = 10'000;           // from the request to end until the end
static constexpr int64_t HANG_KILL_MS = 2000;        // the same for one that hangs
static constexpr int64_t SETTLE_MS = 2000;
static constexpr int SETTLE_STEP_MS = 10;
static constexpr double MIN_LAST_SEC = 1.0; // of a segment that was cut by the end; the daemon minds less

static bool is_list(const session &self) {
    return self.feed.opts->mode == FEED_LIST;
}

static int64_t hang_ms(const session &self) {
    return 3 * 1000 * self.feed.opts->segment_sec;
}

// --- runs ---

static std::string one_line(const std::vector<std::string> &words) {
    std::string line;
    for (const std::string &word : words)
        line += (line.empty() ? "" : " ") + word;
    return line;
}

static void pause_run(session *self) {
    self->pause_ms = std::clamp(self->pause_ms * 2, MIN_PAUSE_MS, MAX_PAUSE_MS);
    self->until = mono_now_ms() + self->pause_ms;
    self->phase = PHASE_PAUSE;
}

static void start_run(session *self) {
    const seg_store &store = self->feed.store;
    if (!store_open_dir(store)) {
        pause_run(self);
        return;
    }
    // The daemon knows what this feeder has made, also when somebody has deleted it.
    self->first_number = std::max(self->first_number, store_next_number(store));
    std::vector<std::string> command = enc_command(self->setup, store_template(store), self->first_number);
    if (say_is_wanted(SAY_DETAIL))
        say(SAY_DETAIL, "%s", one_line(command).c_str());
    feeder_run_begins(&self->feed);
    if (!enc_start(&self->enc, command)) {
        pause_run(self);
        return;
    }
    self->phase = PHASE_RUN;
    self->first_row_at = self->last_row_at = 0;
    self->is_hanging = false;
    self->writes_since = self->kill_at = 0;
    self->run_at = mono_now_ms();
    self->hang_at = self->run_at + INPUT_LOOK_MS;
}

bool session_open(session *self, const feed_options *opts) {
    feeder_init(&self->feed, opts);
    self->began_at = mono_now_ms();
    if (!store_open_dir(self->feed.store))
        return false;
    if (is_list(*self)) {
        feeder_run_begins(&self->feed);
        self->phase = PHASE_RUN;
        return true;
    }
    self->setup = {.program = enc_find(opts->program),
                   .args = opts->encoder_args,
                   .segment_sec = static_cast<double>(opts->segment_sec),
                   .retain_pts = opts->retain_pts};
    if (self->setup.program.empty()) {
        say(SAY_ERROR, "there is no program [%s]; on Debian: apt install ffmpeg", opts->program.c_str());
        return false;
    }
    if (!store_take_name(&self->feed.store))
        return false;
    start_run(self);
    return true;
}

// The files behind the last reported one are no segments.
static void run_is_over(session *self) {
    self->phase = PHASE_SETTLE;
    self->until = mono_now_ms() + SETTLE_MS;
    if (is_list(*self))
        return;
    store_drop_from(self->feed.store, self->first_number);
    if (self->is_quitting)
        return;
    say(SAY_ERROR, "the encoder %s, status %d", self->is_hanging ? "was ended" : "has ended",
        self->enc.status);
    if (self->feed.opts->is_once)
        self->status = self->enc.status;
}

static void run_is_settled(session *self) {
    bool is_last = self->is_quitting || is_list(*self) || self->feed.opts->is_once;
    if (is_last)
        feeder_flush(&self->feed);
    feeder_run_ends(&self->feed);
    if (is_last)
        self->phase = PHASE_END;
    else
        pause_run(self);
}

// --- what comes in ---

// A segment that was cut short by the end is told when it is long enough to be one.
static bool is_crumb(const session &self, const seg_row &row) {
    return self.is_quitting && row.end - row.start < MIN_LAST_SEC;
}

static void take_row(session *self, const std::string &line) {
    seg_row row;
    if (!row_parse(line, &row)) {
        if (line.find_first_not_of(" \t\r") != std::string::npos)
            say(SAY_ERROR, "no \"file,start,end\": [%s]", line.c_str());
        return;
    }
    if (is_crumb(*self, row))
        return;
    int64_t now = mono_now_ms();
    if (!feeder_on_row(&self->feed, row))
        return;
    if (self->first_row_at == 0) {
        self->first_row_at = now;
        self->first_media = self->feed.media_sec;
    }
    self->last_row_at = now;
    self->pause_ms = 0;
    self->writes_since = now;
    self->hang_at = now + hang_ms(*self);
    if (long number = store_number_of(self->feed.store, row.file); number >= self->first_number)
        self->first_number = number + 1;
}

static void take_rows(session *self, line_reader *rows) {
    for (std::string line; lines_take(rows, &line);)
        take_row(self, line);
}

static void take_words(session *self) {
    for (std::string line; lines_take(&self->enc.words, &line);)
        if (!line.empty())
            say(SAY_ERROR, "ffmpeg: %s", line.c_str());
}

static void read_end(line_reader *reader, int *fd) {
    if (lines_read(reader, *fd) == READ_MORE)
        return;
    close(*fd);
    *fd = -1;
}

static void on_stdin(session *self) {
    read_state state = lines_read(&self->rows, STDIN_FILENO);
    take_rows(self, &self->rows);
    if (state == READ_END)
        run_is_over(self);
}

// --- time ---

// What it has of a segment by then is finished when it can be.
static void end_encoder(session *self, int64_t within_ms) {
    enc_signal(self->enc, SIGTERM);
    self->kill_at = mono_now_ms() + within_ms;
}

// An encoder that has not begun to write may be waiting for its input to call.
static bool is_waiting_for_input(session *self, int64_t now) {
    bool has_begun = self->last_row_at != 0 || store_has_number(self->feed.store, self->first_number);
    if (has_begun && self->writes_since == 0) {
        self->writes_since = now;
        self->hang_at = now + hang_ms(*self);
        return true;
    }
    if (has_begun || now - self->run_at >= MAX_INPUT_WAIT_MS)
        return false;
    self->hang_at = now + INPUT_LOOK_MS;
    return true;
}

static void check_encoder(session *self, int64_t now) {
    bool is_late = self->kill_at == 0 && now >= self->hang_at;
    if (is_late && !is_waiting_for_input(self, now)) {
        if (self->writes_since != 0)
            say(SAY_ERROR, "the encoder has finished no segment in %ld s", hang_ms(*self) / 1000);
        else
            say(SAY_ERROR, "the encoder has had nothing to write for %ld s", MAX_INPUT_WAIT_MS / 1000);
        self->is_hanging = true;
        end_encoder(self, HANG_KILL_MS);
    }
    if (self->kill_at != 0 && now >= self->kill_at) {
        enc_signal(self->enc, SIGKILL);
        self->kill_at = now + KILL_MS;
    }
    if (enc_is_over(self->enc))
        run_is_over(self);
}

void session_on_time(session *self) {
    int64_t now = mono_now_ms();
    feeder_on_time(&self->feed);
    if (self->phase == PHASE_RUN && !is_list(*self))
        check_encoder(self, now);
    if (self->phase == PHASE_SETTLE && (feeder_is_settled(self->feed) || now >= self->until))
        run_is_settled(self);
    if (self->phase == PHASE_PAUSE && self->is_quitting)
        self->phase = PHASE_END;
    if (self->phase == PHASE_PAUSE && now >= self->until)
        start_run(self);
}

static int wait_ms(const session &self, int max_wait_ms) {
    int64_t now = mono_now_ms();
    int64_t wait = max_wait_ms;
    if (int link = feeder_wait_ms(self.feed); link >= 0)
        wait = std::min<int64_t>(wait, link);
    if (self.phase == PHASE_SETTLE)
        wait = std::min<int64_t>(wait, SETTLE_STEP_MS);
    else if (self.phase == PHASE_PAUSE)
        wait = std::min(wait, self.until - now);
    else if (self.phase == PHASE_RUN && !is_list(self))
        wait = std::min(wait, (self.kill_at ? self.kill_at : self.hang_at) - now);
    return static_cast<int>(std::max<int64_t>(wait, 0));
}

// --- waiting ---

bool session_wait(session *self, int signal_fd, int max_wait_ms) {
    enum { SIGNALS, ROWS, WORDS, LINK, COUNT };
    bool is_reading_list = is_list(*self) && self->phase == PHASE_RUN;
    pollfd fds[COUNT] = {{signal_fd, POLLIN, 0},
                         {is_reading_list ? STDIN_FILENO : self->enc.rows_fd, POLLIN, 0},
                         {self->enc.words_fd, POLLIN, 0},
                         {self->feed.link.fd, link_events(self->feed.link), 0}};
    if (poll(fds, COUNT, wait_ms(*self, max_wait_ms)) < 0)
        for (pollfd &one : fds)
            one.revents = 0;
    if (fds[LINK].revents)
        feeder_on_link(&self->feed, fds[LINK].revents);
    if (fds[WORDS].revents) {
        read_end(&self->enc.words, &self->enc.words_fd);
        take_words(self);
    }
    if (fds[ROWS].revents && is_reading_list) {
        on_stdin(self);
    } else if (fds[ROWS].revents) {
        read_end(&self->enc.rows, &self->enc.rows_fd);
        take_rows(self, &self->enc.rows);
    }
    return fds[SIGNALS].revents != 0;
}

void session_quit(session *self) {
    bool is_impatient = self->is_quitting;
    self->is_quitting = true;
    if (is_list(*self) && self->phase == PHASE_RUN)
        run_is_over(self);
    if (is_impatient)
        self->until = self->kill_at = mono_now_ms();
    else
        end_encoder(self, KILL_MS);
}

void session_on_child(session *self) {
    enc_reap(&self->enc);
}

bool session_is_over(const session &self) {
    return self.phase == PHASE_END;
}

static double seconds_of(const timeval &user, const timeval &system) {
    return static_cast<double>(user.tv_sec + system.tv_sec) +
           static_cast<double>(user.tv_usec + system.tv_usec) / 1e6;
}

int session_close(session *self) {
    rusage own{};
    rusage children{};
    getrusage(RUSAGE_SELF, &own);
    getrusage(RUSAGE_CHILDREN, &children);
    say(SAY_NOTE, "%ld segments, %.3f s of processor time here, %.3f s in the encoder", self->feed.segments,
        seconds_of(own.ru_utime, own.ru_stime), seconds_of(children.ru_utime, children.ru_stime));
    return self->status;
}

// --- the state ---

static const char *link_word(const session &self) {
    if (self.phase == PHASE_PAUSE)
        return "waits for the encoder";
    bool is_on_air = feeder_is_on_air(self.feed);
    switch (self.feed.link.state) {
    case LINK_UP:
        return is_on_air ? "on air" : "stands in";
    case LINK_OFF:
        return "waits for a segment";
    default:
        return "waits for the daemon";
    }
}

std::string session_state_text(const session &self) {
    int64_t sec = (mono_now_ms() - self.began_at) / 1000;
    double media = self.feed.media_sec - self.first_media;
    double took = static_cast<double>(self.last_row_at - self.first_row_at) / 1000;
    char speed[32] = "";
    if (took > 0)
        snprintf(speed, sizeof(speed), ", %.2f x real time", media / took);
    char text[256];
    snprintf(text, sizeof(text), "%s, %02ld:%02ld:%02ld, %ld segments, last %.1f MB%s", link_word(self),
             sec / 3600, sec / 60 % 60, sec % 60, self.feed.segments,
             static_cast<double>(self.feed.last_size) / 1e6, speed);
    return text;
}
