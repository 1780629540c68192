#include "common/rui.h"

#include "lib/check.h"
#include "lib/log.h"
#include "lib/rqs.h"
#include "lib/sigflag.h"
#include "lib/syswrap.h"

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <initializer_list>
#include <iterator>
#include <poll.h>
#include <unistd.h>
#include <utility>

LOG_UNIT(LOG_MOD_APP);

static constexpr size_t PPRM_BLOCK = 8;
static constexpr size_t BITS_BLOCK = 16; // words
static constexpr int PROTO_UDP = 17;

static rui_socket_cb g_cb[RUI_MAX];
static const char *const TYPE_NAMES[RUI_MAX] = {"user", "admin", "custom"};

// Held open so that a connection can still be accepted, and closed, when no descriptor is left.
static int g_spare_fd = -1;

// --- descriptor sets ---

static uint64_t *bit_word(const fd_bits *set, int fd) {
    size_t word = static_cast<size_t>(fd) / 64;
    return word < set->words.max_len ? xvec_at<uint64_t>(set->words, word) : nullptr;
}

static bool bits_test(const fd_bits *set, int fd) {
    const uint64_t *word = bit_word(set, fd);
    return word && (*word >> (fd % 64) & 1);
}

static void bits_set(fd_bits *set, int fd) {
    if (!bit_word(set, fd))
        xvec_reserve(&set->words, static_cast<size_t>(fd) / 64 + 1, sizeof(uint64_t), BITS_BLOCK);
    if (uint64_t *word = bit_word(set, fd))
        *word |= uint64_t{1} << (fd % 64);
}

static void bits_clear(fd_bits *set, int fd) {
    if (uint64_t *word = bit_word(set, fd))
        *word &= ~(uint64_t{1} << (fd % 64));
}

// --- set-up ---

void rui_set_cb(int type, const rui_socket_cb &cb) {
    CHECK(type >= 0 && type < RUI_MAX);
    g_cb[type] = cb;
}

static int setup_slot(const rui_socket_cb *cb, rui_listener_cfg *lc, rui_socket_ctx *srv) {
    CHECK(cb->new_rq && cb->rm_rq);
    int err = xvlst_reserve(&srv->pprm, PPRM_BLOCK, sizeof(rui_rq_header *), PPRM_BLOCK);
    if (err != 0) {
        LOG(LL_ERROR, "%s: xvlst_reserve() failed rc=%d\n", "rui_setup_listeners", err);
        return err;
    }
    srv->requests = dlep_create(&err);
    if (!srv->requests) {
        LOG(LL_ERROR, "%s: dlep_create() failed rc=%d\n", "rui_setup_listeners", err);
        xvlst_reset(&srv->pprm);
        return err;
    }
    srv->tag.num = RSC_TAG;
    srv->lc = lc;
    srv->rqtag = cb->tag;
    srv->cb = cb;
    return 0;
}

int rui_setup_listeners(int type, rui_listener_cfg *lc, rui_socket_ctx *srv) {
    CHECK(type >= 0 && type < RUI_MAX);
    for (size_t i = 0; i < MAX_LISTENERS; ++i) {
        srv[i] = {};
        srv[i].sockfd = -1;
        srv[i].type = type;
    }
    size_t n = 0;
    for (; n < MAX_LISTENERS && lc[n].is_valid; ++n) {
        int rc = setup_slot(&g_cb[type], &lc[n], &srv[n]);
        if (rc != 0)
            return rc;
    }
    LOG_FN(LL_DEBUG, "%lu [%s] listeners set up\n", static_cast<unsigned long>(n), TYPE_NAMES[type]);
    return 0;
}

int rui_ctx_init(rui_cfg *cfg, rui_ctx *ctx) {
    const struct {
        int type;
        rui_listener_cfg *lc;
        rui_socket_ctx *srv;
        fd_bits *fds;
    } types[] = {{RUI_USER, cfg->user, ctx->user, &ctx->user_fds},
                 {RUI_ADMIN, cfg->admin, ctx->admin, &ctx->admin_fds},
                 {RUI_CUSTOM, cfg->custom, ctx->custom, &ctx->custom_fds}};
    for (const auto &t : types) {
        int rc = rui_setup_listeners(t.type, t.lc, t.srv);
        if (rc != 0)
            return rc;
        for (size_t i = 0; i < MAX_LISTENERS; ++i)
            t.srv[i].fds = t.fds;
    }
    return 0;
}

// --- starting and stopping ---

