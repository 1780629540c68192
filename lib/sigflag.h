// The process-wide signal flags: set only by the signal handlers (util), read by the event loop, the
// descriptor loops and the idle step, which clears all but the quit flags.
#pragma once

#include <csignal>

inline volatile sig_atomic_t g_quit = 0;    // a quit signal came; never cleared
inline volatile sig_atomic_t g_goodbye = 0; // ... and it was SIGTERM or SIGINT
inline volatile sig_atomic_t g_hup = 0;     // reload the configuration
inline volatile sig_atomic_t g_usr1 = 0;    // rotate the log
inline volatile sig_atomic_t g_tdbg = 0;    // toggle debug logging

// 1 while a signal handler runs: the log then keeps off syslog and rotation.
inline volatile sig_atomic_t g_sigctx = 0;

// True when a flag waits for the idle step or the loop's end, so that a wait must not sleep.
inline bool sigflag_pending() {
    return g_quit || g_hup || g_usr1 || g_tdbg;
}

// The signals behind the flags. They are shut out from before their handlers are installed until the process
// ends, and let in by the event loop's wait alone: a handler never runs in the middle of a log record, and no
// signal falls between a look at the flags and the wait.
inline constexpr int SIGFLAG_SIGNALS[] = {SIGTERM, SIGINT, SIGQUIT, SIGHUP, SIGUSR1, SIGUSR2};

inline sigset_t sigflag_set() {
    sigset_t set;
    sigemptyset(&set);
    for (int signo : SIGFLAG_SIGNALS)
        sigaddset(&set, signo);
    return set;
}

// `before`, if given, gets the mask that was in force.
inline void sigflag_shut_out(sigset_t *before) {
    const sigset_t set = sigflag_set();
    sigprocmask(SIG_BLOCK, &set, before);
}
