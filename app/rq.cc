#include "app/rq.h"

#include "app/app.h"
#include "app/cfg.h"
#include "app/pl.h"
#include "app/pl_event.h"
#include "lib/check.h"
#include "lib/fdio.h"
#include "lib/log.h"
#include "lib/netops.h"
#include "lib/rqs.h"
#include "lib/strops.h"
#include "lib/syswrap.h"
#include "lib/tmout.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>
#include <sys/socket.h>

LOG_UNIT(LOG_MOD_APP);

static constexpr size_t PPRM_BLOCK = 8;
static constexpr size_t WORD_SIZE = 32;   // of tags and operations, with the terminating zero
static constexpr size_t FIELD_SIZE = 128; // of names and options

static pl_urq *as_urq(rui_rq_header *rq) {
    return dlep_as<pl_urq>(&rq->le);
}

static const char *name_of(const pl_urq *urq) {
    return urq->rq.trk_tag.sym8;
}

static void read_first(rui_rq_header *rq) {
    urq_read(as_urq(rq));
}

const rui_socket_cb &urq_callbacks() {
    static const rui_socket_cb cb = {.tag = {.num = PL_URQ},
                                     .new_rq = urq_new,
                                     .rm_rq = urq_rm,
                                     .time_out = urq_timeout,
                                     .read = read_first};
    return cb;
}

// --- life ---

rui_rq_header *urq_new(int fd, rui_socket_ctx *srv, void *) {
    auto *urq = static_cast<pl_urq *>(calloc(1, sizeof(pl_urq)));
    if (!urq) {
        LOG_FN(LL_ERROR, "ERROR(%d) creating %s request\n", ENOMEM, srv->rqtag.sym);
        errno = ENOMEM;
        return nullptr;
    }
    urq->rq.le.tag.num = PL_URQ;
    urq->state.num = URQ_INI;
    urq->rq.fd = fd;
    urq->rq.srv = srv;
    urq->kind = srv->lc->kind;
    urq->pprm_idx = -1;
    set_timeout(URQ_TMOUT, URQ_TMOUT_MS);
    rui_mk_trknum(&srv->rqcount, &urq->rq.trk_tag, 'u', MAX_RQNUM);
    LOG(LL_DEBUG, "%s [%s] (%p) created\n", srv->rqtag.sym, name_of(urq), static_cast<void *>(urq));
    rqs_set_now(&urq->wait_start_tm);
    return &urq->rq;
}

void urq_rm(rui_rq_header *rq) {
    pl_urq *urq = as_urq(rq);
    LOG_FN(LL_DEBUG, "%s [%s] (%p)\n", urq->rq.srv->rqtag.sym, name_of(urq), static_cast<void *>(urq));
    if (urq->rq.fd >= 0)
        W_close(__func__, urq->rq.fd);
    urq->rq.fd = -1;
    if (urq->response) {
        LOG_FN(LL_WARN, "(%p) unsent response: %s\n", static_cast<void *>(urq), urq->response);
        free(urq->response);
    }
    free(urq->peer_tag);
    urq->state.num = 0;
    urq->rq.le.tag.num = 0;
    const void *volatile freed = urq; // only its number is told
    free(urq);
    rm_timeout(URQ_TMOUT);
    LOG_FN(LL_DEBUG, "freed (%p)\n", freed);
}

void urq_set_state(pl_urq *urq, uint32_t state) {
    n32_tag to = {.num = state};
    CHECK(urq->state.num != to.num);
    LOG(LL_DEBUG, "%s [%s] (%p) state: %s -> %s\n", urq->rq.srv->rqtag.sym, name_of(urq),
        static_cast<void *>(urq), urq->state.sym, to.sym);
    urq->state = to;
}