static int open_by_kind(const rui_listener_cfg *cfg, const char **shown) {
    const sockaddr *addr = nullptr;
    static char text[SADDR_STR_SIZE];
    *shown = "all";
    if (cfg->domain_path[0]) {
        *shown = cfg->domain_path;
        return open_domain_listener(cfg->domain_path);
    }
    if (cfg->ifc) {
        addr = reinterpret_cast<const sockaddr *>(&cfg->ifc->addr);
        const char *printed = saddr_str(addr, cfg->ifc->addrlen, text, sizeof(text));
        *shown = printed ? printed : cfg->ifc->name;
    }
    if (cfg->proto == PROTO_UDP) {
        sockaddr_in any{};
        any.sin_family = AF_INET;
        return open_udp_listener(addr ? addr : reinterpret_cast<const sockaddr *>(&any), cfg->port);
    }
    return addr ? open_listener(addr, cfg->port, false)
                : open_anyaddr_listener(cfg->pref_af == AF_UNSPEC ? AF_INET : cfg->pref_af, cfg->port, false);
}

int rui_start_listener(rui_listener_cfg *cfg, rui_socket_ctx *srv) {
    CHECK(srv->rqtag.num && srv->cb->new_rq && srv->cb->rm_rq);
    CHECK(-1 == srv->sockfd);
    const char *shown = nullptr;
    srv->sockfd = open_by_kind(cfg, &shown);
    if (srv->sockfd < 0 || rqs_add_reader(srv->sockfd, srv) != 0) {
        if (srv->sockfd >= 0)
            W_close(__func__, srv->sockfd);
        srv->sockfd = -1;
        LOG_FN(LL_ERROR, "failed to start %s listener\n", srv->rqtag.sym);
        return -1;
    }
    srv->deferred = false;
    if (srv->fds)
        bits_set(srv->fds, srv->sockfd);
    LOG(LL_INFO, "STARTED listener fd%d for %s requests on %s:%s; %lu requests pending\n", srv->sockfd,
        srv->rqtag.sym, shown, cfg->port, static_cast<unsigned long>(dlep_count(srv->requests)));
    return 0;
}

int rui_enable_listeners(rui_socket_ctx *srv) {
    size_t n = 0;
    for (; n < MAX_LISTENERS && srv[n].lc && srv[n].lc->is_valid; ++n) {
        int rc = rui_start_listener(srv[n].lc, &srv[n]);
        if (rc != 0)
            return rc;
    }
    LOG_FN(LL_DEBUG, "%lu [%s] listener(s) started\n", static_cast<unsigned long>(n),
           n > 0 ? srv[0].rqtag.sym : TYPE_NAMES[srv->type]);
    return 0;
}

int rui_ctx_start(rui_ctx *ctx) {
    if (g_spare_fd < 0)
        g_spare_fd = W_open(__func__, "/dev/null", O_RDONLY | O_CLOEXEC, 0);
    int rc = rui_enable_listeners(ctx->user);
    if (rc == 0)
        rc = rui_enable_listeners(ctx->admin);
    if (rc == 0)
        rc = rui_enable_listeners(ctx->custom);
    return rc;
}

void rui_stop_listener(rui_socket_ctx *srv) {
    if (srv->sockfd <= 0)
        return;
    CHECK(0 == srv->deferred && srv->sockfd >= 0);
    size_t queued = dlep_count(srv->requests);
    if (queued > 0)
        LOG(LL_INFO, "%s listener fd%d wll be closed (%lu requsts queued)\n", srv->rqtag.sym, srv->sockfd,
            static_cast<unsigned long>(queued));
    rqs_rm_fd(srv->sockfd);
    if (srv->fds)
        bits_clear(srv->fds, srv->sockfd);
    W_close(__func__, srv->sockfd);
    srv->sockfd = -1;
    srv->deferred = true;
}

static void drop_request(dlep_elem *elem) {
    rui_rm_request(dlep_as<rui_rq_header>(elem));
}

static void drop_listener(rui_socket_ctx *srv) {
    rui_stop_listener(srv);
    dlep_destroy(srv->requests, drop_request);
    srv->requests = nullptr;
    free(srv->lc->ifc);
    srv->lc->ifc = nullptr;
    srv->lc->is_valid = false;
    xvlst_reset(&srv->pprm);
    xvec_reset(&srv->accset.words);
    srv->tag.num = 0;
}

