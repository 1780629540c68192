// The listener layer: opens the listening sockets, accepts connections in bursts, asks a per-type callback
// to turn each accepted socket into a request record, keeps those records on a per-listener queue and
// registers their sockets with the event service. Finished requests are removed in one deferred pass per
// loop turn ("pprm"), never while their handler is on the stack. What a request says is not its business.
#pragma once

#include "lib/dlep.h"
#include "lib/netops.h"
#include "lib/tag.h"
#include "lib/xvdat.h"

#include <cstddef>

enum rui_type : int { RUI_USER = 0, RUI_ADMIN = 1, RUI_CUSTOM = 2, RUI_MAX = 3 };

inline constexpr size_t MAX_LISTENERS = 4;       // per type
inline constexpr size_t RUI_MAX_REQUESTS = 1000; // queued per listener
inline constexpr int RUI_LOW_WMARK = 32;         // bytes before an IP connection becomes readable
inline constexpr int RUI_TCP_NODELAY = 1;        // flag of rui_accept
inline constexpr size_t MAX_RQNUM = 100000;      // track numbers run 1..MAX_RQNUM

inline constexpr uint32_t RSC_TAG = tag_num("Rsc"); // a listening socket
inline constexpr uint32_t RIH_TAG = tag_num("Rih"); // reserved

struct rui_listener_cfg {
    bool is_valid;         // slot in use; the first unused slot ends the list
    char alias[32];        // name in the logs
    size_t index;          // 1-based position
    ifc_info *ifc;         // interface to bind to, owned (malloc); null = any address
    char port[6];          // TCP and UDP
    int pref_af;           // family of an any-address TCP listener
    char domain_path[104]; // path of a UNIX-domain socket; non-empty selects one
    int proto;             // 6 = TCP, 17 = UDP
    n32_tag kind;          // copied into every request
};

struct rui_cfg {
    rui_listener_cfg user[MAX_LISTENERS];
    rui_listener_cfg admin[MAX_LISTENERS];
    rui_listener_cfg custom[MAX_LISTENERS];
    size_t max_accept; // connections accepted per readiness event
    int user_request_tmout;
    int admin_request_tmout;
    int custom_request_tmout;
};

struct rui_socket_ctx;

// The head of every request record.
struct rui_rq_header {
    dlep_elem le;        // tag and queue links
    rui_socket_ctx *srv; // owning listener
    int fd;              // -1 once closed
    n64_tag trk_tag;     // track number: a letter and up to five digits
};

struct rui_socket_cb {
    n32_tag tag; // names the request family
    // A record for an accepted socket, which is non-blocking, or null.
    rui_rq_header *(*new_rq)(int fd, rui_socket_ctx *srv, void *data);
    void (*rm_rq)(rui_rq_header *rq);
    // True when the request has timed out and was handed to deferred removal.
    bool (*time_out)(rui_rq_header *rq, long tmout_ms);
    // The peer had written already when its connection was taken: what its first event would lead to. May be
    // null; the event comes all the same while there is something to read.
    void (*read)(rui_rq_header *rq);
};

// A growing set of descriptor numbers.
struct fd_bits {
    xvec words;
};

struct rui_socket_ctx {
    n32_tag tag;     // RSC_TAG once set up, 0 when unused or destroyed
    int sockfd;      // listening socket, -1 while stopped
    fd_bits accset;  // sockets of queued requests
    dlep_t requests; // queued request records, oldest at the tail
    xvlst pprm;      // of rui_rq_header *: requests waiting for deferred removal
    bool deferred;   // stopped by rui_stop_listener
    size_t rqcount;  // counter of track numbers
    ssize_t nblk_count;
    rui_listener_cfg *lc; // not owned
    n32_tag rqtag;        // request family
    const rui_socket_cb *cb;
    int type;     // of rui_type, also of an unused slot
    fd_bits *fds; // the context's set for this type, not owned; null outside of a context
};

struct rui_ctx {
    rui_socket_ctx user[MAX_LISTENERS];
    rui_socket_ctx admin[MAX_LISTENERS];
    rui_socket_ctx custom[MAX_LISTENERS];
    fd_bits user_fds; // open listening sockets by type, for whoever watches them from outside
    fd_bits admin_fds;
    fd_bits custom_fds;
};

// Sets a type's callbacks; they must be set before listeners of that type are set up.
void rui_set_cb(int type, const rui_socket_cb &cb);

// Set up the listeners of the configuration; 0 or the first error (logged). `cfg` must outlive the context,
// which stays where it is.
int rui_ctx_init(rui_cfg *cfg, rui_ctx *ctx);
int rui_setup_listeners(int type, rui_listener_cfg *lc, rui_socket_ctx *srv);

// Open the sockets and register them with the event service; 0 or -1 (logged).
int rui_ctx_start(rui_ctx *ctx);
int rui_enable_listeners(rui_socket_ctx *srv);
int rui_start_listener(rui_listener_cfg *cfg, rui_socket_ctx *srv);
// Closes the socket; queued requests are kept.
void rui_stop_listener(rui_socket_ctx *srv);
// Stops every listener of a type; with `destroy` frees their requests too.
void stop_listeners(rui_socket_ctx *srv, bool destroy);
void rui_ctx_destroy(rui_ctx *ctx);

// Back-pressure: below the limit; below three quarters of it.
bool rui_can_listen(const rui_socket_ctx *srv, size_t max_req);
bool rui_should_listen(const rui_socket_ctx *srv, size_t max_req);

// Accepts at most `max_accept` pending connections; `data` goes to new_rq. 0, or -1 when accepting failed. A
// connection for which no descriptor is left is accepted and closed at once.
int rui_accept(rui_socket_ctx *srv, size_t max_accept, int flags, void *data);
// Queues one accepted socket; 0, EBUSY (16) when the queue is full, or another error: the caller closes it.
int rui_add_request(int fd, rui_socket_ctx *srv, void *data);
// Removes a request now.
void rui_rm_request(rui_rq_header *rq);

// A track tag from the listener's counter, which restarts beyond `max`.
void rui_mk_trknum(size_t *count, n64_tag *tag, char pfx, size_t max);

// Remove what is listed in `pprm`.
void rui_pprm_all(rui_ctx *ctx);
// Ask every queued request whether it has timed out.
void rui_tmout_all(rui_ctx *ctx, long tmout_ms);

// An error on a listening socket is unrecoverable: logs it in the caller's name and aborts.
[[noreturn]] void rui_crash_on_error(rui_socket_ctx *srv, bool is_hup,
                                     const char *caller = "rui_crash_on_error");
