// The daemon's records: the application context, sources, items, tasks and requests. Nothing but data.
//
// Ownership: the context owns the source array, whose records never move; a source owns its items, tasks,
// event keys, carried-over text and socket. A task is named from outside its source only by source and
// index (`taskref`), since the task array may be re-allocated by the next task.
#pragma once

#include "common/appcfg.h"
#include "common/rui.h"
#include "lib/dlep.h"
#include "lib/gkh.h"
#include "lib/slab.h"
#include "lib/tag.h"
#include "lib/util.h"
#include "lib/xvdat.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <sys/types.h>
#include <type_traits>

// Record and state tags.
inline constexpr uint32_t PL_URQ = tag_num("URQ");  // a client connection
inline constexpr uint32_t PL_SRC = tag_num("SRC");  // a source
inline constexpr uint32_t PL_SEG = tag_num("SEG");  // a segment item
inline constexpr uint32_t PL_DIS = tag_num("DIS");  // a discontinuity item
inline constexpr uint32_t PL_LIV = tag_num("LIV");  // a live task
inline constexpr uint32_t PL_VOD = tag_num("VOD");  // a video-on-demand task
inline constexpr uint32_t PL_EVE = tag_num("EVE");  // an event task
inline constexpr uint32_t SLI_tag = tag_num("Sli"); // request kind, of the playlist listener
inline constexpr uint32_t YLI_tag = tag_num("Yli"); // request kind, of the source listener

inline constexpr char DISCONTINUITY[] = "DISCONTINUITY";
inline constexpr char BACKUP_MARK = '~'; // first character of a backup source's name

inline constexpr size_t MAX_SRC_NAME = 384; // with the terminating zero, as all sizes here
inline constexpr size_t MAX_ITEM_PATH = 64; // of a segment, relative to the data directory
inline constexpr size_t MAX_SRC_DIR = 64;   // a source's own data directory
inline constexpr size_t MAX_ITEM_PFX = 128;
inline constexpr size_t MAX_PL_PATH = 128; // playlist and lock files
inline constexpr size_t MAX_MANIFEST_PATH = 144;
inline constexpr size_t MAX_URQ_TXT = 256;
inline constexpr size_t MAX_CTAG_LEN = 32;
inline constexpr size_t MAX_PEER_TAG = 49;
inline constexpr uint32_t MAX_TSEQ = 999999;   // task numbers run 1..MAX_TSEQ
inline constexpr unsigned MAX_TARGET_SEC = 60; // least target durations that can be asked for

// --- configuration ---

struct mdrep_cfg {
    bool is_enabled;
    char url[128];    // where reports go, "udp://host:port"
    char lid_pfx[16]; // prefix of the report id
    size_t lid_min;   // range of the report number
    size_t lid_max;
    char src_base[128]; // base name in the report's path
    char mcast_ifc[16]; // interface for multicast; empty = the system's choice
};

struct plum_cfg {
    char config_path[128];
    log_cfg log;
    rt_cfg rt;
    rui_cfg rui;
    char data_dir[128]; // playlists of sources without a directory of their own
    int src_tmout_sec;  // idle seconds after which a source expires
    int urq_tmout_sec;  // waiting seconds after which a request ends
    int lk_tmout_sec;   // seconds after which an untouched task expires
    size_t max_sources;
    size_t max_plbk_sec;            // playback depth of a source, seconds
    size_t max_live_items;          // items in a live playlist
    char pl_item_pfx[MAX_ITEM_PFX]; // prefix of each media-segment URL
    bool has_gzip_pl;
    bool text_live_pl;
    size_t min_src_tasks; // room for tasks at a source's start
    size_t max_src_tasks;
    bool verify_item_filesize;
    bool use_sid_pl_dir;   // playlists in a directory named after the source
    bool refresh_pl_files; // rewrite playlists as segments arrive
    mdrep_cfg mdr;
    int64_t last_mtime;    // of the configuration file at the last successful load
    bool strict_hls;       // playlists as strict players want them
    int min_target_sec;    // least target duration of a strict playlist
    int keep_retired_sec;  // seconds that a retired segment's file stays
    mode_t lock_mode;      // permission bits of lock files
    char status_file[128]; // empty = none
    int status_sec;        // between two writings of it
    file_stamp stamp;      // of the configuration file when it was last looked at
    char start_dir[256];   // relative paths are below it; empty = the working directory
};