void pprm_urq(pl_urq *urq) {
    rui_socket_ctx *srv = urq->rq.srv;
    if (urq->pprm_idx >= 0) {
        LOG_FN(LL_WARN, "%s [%s] (%p) is already PPRM-ed\n", srv->rqtag.sym, name_of(urq),
               static_cast<void *>(urq));
        return;
    }
    ssize_t j = xvlst_add(&srv->pprm, sizeof(rui_rq_header *), PPRM_BLOCK);
    if (j < 0)
        LOG_FN(LL_ERROR, "xvlst_add ERROR\n");
    CHECK(j >= 0);
    *xvlst_at<rui_rq_header *>(srv->pprm, static_cast<size_t>(j)) = &urq->rq;
    urq->pprm_idx = j;
    LOG_FN(LL_DEBUG, "added (%p) to pprm[%zi] (%p) for listener fd%d\n", static_cast<void *>(urq), j,
           static_cast<void *>(&srv->pprm), srv->sockfd);
    LOG_FN(LL_DEBUG, "%s [%s] (%p) is to END j=%zd\n", srv->rqtag.sym, name_of(urq), static_cast<void *>(urq),
           j);
}

void urq_error(pl_urq *urq, bool is_hup) {
    int err = socket_error(urq->rq.fd);
    LOG_FN(hangup_level(err), "%s URQ(%p) [%s] ERROR(%d): %s\n", is_hup ? "HUP" : "",
           static_cast<void *>(urq), name_of(urq), err, strerror(err));
    pprm_urq(urq);
}

bool urq_timeout(rui_rq_header *rq, long tmout_ms) {
    pl_urq *urq = as_urq(rq);
    if (urq->state.num == URQ_CON)
        return false;
    timespec span;
    ms2timespec(tmout_ms, &span);
    if (!timed_out(urq->wait_start_tm, span))
        return false;
    timespec now = rqs_now();
    LOG_FN(LL_WARN, "TIME-OUT %s [%s] (%p) start-tm: %lu.%lu, now=%lu.%lu\n", rq->srv->rqtag.sym,
           name_of(urq), static_cast<void *>(urq), static_cast<unsigned long>(urq->wait_start_tm.tv_sec),
           static_cast<unsigned long>(urq->wait_start_tm.tv_nsec), static_cast<unsigned long>(now.tv_sec),
           static_cast<unsigned long>(now.tv_nsec));
    pprm_urq(urq);
    return true;
}

// --- sources ---

static void refuse_source(pl_urq *urq, const char *nametag) {
    LOG(LL_ERROR, "%s: failed to add src[%s]\n", "process_src_rq", nametag);
    if (urq->rq.fd < 0)
        return;
    int rc = shutdown(urq->rq.fd, SHUT_RDWR);
    LOG(LL_DEBUG, "%s: shutdown(fd%d,..) %s(%d)\n", "process_src_rq", urq->rq.fd, rc == 0 ? "OK" : "ERROR",
        rc == 0 ? 0 : errno);
}

int process_src_rq(pl_urq *urq) {
    line_scan scan{.rest = urq->text};
    char operation[WORD_SIZE];
    char nametag[FIELD_SIZE];
    char params[FIELD_SIZE];
    scan_word(&scan);
    copy_cut(operation, sizeof(operation), scan_word(&scan));
    copy_cut(nametag, sizeof(nametag), scan_word(&scan));
    copy_cut(params, sizeof(params), scan_rest(&scan, sizeof(params) - 1));
    if (scan.count < 3) {
        LOG_FN(LL_ERROR, "%d items scanned, bad format; text=[%s]\n", scan.count, urq->text);
        return -1;
    }
    if (strcasecmp(operation, "init") != 0) {
        LOG_FN(LL_ERROR, "unrecognized operation: [%s]\n", operation);
        return -1;
    }
    int rc = add_source(urq, nametag, params);
    if (rc != 0)
        refuse_source(urq, nametag);
    LOG_FN(LL_DEBUG, "done with [%s] on URQ [%s] (%p), rc=%d\n", nametag, name_of(urq),
           static_cast<void *>(urq), rc);
    return rc;
}

// --- playlist clients ---

void process_rest(pl_urq *urq, const char *text, size_t max) {
    static constexpr char OPTION[] = "peer=";
    const char *at = strstr(text, OPTION);
    if (!at)
        return;
    at += sizeof(OPTION) - 1;
    CHECK(!urq->peer_tag);
    size_t len = 0;
    while (len < MAX_PEER_TAG - 1 && len < max && at[len] != '&' &&
           isgraph(static_cast<unsigned char>(at[len])))
        ++len;
    urq->peer_tag = static_cast<char *>(calloc(1, MAX_PEER_TAG));
    if (!urq->peer_tag) {
        LOG_FN(LL_ERROR, "ERROR(%d): %s\n", ENOMEM, strerror(ENOMEM));
        return;
    }
    memcpy(urq->peer_tag, at, len);
    LOG_FN(LL_DEBUG, "peer-tag=[%s]\n", urq->peer_tag);
}

