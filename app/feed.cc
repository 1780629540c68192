#include "app/feed.h"

#include "app/backup.h"
#include "app/cfg.h"
#include "app/item.h"
#include "app/mdr.h"
#include "app/task.h"
#include "lib/check.h"
#include "lib/fdio.h"
#include "lib/log.h"
#include "lib/strops.h"
#include "lib/syswrap.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <sys/socket.h>

LOG_UNIT(LOG_MOD_APP);

static constexpr size_t LINE_MAX_LEN = 255; // of one read, carried-over text included
static constexpr size_t MAX_PARTIAL = 128;  // of an unterminated line with nothing before it

// 0, or the failure that drops the rest of the read.
static int process_line(pl_source *src, std::string_view line, int line_no) {
    line = strip_tail(line);
    LOG(LL_DEBUG, "%s: line %d: [%.*s]\n", "read_source", line_no, static_cast<int>(line.size()),
        line.data());
    item_data data;
    std::string_view rest;
    line_scan scan{.rest = line};
    line_verdict verdict = scan_item(&scan, &data, &rest);
    if (verdict != LINE_OK)
        ++src->counts.refused[verdict == LINE_INVALID ? REFUSED_MALFORMED : REFUSED_VALUE];
    if (verdict == LINE_INVALID) {
        LOG(LL_ERROR, "%s: invalid input, [%.*s] n=%d\n", "read_source", static_cast<int>(line.size()),
            line.data(), scan.count);
        return 0;
    }
    if (verdict == LINE_REFUSED)
        return 0;
    LOG(LL_DEBUG, "%s: %d fields scanned, rest=%.*s\n", "read_source", scan.count,
        static_cast<int>(rest.size()), rest.data());
    if (src->master)
        LOG(LL_WARN, "%s: item must do the master src[%s]\n", "read_source", src->master->nametag);
    int rc = add_seg(src->master ? src->master : src, &data);
    if (rc != 0)
        return rc;
    // A reload may have turned reports on without a reporter, or off with one.
    if (g_cfg.mdr.is_enabled && g_ctx.mdr)
        ++g_ctx.counts
              .reports[mdr_send(g_ctx.mdr, data.path, seg_expiry_time(&src->param, data.start_tm)) == 0 ? 0
                                                                                                        : 1];
    // A backup that was taken over is to go, however much still arrives through it.
    (src->master ? src->master : src)->last_item_tm = idle_clock();
    return 0;
}

// A partial line belongs to its connection, which a defunct backup shares with its master.
static pl_source *partial_owner(pl_source *src) {
    return src->master ? src->master : src;
}

// Up to the last line feed; what follows it is kept. 0, or the failure that drops the rest of the text.
static int process_lines(pl_source *src, std::string_view text, size_t last_lf) {
    int line_no = 0;
    size_t at = 0;
    while ((at = text.find_first_not_of("\r\n", at)) != std::string_view::npos) {
        ++line_no;
        if (at > last_lf) {
            std::string_view partial = text.substr(at);
            LOG(LL_DEBUG, "%s: tail at line %d: %zu bytes [%.*s]\n", "read_source", line_no, partial.size(),
                static_cast<int>(partial.size()), partial.data());
            keep_partial(partial_owner(src), partial);
            break;
        }
        size_t end = text.find_first_of("\r\n", at);
        int rc = process_line(src, text.substr(at, end - at), line_no);
        if (rc != 0)
            return rc;
        at = end;
    }
    if (line_no == 0)
        LOG(LL_DEBUG, "%s: empty input (%zd bytes)\n", "read_source", static_cast<ssize_t>(text.size()));
    return 0;
}

static int process_buffer(pl_source *src, std::string_view text) {
    size_t last_lf = text.rfind('\n');
    if (last_lf == std::string_view::npos) {
        if (text.size() > MAX_PARTIAL) {
            LOG(LL_ERROR, "%s: tail too big len=%zu bytes\n", "read_source", text.size());
            return -1;
        }
        LOG(LL_WARN, "%s: got no lines, len=%zu bytes tail=[%.*s]\n", "read_source", text.size(),
            static_cast<int>(text.size()), text.data());
        keep_partial(partial_owner(src), text);
        return 0;
    }
    return process_lines(src, text, last_lf);
}

void feed_carried(pl_source *src) {
    std::string_view text = partial_line(src);
    size_t last_lf = text.rfind('\n');
    if (last_lf == std::string_view::npos)
        return;
    char *carried = src->tail; // the text, which is replaced by what is left of it
    src->tail = nullptr;
    src->tail_len = 0;
    process_lines(src, text, last_lf);
    free(carried);
}

// One read with its lines. The bytes read, 0 at the stream's end, -1 for an error.
static ssize_t read_once(pl_source *src) {
    char buf[LINE_MAX_LEN + 1];
    pl_source *owner = partial_owner(src);
    std::string_view partial = partial_line(owner);
    size_t len = partial.size();
    CHECK(len < LINE_MAX_LEN);
    if (len > 0) {
        memcpy(buf, partial.data(), len);
        LOG(LL_DEBUG, "%s: added %zu bytes of tail\n", "read_source", len);
    }
    ssize_t n = recv(src->sockfd, buf + len, LINE_MAX_LEN - len, MSG_DONTWAIT);
    if (n <= 0)
        return n;
    keep_partial(owner, {});
    LOG(LL_DEBUG, "%s: %zd/%zu bytes read\n", "read_source", n, LINE_MAX_LEN - len);
    process_buffer(src, {buf, len + static_cast<size_t>(n)});
    return n;
}

int read_source(pl_source *src) {
    ssize_t n = read_once(src);
    if (n > 0)
        return 0;
    int err = n < 0 ? errno : 0;
    LOG_FN(hangup_level(err), "recv(fd%d, ..) ERROR(%d): %s\n", src->sockfd, err, strerror(err));
    if (err == ECONNRESET || err == ECONNABORTED) {
        LOG_FN(LL_WARN, "src[%s] DISCONNECTED\n", src->nametag);
        suspend_source(src, err);
    }
    return 0;
}

void drain_source(pl_source *src) {
    auto left = static_cast<ssize_t>(bytes_to_read(src->sockfd));
    for (ssize_t n = 1; left > 0 && n > 0; left -= n)
        n = read_once(src);
}