void stop_listeners(rui_socket_ctx *srv, bool destroy) {
    size_t n = 0;
    for (; n < MAX_LISTENERS && srv[n].tag.num == RSC_TAG && srv[n].lc->is_valid; ++n) {
        if (destroy)
            drop_listener(&srv[n]);
        else
            rui_stop_listener(&srv[n]);
    }
    LOG_FN(LL_DEBUG, "%lu [%s] listener(s) %s\n", static_cast<unsigned long>(n), TYPE_NAMES[srv->type],
           destroy ? "destroyed" : "stopped");
}

void rui_ctx_destroy(rui_ctx *ctx) {
    for (rui_socket_ctx *srv : {ctx->user, ctx->admin, ctx->custom})
        stop_listeners(srv, true);
    for (fd_bits *set : {&ctx->user_fds, &ctx->admin_fds, &ctx->custom_fds})
        xvec_reset(&set->words);
    if (g_spare_fd >= 0)
        W_close(__func__, g_spare_fd);
    g_spare_fd = -1;
}

bool rui_can_listen(const rui_socket_ctx *srv, size_t max_req) {
    return dlep_count(srv->requests) < max_req;
}

bool rui_should_listen(const rui_socket_ctx *srv, size_t max_req) {
    CHECK(srv->cb);
    if (!rui_can_listen(srv, max_req))
        return false;
    size_t queued = dlep_count(srv->requests);
    if (queued >= (max_req * 3) >> 2)
        return false;
    if (srv->sockfd < 0)
        LOG_FN(LL_DEBUG, "%s (%lu requsts queued)\n", srv->rqtag.sym, static_cast<unsigned long>(queued));
    return true;
}

// --- accepting ---

static int tune_ip_socket(int fd, int flags) {
    int mark = RUI_LOW_WMARK;
    if (W_setsockopt(__func__, fd, SOL_SOCKET, SO_RCVLOWAT, &mark, sizeof(mark)) != 0)
        return -1;
    LOG_FN(LL_DEBUG, "low watermark set to %d for fd=%d\n", mark, fd);
    return flags & RUI_TCP_NODELAY ? set_tcp_nodelay(fd, true) : 0;
}

// True when the connection has become a queued request; otherwise it is closed.
static bool take_connection(rui_socket_ctx *srv, int fd, const sockaddr *addr, socklen_t len, int flags,
                            void *data) {
    const char *alias = srv->lc->alias;
    if (log_wanted(g_log, LL_DEBUG, g_llctx)) {
        char peer[SADDR_STR_SIZE];
        const char *shown = saddr_str(addr, len, peer, sizeof(peer));
        LOG(LL_DEBUG, "Accepted %s request [fd=%d] from %s\n", alias, fd, shown ? shown : "?");
    }
    bool is_ip = addr->sa_family == AF_INET || addr->sa_family == AF_INET6;
    int rc = is_ip ? tune_ip_socket(fd, flags) : 0;
    if (rc == 0)
        rc = rui_add_request(fd, srv, data);
    if (rc == 0)
        return true;
    LOG(LL_ERROR, "Error rc=%d processing connection [%s] fd=%d\n", rc, alias, fd);
    W_close(__func__, fd);
    return false;
}

enum accept_step { ACC_AGAIN, ACC_END, ACC_FAILED };

// Out of descriptors: gives up the spare one for the moment it takes to accept the connection and close it,
// since a connection that stays pending would wake the loop for ever.
static accept_step shed_connection(rui_socket_ctx *srv) {
    if (g_spare_fd >= 0)
        close(g_spare_fd);
    int fd = accept(srv->sockfd, nullptr, nullptr);
    int err = errno;
    if (fd >= 0)
        close(fd);
    g_spare_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return err == EAGAIN ? ACC_END : ACC_FAILED; // nothing was pending: the number comes first
    LOG_FN(LL_WARN, "[%s] out of descriptors, connection shed\n", srv->lc->alias);
    return ACC_AGAIN;
}

// What a failed accept means for the loop.
static accept_step on_accept_failure(rui_socket_ctx *srv, int err) {
    switch (err) {
    case EINTR:
        return g_quit ? ACC_END : ACC_AGAIN;
    case EAGAIN:
        LOG(LL_DEBUG, "%s(%s): end of accept queue reached\n", "rui_accept", srv->lc->alias);
        return ACC_END;
    case ECONNABORTED:
    case ECONNRESET:
        LOG(LL_WARN, "%s(%s): connection aborted/reset before accept()\n", "rui_accept", srv->lc->alias);
        return ACC_AGAIN;
    case EMFILE:
    case ENFILE:
        return shed_connection(srv);
    default:
        return ACC_FAILED;
    }
}