// A scanned playlist request line.
struct pl_line {
    char itag[WORD_SIZE];
    char kind[WORD_SIZE];
    char nametag[FIELD_SIZE];
    int64_t timestamp;
    int64_t duration;
    char rest[FIELD_SIZE];
    int count; // fields scanned
};

static void scan_pl_line(const char *text, pl_line *line) {
    line_scan scan{.rest = text};
    copy_cut(line->itag, sizeof(line->itag), scan_word(&scan));
    copy_cut(line->kind, sizeof(line->kind), scan_word(&scan));
    copy_cut(line->nametag, sizeof(line->nametag), scan_word(&scan));
    line->timestamp = 0;
    line->duration = 0;
    line->rest[0] = '\0';
    if (scan_long(&scan, &line->timestamp) && scan_long(&scan, &line->duration))
        copy_cut(line->rest, sizeof(line->rest), scan_rest(&scan, sizeof(line->rest) - 1));
    line->count = scan.count;
}

static int answer(pl_urq *urq, const pl_line &line) {
    if (strcasecmp(line.kind, "EVE") == 0)
        return get_event_pl(urq, line.itag, line.nametag, line.timestamp, line.duration, true);
    if (strcasecmp(line.kind, "LIV") == 0)
        return get_live_pl(urq, line.itag, line.nametag);
    if (strcasecmp(line.kind, "VOD") != 0)
        return 0; // kinds of other daemons: no answer, the connection stays
    if (line.count > 3) {
        LOG(LL_ERROR, "%s: too many (%d) items, bad %s request; text=[%s]\n", "process_pl_rq", line.count,
            line.kind, urq->text);
        return -1;
    }
    return get_vod_pl(urq, line.itag, line.nametag);
}

static void count_answer(const pl_urq *urq, const char *kind, int code) {
    if (!urq->response) {
        ++g_ctx.counts.unanswered;
        return;
    }
    int letter = kind[0] & ~0x20; // in either case
    size_t i = 0;
    if (code != 0)
        for (int status = errno2http(code); i < HTTP_COUNT - 1 && HTTP_CODES[i] != status;)
            ++i;
    ++g_ctx.counts.requests[letter == 'L' ? KIND_LIV : letter == 'V' ? KIND_VOD : KIND_EVE][i];
}

int process_pl_rq(pl_urq *urq) {
    pl_line line;
    scan_pl_line(urq->text, &line);
    if (line.count < 3 || line.count > 6) {
        LOG_FN(LL_ERROR, "%d items scanned, bad format\n", line.count);
        ++g_ctx.counts.unanswered;
        return -1;
    }
    if (line.duration == -1 && line.timestamp >= 1) {
        LOG_FN(LL_DEBUG, "continuous playback from time=%ld\n", line.timestamp);
        line.duration = 0;
    }
    if (line.rest[0])
        process_rest(urq, line.rest, FIELD_SIZE);
    int rc = answer(urq, line);
    count_answer(urq, line.kind, rc);
    // The options were those of this line.
    free(urq->peer_tag);
    urq->peer_tag = nullptr;
    return rc;
}

// --- reading and answering ---

// What followed the line, from its first letter or digit on.
static void carry_tail(pl_urq *urq, const char *line_end) {
    const char *end = urq->text + urq->text_len;
    while (line_end < end && !isalnum(static_cast<unsigned char>(*line_end)))
        ++line_end;
    urq->tail_len = static_cast<size_t>(end - line_end);
    memcpy(urq->tail, line_end, urq->tail_len);
}

// Ends the text at its line end; false when there is none yet.
static bool cut_line(pl_urq *urq, size_t *len) {
    size_t end = 0;
    while (end < urq->text_len && urq->text[end] != '\r' && urq->text[end] != '\n')
        ++end;
    if (end == urq->text_len)
        return false;
    LOG(LL_DEBUG, "%s: request read completed, %zu bytes\n", "urq_read", urq->text_len);
    carry_tail(urq, urq->text + end);
    *len = strip_tail({urq->text, end}).size();
    urq->text[*len] = '\0';
    return true;
}