// --- sources and items ---

struct pl_item {
    dlep_elem le;      // tag (PL_SEG or PL_DIS) and links: prev = older, next = newer; note: see item_breaks
    size_t mseq;       // media sequence number
    time_t start_tm;   // Unix seconds
    off_t fsize;       // bytes
    int64_t ifrm1_pts; // of the first I-frame, the source's units
    float duration;    // seconds, as lines carry it
    char path[];       // of the segment file, relative to the data directory; empty for a discontinuity
};

// Kept in the note, beside the markers before the item: the stream ends here.
inline constexpr uint32_t ITEM_ENDS_LIST = 1u << 31;

// One parsed line of a source or manifest.
struct item_data {
    char itype[32]; // keyword
    char path[MAX_ITEM_PATH];
    long start_tm;  // Unix seconds
    long fsize;     // bytes
    float duration; // seconds
    int src_nid;    // the producer's id
    int64_t ifrm1_pts;
};

struct src_params {
    size_t max_plbk_sec;            // playback length kept, seconds
    char data_dir[MAX_SRC_DIR];     // empty = the configured one
    char pl_item_pfx[MAX_ITEM_PFX]; // empty = none
    long max_mitem_age;             // of a manifest item, seconds; -1 = no limit, 0 = max_plbk_sec
    unsigned target_sec;            // least target duration of strict playlists, 0 = the configured one
};

struct manifest_ctx {
    bool is_feeding; // items are being imported
    long last_tm;    // start times are compared with this one
    bool must_sort;  // a start time went backwards: insert in order
};

struct pl_stretches;
struct discard_node;

// Files that wait for their deletion, the next one first; owned by discard.
struct discard_queue {
    discard_node *first;
    discard_node *last;
};

// Why a line of a source was not taken.
enum line_refusal : size_t {
    REFUSED_MALFORMED,
    REFUSED_VALUE,   // a path or a duration
    REFUSED_STAMP,   // no newer than the one before
    REFUSED_SIZE,    // the file has another size
    REFUSED_MISSING, // ... or is not there
    REFUSED_OTHER,
    REFUSED_REASONS
};

// What has happened to a source since it was created; told in the status file.
struct src_counts {
    uint64_t accepted; // segments reported
    uint64_t imported; // segments of the manifest
    uint64_t refused[REFUSED_REASONS];
    uint64_t retired; // segments
    uint64_t deleted; // their files
    uint64_t take_overs;
};

struct pl_source {
    n32_tag tag; // PL_SRC
    char nametag[MAX_SRC_NAME];
    ssize_t idx;          // slot in g_ctx.sources
    int sockfd;           // -1 while suspended
    time_t last_item_tm;  // idle clock's seconds (`idle_clock`); 1 = expire at the next check
    ssize_t live_idx;     // shared live task, -1 = none
    ssize_t vod_idx;      // shared VOD task, -1 = none
    xvlst tasks;          // of pl_task
    skht_t ev_ht;         // event keys -> taskref (owned, malloc)
    dlep_t items;         // of pl_item, newest at the head
    slab_pool item_slabs; // their memory
    double total_sec;     // durations of the segment items
    src_params param;
    char *tail;        // owned, tail_len bytes: a partial line, or what followed the init line
    char *rcy_fpath;   // owned: the segment file to delete at the next retirement
    char *item_pfx;    // owned: prefix of item URLs; null = the configured one
    bool is_defunct;   // a backup whose stream was taken over
    pl_source *master; // ... by this one, which gets its lines
    long tmout_sec;    // idle limit; 0 = the configured one
    manifest_ctx manif;
    bool has_timer; // registered with the time-out registry
    bool is_hashed; // found by its name
    size_t tail_len;
    bool awaits_backup;      // a take-over failed for want of a descriptor and is tried again
    uint32_t breaks;         // discontinuity markers that were ever put into `items`
    size_t next_mseq;        // of the next segment
    const pl_item *seq_item; // the item that the sequence file names; null = another is to be named
    bool has_seq_failed;     // told that the sequence file cannot be written
    discard_queue discards;  // files to delete later
    pl_stretches *stretches; // owned by pl_stretch: kept compressed text; null = none
    unsigned target_sec;     // of strict playlists, it never sinks; 0 = no segment yet, and no minimum
    src_counts counts;
};
static_assert(std::is_trivially_copyable_v<pl_source>);

