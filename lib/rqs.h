// The event service: one process-wide instance that owns an epoll descriptor, calls the application back
// through a fixed table, serves "no-poll" records that are ready without polling, watches files through
// inotify, and keeps the loop's notion of the current time.
//
// It knows nothing of the application's records: the pointer registered with a descriptor is passed back
// with each of its events. One pass of the loop: wait; no-poll records; received events; post-processing;
// idle; post-processing. The signals of sigflag_set are let in only by the wait, so a handler never runs in
// the middle of a callback.
#pragma once

#include "lib/gkh.h"
#include "lib/tag.h"
#include "lib/xvdat.h"

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <sys/types.h>

// Error flags of an event.
enum : int { RQS_ERR = 1, RQS_HUP = 2 };
// Flags of on_file_modified, beside 0 for a plain modification.
enum : int {
    RQS_FILE_GONE = 4,
    RQS_FILE_MOVED = 0x10000,
    RQS_FILE_DELETED = 0x20000,
    RQS_FILE_ATTRIB = 0x40000
};
// rqs_mod
enum : int { RQS_READ = 1, RQS_WRITE = 2 };
// rqs_fd_count
enum : int { RQS_ALL_FDS = 0, RQS_POLL_FDS = 1, RQS_NOPOLL_FDS = 2 };

// A non-zero result counts as a failed event and ends the loop after the pass.
using rqs_event_fn = int (*)(long fd_word, int err, void *udata, void *aux);

// Any slot may be empty.
struct rqs_callbacks {
    void (*update_tmout)(timespec *tmout); // a negative field: wait without limit
    int (*on_idle)();
    rqs_event_fn read;
    rqs_event_fn write;
    rqs_event_fn error;
    int (*post_process)();
    rqs_event_fn on_file_modified;
    void (*time_out)();
    bool (*is_dormant)();
};

struct rqs_config {
    rqs_callbacks cb;
    int quit_on_zero_fds; // end the loop when nothing is watched
};

inline constexpr uint32_t INO_TAG = tag_num("ino");

// 0, or -1 or the map's error (logged); copies the configuration. Null is an assertion failure.
int rqs_init(const rqs_config *config);
// Safe on a service that was never started.
void rqs_destroy();
// Runs until told to stop: the result code that ended it, else the number of failed events of the last
// pass; 0 after a quit signal.
int rqs_event_loop();

// Registrations are level-triggered; a null `udata` makes the event carry the descriptor number. The
// results are epoll's (failures logged).
int rqs_add_reader(int fd, void *udata);
int rqs_add_writer(int fd, void *udata);
int rqs_mod_reader(int fd, void *udata);
int rqs_mod(int fd, void *udata, int flags); // flags 0: nothing but hang-ups
// 0 when the service is closed. The two further arguments are accepted and ignored.
int rqs_rm_fd(int fd, int unused1 = 0, int unused2 = 0);

// Adds a record that is served every pass. Its slot is stored through `index`, which must stay valid until
// the record is removed and then gets -1. 0.
int rqs_add_nopoll_reader(int fd, ssize_t *index, void *udata);
int rqs_add_nopoll_writer(int fd, ssize_t *index, void *udata);
void rqs_rm_nopoll(ssize_t slot);   // at once
void rqs_pprm_nopoll(ssize_t slot); // at the next purge

// Watches a file for modification, attribute changes, deletion and move; the watch descriptor or -1 (logged).
int rqs_add_file_watch(void *udata, const char *path);
int rqs_rm_file_watch(int wd);

// The loop's current time, monotonic.
timespec rqs_now();
const timespec *rqs_now_ref();
void rqs_set_now(timespec *ts);
size_t rqs_fd_count(int which);
// The wait's time-out in milliseconds, -1 = without limit.
int rqs_tmout_ms(const timespec &tmout);
