// Feeds a channel: an encoder or a list of segments on one side, the daemon on the other.
#include "lib/util.h"
#include "tools/feed/options.h"
#include "tools/feed/say.h"
#include "tools/feed/session.h"

#include <csignal>
#include <cstdio>
#include <sys/signalfd.h>
#include <unistd.h>

static constexpr int EXIT_FAILED = 1;
static constexpr int EXIT_USAGE = 2;
static constexpr int64_t TERMINAL_TICK_MS = 1000;
static constexpr int64_t PLAIN_TICK_MS = 60'000;

static int open_signals() {
    sigset_t set;
    sigemptyset(&set);
    for (int signo : {SIGTERM, SIGINT, SIGHUP, SIGCHLD})
        sigaddset(&set, signo);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    signal(SIGPIPE, SIG_IGN);
    return signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
}

static void take_signals(session *self, int fd) {
    signalfd_siginfo info;
    while (read(fd, &info, sizeof(info)) == static_cast<ssize_t>(sizeof(info))) {
        if (info.ssi_signo == SIGCHLD)
            session_on_child(self);
        else
            session_quit(self);
    }
}

static void show_state(const session &self, int64_t *next) {
    int64_t now = mono_now_ms();
    if (now < *next)
        return;
    bool is_first = *next == 0;
    *next = now + (say_has_state() ? TERMINAL_TICK_MS : PLAIN_TICK_MS);
    if (say_has_state())
        say_state(session_state_text(self));
    else if (!is_first && say_is_wanted(SAY_NOTE))
        say(SAY_NOTE, "%s", session_state_text(self).c_str());
}

static int run(session *self, int signal_fd) {
    int64_t next_state = 0;
    while (!session_is_over(*self)) {
        show_state(*self, &next_state);
        if (session_wait(self, signal_fd, static_cast<int>(next_state - mono_now_ms())))
            take_signals(self, signal_fd);
        session_on_time(self);
    }
    say_clear();
    return session_close(self);
}

int main(int argc, char **argv) {
    occupy_standard_descriptors();
    static feed_options opts;
    switch (options_read(argc, argv, &opts)) {
    case OPTIONS_DONE:
        return 0;
    case OPTIONS_WRONG:
        return EXIT_USAGE;
    case OPTIONS_FAILED:
        return EXIT_FAILED;
    case OPTIONS_RUN:
        break;
    }
    say_init(opts.channel.c_str(), opts.is_quiet ? SAY_ERROR : opts.is_verbose ? SAY_DETAIL : SAY_NOTE);
    int signal_fd = open_signals();
    static session self;
    if (signal_fd < 0 || !session_open(&self, &opts))
        return EXIT_FAILED;
    say(SAY_NOTE, "feeds %s/%s to the daemon at [%s]", opts.data_dir.c_str(), opts.channel.c_str(),
        opts.socket.c_str());
    return run(&self, signal_fd);
}