// --- tasks ---

// How far a stretch of items reaches from its first one: kept so that it is measured on, not again.
struct item_reach {
    const pl_item *first; // null = not measured
    pl_item *last;
    double sec; // durations behind `first` up to `last`
};

struct pl_task {
    n32_tag tag;   // PL_LIV, PL_VOD or PL_EVE
    uint32_t tseq; // number; with the tag it is the task's name
    pl_source *src;
    pl_item *ifirst;             // window: oldest item, null once a finished task's items went
    pl_item *ilast;              // ... newest item
    char fpath[MAX_PL_PATH];     // playlist; empty until written
    char lpath[MAX_PL_PATH + 8]; // lock file: the playlist's path and its suffix
    int lkfd;                    // its descriptor, open exactly while there is a playlist; -1 = none
    int lk_tmout_sec;            // seconds the lock file may stay untouched
    xvec utms;                   // of char *, owned: the task's keys in the source's ev_ht
    ssize_t idx;                 // slot in src->tasks
    ssize_t pprm_idx;            // slot in g_ctx.pprm_tasks, -1 = not listed for removal
    bool is_gzipped;
    bool must_sync_playlist; // the file is behind the window
    bool is_queued;          // ... and waits to be rewritten
    bool is_live;            // the window follows the newest item
    double max_pl_duration;  // of an event playlist, seconds
    time_t end_time;         // of an event, 0 = none
    long start_time;         // of an event
    long duration;           // of an event, seconds, 0 = open-ended
    bool is_eot;             // the end of the event is in the list: the task moves no more
    time_t last_io_time;     // wall-clock time of the client's last activity
    char *peer_tag;          // owned; null = shared by all clients
    item_reach reach;        // of an event whose end is in the list
    time_t step_idle_tm;     // the idle clock's seconds when the wall clock was set; 0 = touched since
    time_t step_touch;       // the lock file's modification time then
    bool keeps_files;        // goes with its first segment: its files are deleted as late as that one
    bool is_strict;          // written as strict players want it
    unsigned min_target_sec; // ... with this target duration at least
    long shift_sec;          // the time shift that an event was asked for by, 0 = by clock time
    double lead_sec;   // of a strict event: media before the clock time asked for, negative once it left
    double window_sec; // of a strict list: media in its window
};
static_assert(std::is_trivially_copyable_v<pl_task>);

struct taskref {
    pl_source *src;
    ssize_t idx;
};

// Key of a search for an event task that can be shared.
struct pl_tspec {
    n32_tag tag;
    const pl_item *ifirst;
    time_t end_time;
    bool is_strict; // then it must be of the same shift, or begin at the same time
    long shift_sec;
    long start_time;
};

// --- requests ---

struct pl_urq {
    rui_rq_header rq;       // tag PL_URQ
    timespec wait_start_tm; // the loop's time when it last began to wait
    n32_tag state;
    ssize_t pprm_idx;       // slot in the listener's pprm list
    n32_tag kind;           // SLI_tag or YLI_tag, from the listener
    char text[MAX_URQ_TXT]; // received so far
    size_t text_len;
    char tail[MAX_URQ_TXT]; // what followed the line, tail_len bytes
    char ctag[MAX_CTAG_LEN];
    char *peer_tag; // owned
    char *response; // owned: the line waiting to be sent
    size_t tail_len;
};

// --- the application context ---

// Kinds of playlists and of requests for them.
enum pl_kind : size_t { KIND_LIV, KIND_VOD, KIND_EVE, PL_KINDS };

inline constexpr int HTTP_CODES[] = {200, 400, 403,
                                     404, 503, 500}; // of answers; the last stands for any other
inline constexpr size_t HTTP_COUNT = sizeof(HTTP_CODES) / sizeof(HTTP_CODES[0]);
inline constexpr int64_t WRITE_BOUNDS_US[] = {100, 300, 1000, 3000, 10000, 30000, 100000, 1000000};
inline constexpr size_t WRITE_BUCKETS = sizeof(WRITE_BOUNDS_US) / sizeof(WRITE_BOUNDS_US[0]);