// A look after a connection was taken. For an accept that finds the queue empty the kernel makes a socket and
// throws it away, so a look costs less; and a peer that has written already need not wait for an event of its
// own, which would cost a pass of the loop. True when the queue is empty.
static bool look_around(const rui_socket_ctx *srv, rui_rq_header *taken) {
    pollfd looks[] = {{.fd = srv->sockfd, .events = POLLIN, .revents = 0},
                      {.fd = taken ? taken->fd : -1, .events = POLLIN, .revents = 0}};
    poll(looks, std::size(looks), 0);
    if (looks[1].revents == POLLIN && srv->cb->read)
        srv->cb->read(taken);
    return looks[0].revents == 0;
}

static rui_rq_header *latest_request(const rui_socket_ctx *srv) {
    return dlep_as<rui_rq_header>(dlep_head(srv->requests));
}

int rui_accept(rui_socket_ctx *srv, size_t max_accept, int flags, void *data) {
    const char *alias = srv->lc->alias;
    LOG_FN(LL_DEBUG, "from [%s]\n", alias);
    rui_rq_header *taken = nullptr;
    size_t accepted = 0;
    int rc = 0;
    // Connections that are turned away count as tries: they must not keep the loop from its other work.
    for (size_t tries = 0; !g_quit && accepted < max_accept && tries < max_accept; ++tries) {
        LOG(LL_DEBUG, "%s(%s): accepting on fd=%d\n", __func__, alias, srv->sockfd);
        union {
            sockaddr sa;
            char room[128];
        } addr{};
        socklen_t len = sizeof(addr);
        // The first connection is what the event told of; serving one may leave any error number.
        bool is_end = tries > 0 && look_around(srv, std::exchange(taken, nullptr));
        errno = EAGAIN;
        int fd = is_end ? -1 : W_accept4(__func__, srv->sockfd, &addr.sa, &len, SOCK_NONBLOCK);
        if (fd >= 0) {
            bool is_taken = take_connection(srv, fd, &addr.sa, len, flags, data);
            accepted += is_taken;
            taken = is_taken ? latest_request(srv) : nullptr;
            continue;
        }
        accept_step step = on_accept_failure(srv, errno);
        if (step == ACC_AGAIN)
            continue;
        rc = step == ACC_FAILED ? -1 : 0;
        break;
    }
    if (accepted >= max_accept)
        LOG(LL_WARN, "%s(%s): CANNOT ACCEPT ALL (accepted=%ld), max=%lu\n", __func__, alias,
            static_cast<long>(accepted), static_cast<unsigned long>(max_accept));
    LOG_FN(LL_DEBUG, "rc=%d\n", rc);
    return rc;
}

int rui_add_request(int fd, rui_socket_ctx *srv, void *data) {
    size_t queued = dlep_count(srv->requests);
    if (queued >= RUI_MAX_REQUESTS) {
        LOG_FN(LL_ERROR, "Too many user requests (%lu) queued\n", static_cast<unsigned long>(queued));
        return EBUSY;
    }
    rui_rq_header *rq = srv->cb->new_rq(fd, srv, data);
    if (!rq)
        return -1;
    if (dlep_append(srv->requests, &rq->le) != &rq->le) {
        LOG_FN(LL_ERROR, "failed to queue [%s] request [%p]\n", srv->rqtag.sym, static_cast<void *>(rq));
        rq->fd = -1; // the caller's to close
        srv->cb->rm_rq(rq);
        return -1;
    }
    if (bits_test(&srv->accset, fd))
        LOG_FN(LL_WARN, "socket fd=%d is already marked queued\n", fd);
    else
        bits_set(&srv->accset, fd);
    int rc = rqs_add_reader(fd, rq);
    if (rc != 0) {
        LOG_FN(LL_ERROR, "failed to add fd=%d to the monitored set\n", fd);
        bits_clear(&srv->accset, fd);
        dlep_rm(srv->requests, &rq->le);
        rq->fd = -1; // the caller's to close
        srv->cb->rm_rq(rq);
        return rc;
    }
    LOG_FN(LL_DEBUG, "OK for fd=%d, rq=%p\n", fd, static_cast<void *>(rq));
    return 0;
}

// --- removal ---

static int is_record(void *data, size_t i, void *key) {
    return static_cast<void **>(data)[i] == key;
}