static void scan_client_tag(pl_urq *urq) {
    size_t len = 0;
    while (len < sizeof(urq->ctag) - 1 && isalnum(static_cast<unsigned char>(urq->text[len])))
        ++len;
    copy_cut(urq->ctag, sizeof(urq->ctag), {urq->text, len});
}

static int process_line(pl_urq *urq, size_t len) {
    // Behind a zero byte a line would be taken for a shorter one.
    if (strlen(urq->text) < len) {
        LOG(LL_ERROR, "%s: line refused, it holds a zero byte: %zu bytes, text=[%s]\n", "urq_read", len,
            urq->text);
        return -1;
    }
    scan_client_tag(urq);
    int rc = -1;
    switch (urq->ctag[0]) {
    case 'S':
        rc = process_src_rq(urq);
        urq_set_state(urq, URQ_QUI);
        break;
    case 'T':
        rc = process_pl_rq(urq);
        urq_set_state(urq, rc == 0 ? URQ_NEW : URQ_QUI);
        break;
    default:
        LOG(LL_ERROR, "%s: unexpected client tag: [%s]\n", "urq_read", urq->ctag);
        break;
    }
    return rc;
}

static void send_response(const pl_urq *urq) {
    if (urq->rq.fd < 0 || !urq->response)
        return;
    size_t len = strlen(urq->response);
    LOG(LL_DEBUG, "%s: sending response (%zu bytes): %s\n", "urq_read", len, urq->response);
    ssize_t n = nwrite(urq->rq.fd, urq->response, len, 0);
    if (n < 0)
        LOG(LL_ERROR, "%s: failed to send response, ERROR(%d): %s\n", "urq_read", errno, strerror(errno));
    else if (static_cast<size_t>(n) < len)
        LOG(LL_ERROR, "%s: under-write: exp/sent=%zu/%zd\n", "urq_read", len, n);
    else
        LOG(LL_DEBUG, "%s: response sent\n", "urq_read");
}

// Adds what has arrived to the text; -1 when the connection has ended or failed.
static int receive(pl_urq *urq) {
    ssize_t n = nread(urq->rq.fd, urq->text + urq->text_len, sizeof(urq->text) - 1 - urq->text_len, 0);
    if (n <= 0) {
        int err = n < 0 ? errno : 0;
        LOG(hangup_level(err), "%s: read URQ(%p) [%s] ERROR(%d): %s\n", "urq_read", static_cast<void *>(urq),
            name_of(urq), err, strerror(err));
        return -1;
    }
    urq->text_len += static_cast<size_t>(n);
    urq->text[urq->text_len] = '\0';
    LOG(LL_DEBUG, "%s: %zd/%zu bytes read for URQ (%p) [%s]: %s\n", "urq_read", n, urq->text_len,
        static_cast<void *>(urq), name_of(urq), urq->text);
    return 0;
}

// The line that the text holds, if it is complete.
static int process_text(pl_urq *urq) {
    size_t len = 0;
    if (!cut_line(urq, &len)) {
        LOG(LL_DEBUG, "%s: incomplete read, no CRLF yet\n", "urq_read");
        urq_set_state(urq, URQ_CON);
        return 0;
    }
    int rc = process_line(urq, len);
    send_response(urq);
    urq->text[0] = '\0';
    urq->text_len = 0;
    free(urq->response);
    urq->response = nullptr;
    return rc;
}

int urq_read(pl_urq *urq) {
    CHECK(urq->text_len < sizeof(urq->text));
    urq_set_state(urq, URQ_RD);
    int rc = receive(urq);
    if (rc == 0)
        rc = process_text(urq);
    if (rc != 0 || urq->state.num == URQ_QUI) {
        LOG_FN(LL_DEBUG, "ending URQ (%p) [%p] in state=%s, rc=%d\n", static_cast<void *>(urq),
               static_cast<void *>(urq->rq.srv), urq->state.sym, rc);
        pprm_urq(urq);
    } else {
        LOG_FN(LL_DEBUG, "continuing with URQ [%p] in state=%s\n", static_cast<void *>(urq), urq->state.sym);
        rqs_set_now(&urq->wait_start_tm);
    }
    return 0;
}