// Playlist files of one kind.
struct write_counts {
    uint64_t written;
    uint64_t failed;
    uint64_t bytes;
    uint64_t usec;                       // spent writing
    uint64_t by_usec[WRITE_BUCKETS + 1]; // written within each bound; the last: beyond
};

// What has happened since the start; told in the status file.
struct app_counts {
    write_counts writes[PL_KINDS];
    uint64_t requests[PL_KINDS][HTTP_COUNT];
    uint64_t unanswered;     // request lines
    uint64_t reports[2];     // sent, failed
    uint64_t passes;         // of the event loop
    int64_t longest_pass_us; // since the status was last written
};

struct mdr_ctx;
using mdr_t = mdr_ctx *;

// Where the check of all tasks goes on in the next pass.
struct sweep_ctx {
    bool is_under_way;
    bool is_after_step; // the wall clock was set before it began
    size_t src;         // slots in the source list and in that source's task list
    size_t task;
};

struct plum_ctx {
    bool is_ready;
    rui_ctx rui;
    xvlst sources;            // of pl_source, mapped: records never move
    skht_t src_ht;            // name -> pl_source
    xvlst pprm_tasks;         // of taskref: tasks waiting for removal
    uint32_t last_tseq;       // last task number handed out
    timespec last_task_check; // the loop's time
    timespec last_rq_check;
    mdr_t mdr;            // null = no reports
    int64_t wall_lead_ms; // of the wall clock before the loop's, at the last check of the tasks
    sweep_ctx sweep;
    app_counts counts;
};

inline constinit plum_ctx g_ctx{};
inline constinit plum_cfg g_cfg{};

// --- typed views ---

inline pl_item *newest_item(const pl_source *src) {
    return dlep_as<pl_item>(src->items->head);
}
inline pl_item *oldest_item(const pl_source *src) {
    return dlep_as<pl_item>(src->items->tail);
}
inline pl_item *newer_item(const pl_item *item) {
    return dlep_as<pl_item>(item->le.next);
}
inline pl_item *older_item(const pl_item *item) {
    return dlep_as<pl_item>(item->le.prev);
}
// The source of that name, or null.
inline pl_source *src_by_name(const char *nametag) {
    void *found = nullptr;
    return skht_get(g_ctx.src_ht, nametag, &found) == 0 ? static_cast<pl_source *>(found) : nullptr;
}
inline pl_kind kind_of(uint32_t tag) {
    return tag == PL_LIV ? KIND_LIV : tag == PL_VOD ? KIND_VOD : KIND_EVE;
}
// Where the source's files are: its own directory, or the configured one.
inline const char *src_data_dir(const pl_source *src) {
    return src->param.data_dir[0] ? src->param.data_dir : g_cfg.data_dir;
}
inline bool is_segment(const pl_item *item) {
    return item->le.tag.num == PL_SEG;
}
// Null when there is none.
inline pl_item *newest_segment(const pl_source *src) {
    pl_item *item = newest_item(src);
    while (item && !is_segment(item))
        item = older_item(item);
    return item;
}
inline bool follows_break(const pl_item *segment) {
    const pl_item *older = older_item(segment);
    return older && !is_segment(older);
}
// How many discontinuity markers of the source's life stand before the item, retired ones included; a marker
// does not count itself.
inline uint32_t item_breaks(const pl_item *item) {
    return item->le.note & ~ITEM_ENDS_LIST;
}
inline bool ends_list(const pl_item *item) {
    return item->le.note & ITEM_ENDS_LIST;
}
inline size_t item_size(const pl_item *item) {
    return offsetof(pl_item, path) + strlen(item->path) + 1;
}
// Target duration of a strict playlist.
inline unsigned strict_target(const pl_task *task) {
    return std::max({task->src->target_sec, task->min_target_sec, 1U});
}
// What players hold back from the end of a strict list; a segment of absurd length makes no list endless.
inline double hold_back_sec(const pl_task *task) {
    return 3.0 * std::min(strict_target(task), MAX_TARGET_SEC);
}
inline pl_task *src_task(const pl_source *src, ssize_t idx) {
    return xvlst_at<pl_task>(src->tasks, static_cast<size_t>(idx));
}
inline bool is_backup_name(const char *nametag) {
    return nametag[0] == BACKUP_MARK;
}
