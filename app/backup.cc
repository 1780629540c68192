#include "app/backup.h"

#include "app/item.h"
#include "app/task.h"
#include "lib/check.h"
#include "lib/log.h"
#include "lib/rqs.h"
#include "lib/syswrap.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

LOG_UNIT(LOG_MOD_APP);

static pl_source *backup_of(const pl_source *src, char (&name)[MAX_SRC_NAME]) {
    snprintf(name, sizeof(name), "%c%.*s", BACKUP_MARK, static_cast<int>(sizeof(name) - 2), src->nametag);
    CHECK(g_ctx.src_ht);
    return src_by_name(name);
}

static pl_source *find_backup(const pl_source *src) {
    char name[MAX_SRC_NAME];
    pl_source *bkup = backup_of(src, name);
    LOG(LL_DEBUG, "%s: is there bkup[%s] ?\n", "suspend_source", name);
    if (!bkup)
        LOG(LL_INFO, "%s: no bkup[%s] source found, rc=%d\n", "suspend_source", name, ESRCH);
    return bkup;
}

static bool is_same_dir(const char *a, const char *b) {
    struct stat sa;
    struct stat sb;
    return strcmp(a, b) == 0 ||
           (stat(a, &sa) == 0 && stat(b, &sb) == 0 && sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino);
}

// Under its main's directory none of its files would be found.
static bool shares_data_dir(const char *caller, const pl_source *src, const pl_source *bkup) {
    if (is_same_dir(src_data_dir(src), src_data_dir(bkup)))
        return true;
    LOG(LL_ERROR, "%s: bkup src[%s] cannot take over: its data directory is [%s], that of src[%s] is [%s]\n",
        caller, bkup->nametag, src_data_dir(bkup), src->nametag, src_data_dir(src));
    return false;
}

void check_partner(const pl_source *src) {
    char name[MAX_SRC_NAME];
    bool is_backup = is_backup_name(src->nametag);
    const pl_source *partner = is_backup ? src_by_name(src->nametag + 1) : backup_of(src, name);
    if (partner)
        shares_data_dir(__func__, is_backup ? partner : src, is_backup ? src : partner);
}

static void disconnect(pl_source *src) {
    if (src->sockfd >= 0) {
        rqs_rm_fd(src->sockfd);
        W_close("suspend_source", src->sockfd);
    }
    src->sockfd = -1;
    keep_partial(src, {});
}

int suspend_source(pl_source *src, int err) {
    LOG_FN(LL_INFO, "src[%s] fd%d, err=%d\n", src->nametag, src->sockfd, err);
    if (!src->is_defunct)
        src->last_item_tm = idle_clock();
    disconnect(src);
    if (is_backup_name(src->nametag)) {
        LOG(LL_WARN, "src[%s] suspended\n", src->nametag);
        return 0;
    }
    pl_source *bkup = find_backup(src);
    if (!bkup) {
        add_discontinuity(src);
        return 0;
    }
    LOG(LL_INFO, "bkup[%s] found (%p), fd%d [%s]\n", bkup->nametag, static_cast<void *>(bkup), bkup->sockfd,
        bkup->is_defunct ? "defunct" : "ok");
    if (!bkup->is_defunct)
        return roll_over(src, bkup);
    LOG(LL_WARN, "src[%s] suspended\n", src->nametag);
    return 0;
}

static void take_prefix(pl_source *src, pl_source *bkup) {
    static constexpr size_t COMPARED = 512;
    if (bkup->item_pfx && src->item_pfx && strncmp(bkup->item_pfx, src->item_pfx, COMPARED) == 0) {
        LOG(LL_DEBUG, "%s: same item prefix reported from bkup src[%s]: %s\n", "roll_over", bkup->nametag,
            bkup->item_pfx);
        return;
    }
    if (bkup->item_pfx && src->item_pfx)
        LOG(LL_WARN, "src[%s] changed item prefix from [%s] to [%s]\n", src->nametag, src->item_pfx,
            bkup->item_pfx);
    else if (bkup->item_pfx)
        LOG(LL_WARN, "src[%s] acquired NEW item prefix: %s\n", src->nametag, bkup->item_pfx);
    else if (src->item_pfx)
        LOG(LL_WARN, "src[%s] dropped item prefix, old prefix was: %s\n", src->nametag, src->item_pfx);
    free(src->item_pfx);
    src->item_pfx = bkup->item_pfx;
    bkup->item_pfx = nullptr;
}

// The backup's connection, registered for `src` too, with the partial line that is on its way.
static int take_connection(pl_source *src, pl_source *bkup) {
    CHECK(-1 == src->sockfd);
    int fd = dup(bkup->sockfd);
    if (fd < 0) {
        LOG(LL_ERROR, "%s: dup(fd%d) ERROR(%d): %s\n", "roll_over", bkup->sockfd, errno, strerror(errno));
        return -1;
    }
    src->sockfd = fd;
    CHECK(src->sockfd >= 0);
    LOG(LL_DEBUG, "%s: src[%s] -> fd%d\n", "roll_over", src->nametag, src->sockfd);
    if (rqs_add_reader(src->sockfd, src) != 0) {
        LOG(LL_ERROR, "%s: rqs_add_reader(fd%d,..) failed\n", "roll_over", src->sockfd);
        W_close("roll_over", src->sockfd);
        src->sockfd = -1;
        return -1;
    }
    keep_partial(src, partial_line(bkup));
    keep_partial(bkup, {});
    return 0;
}

static int take_over(pl_source *src, pl_source *bkup) {
    if (bkup->tasks.len > 0) {
        LOG(LL_ERROR, "%s: bkup src[%s] has %zu active tasks\n", "roll_over", bkup->nametag, bkup->tasks.len);
        return -1;
    }
    if (bkup->sockfd < 0) {
        LOG(LL_WARN, "%s: bkup src[%s] already suspended, cannot proceed\n", "roll_over", bkup->nametag);
        return -1;
    }
    if (!shares_data_dir("roll_over", src, bkup))
        return -1;
    src->awaits_backup = take_connection(src, bkup) != 0;
    if (src->awaits_backup)
        return -1;
    take_prefix(src, bkup);
    bkup->is_defunct = true;
    bkup->master = src;
    ++src->counts.take_overs;
    bkup->last_item_tm = 1;
    schedule_time_out();
    LOG(LL_INFO, "Roll-over from [%s]/fd%d to [%s]/fd%d completed\n", bkup->nametag, bkup->sockfd,
        src->nametag, src->sockfd);
    return 0;
}

int roll_over(pl_source *src, pl_source *bkup) {
    // Whether or not the backup can take over, the stream breaks here.
    add_discontinuity(src);
    return take_over(src, bkup);
}

void retry_take_over(pl_source *src) {
    if (!src->awaits_backup)
        return;
    src->awaits_backup = false;
    pl_source *bkup = src->sockfd < 0 ? find_backup(src) : nullptr;
    if (bkup && !bkup->is_defunct)
        take_over(src, bkup);
}
