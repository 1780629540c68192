// The request protocol: every accepted connection is a request record that reads one text line after
// another, decides from the line's first letter whether the peer is a source or a playlist client, and sends
// back the response. Ending a request always goes through deferred removal.
#pragma once

#include "app/plum.h"

// States; setting the one that is set already is an assertion failure.
inline constexpr uint32_t URQ_INI = tag_num("INI"); // created, nothing read
inline constexpr uint32_t URQ_RD = tag_num("RD");   // reading
inline constexpr uint32_t URQ_CON = tag_num("CON"); // a partial line is held
inline constexpr uint32_t URQ_NEW = tag_num("NEW"); // answered, open for the next line
inline constexpr uint32_t URQ_QUI = tag_num("QUI"); // finished

inline constexpr int64_t URQ_TMOUT_MS = 3000; // the loop wakes that often while requests wait

// The listener layer's callbacks for requests.
const rui_socket_cb &urq_callbacks();

// A request for an accepted socket, owned by the listener layer; null and ENOMEM without memory (logged).
rui_rq_header *urq_new(int fd, rui_socket_ctx *srv, void *data);
// Frees a request with what it owns; an unsent response is logged.
void urq_rm(rui_rq_header *rq);
void urq_set_state(pl_urq *urq, uint32_t state);

// The connection is readable: reads, answers, and ends or continues the request. 0.
int urq_read(pl_urq *urq);
// The connection failed or hung up: ends the request.
void urq_error(pl_urq *urq, bool is_hup);
// Ends a request that has waited longer than `tmout_ms`, unless it holds a partial line. True when it did.
bool urq_timeout(rui_rq_header *rq, long tmout_ms);
// Marks a request for removal at the end of the pass; a second mark is logged and ignored.
void pprm_urq(pl_urq *urq);

// One complete line in `text`: a source's init line, a playlist request. 0 or a result code.
int process_src_rq(pl_urq *urq);
int process_pl_rq(pl_urq *urq);
// Takes "peer=" out of a request's options; at most `max` characters are looked at.
void process_rest(pl_urq *urq, const char *text, size_t max);