static void unlist_pprm(rui_socket_ctx *srv, rui_rq_header *rq) {
    size_t i = 0;
    if (xvlst_find(&srv->pprm, rq, is_record, &i) != 0) {
        xvlst_del(&srv->pprm, i, nullptr);
        LOG(LL_DEBUG, "%s: removed (%p) from PPRM\n", "rm_request", static_cast<void *>(rq));
    }
}

static void rm_request(rui_rq_header *rqh, bool from_pprm) {
    CHECK(rqh->srv->cb);
    rui_socket_ctx *srv = rqh->srv;
    int fd = rqh->fd;
    if (fd >= 0) {
        bits_clear(&srv->accset, fd);
        if (rqs_rm_fd(fd) != 0)
            LOG_FN(LL_ERROR, "failed to remove fd=%d from the monitored set.\n", fd);
    }
    if (!from_pprm)
        unlist_pprm(srv, rqh);
    if (dlep_rm(srv->requests, &rqh->le) != &rqh->le) {
        LOG_FN(LL_ERROR, "failed to remove %s request [%p] from queue\n", srv->rqtag.sym,
               static_cast<void *>(rqh));
        return;
    }
    if (fd >= 0)
        W_close(__func__, fd);
    rqh->fd = -1;
    srv->cb->rm_rq(rqh);
    LOG_FN(LL_DEBUG, "OK for fd=%d rq=%p\n", fd, static_cast<void *>(rqh));
}

void rui_rm_request(rui_rq_header *rq) {
    rm_request(rq, false);
}

static int pprm_one(void *data, size_t i) {
    rm_request(static_cast<rui_rq_header **>(data)[i], true);
    return 0;
}

static void pprm_srv(const char *name, rui_socket_ctx *srv) {
    for (size_t n = 0; n < MAX_LISTENERS && srv[n].lc && srv[n].requests; ++n) {
        LOG_FN(LL_DEBUG, "[%s] listener[%s], %zu pprm items\n", name, srv[n].lc->alias, srv[n].pprm.len);
        xvlst_purge_all(&srv[n].pprm, pprm_one);
    }
    LOG_FN(LL_DEBUG, "done for for [%s]\n", name);
}

void rui_pprm_all(rui_ctx *ctx) {
    pprm_srv("user", ctx->user);
    pprm_srv("admin", ctx->admin);
    pprm_srv("custom", ctx->custom);
}

static void tmout_srv(const char *name, rui_socket_ctx *srv, long tmout_ms) {
    size_t count = 0;
    for (size_t n = 0; n < MAX_LISTENERS && srv[n].lc && srv[n].requests; ++n) {
        CHECK(srv[n].cb->time_out);
        for (dlep_elem *elem = dlep_tail(srv[n].requests); elem; elem = elem->next)
            if (srv[n].cb->time_out(dlep_as<rui_rq_header>(elem), tmout_ms))
                ++count;
    }
    if (count > 0)
        LOG_FN(LL_WARN, "%lu [%s] requests timed out\n", static_cast<unsigned long>(count), name);
    else
        LOG_FN(LL_DEBUG, "no time-outs for [%s]\n", name);
}

void rui_tmout_all(rui_ctx *ctx, long tmout_ms) {
    tmout_srv("user", ctx->user, tmout_ms);
    tmout_srv("admin", ctx->admin, tmout_ms);
    tmout_srv("custom", ctx->custom, tmout_ms);
}

void rui_mk_trknum(size_t *count, n64_tag *tag, char pfx, size_t max) {
    if (*count >= max) {
        *count = 0;
        LOG_FN(LL_DEBUG, "rolling over %c-requests\n", pfx);
    }
    ++*count;
    tag->num64 = 0;
    tag->sym8[0] = pfx;
    // Six digits are cut to five: number 100000 shows as 10000.
    char digits[24] = "000"; // at least four
    size_t zeros = *count < 10 ? 3 : *count < 100 ? 2 : *count < 1000 ? 1 : 0;
    auto n = std::to_chars(digits + zeros, std::end(digits), *count).ptr - digits;
    CHECK(n >= 1 && n <= 6);
    memcpy(tag->sym8 + 1, digits, n < 5 ? static_cast<size_t>(n) : 5);
}

[[noreturn]] void rui_crash_on_error(rui_socket_ctx *srv, bool is_hup, const char *caller) {
    int err = socket_error(srv->sockfd);
    LOG(LL_PANIC, "%s: %s listener[%s] ERROR(%d): %s\n", caller, is_hup ? "HUP" : "",
        srv->lc ? srv->lc->alias : "?", err, strerror(err));
    log_abort();
}
