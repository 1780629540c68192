#include "app/retry.h"

#include "lib/log.h"
#include "lib/syswrap.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

LOG_UNIT(LOG_MOD_APP);

static struct {
    char *names[MAX_DELETIONS_LEFT]; // owned
    size_t count;
} g_left;

static bool may_pass(int err) {
    return err == EIO || err == EACCES || err == EPERM || err == EROFS || err == EBUSY;
}

size_t deletions_left() {
    return g_left.count;
}

void forget_deletion(const char *path) {
    for (size_t i = 0; i < g_left.count; ++i)
        if (strcmp(g_left.names[i], path) == 0) {
            free(g_left.names[i]);
            g_left.names[i] = g_left.names[--g_left.count];
            return;
        }
}

int delete_file(const char *caller, const char *path) {
    if (W_unlink(caller, path) == 0)
        return 0;
    if (!may_pass(errno))
        return -1;
    forget_deletion(path);
    char *name = g_left.count < MAX_DELETIONS_LEFT ? strdup(path) : nullptr;
    if (name)
        g_left.names[g_left.count++] = name;
    else
        LOG(LL_ERROR, "%s: giving up on deleting [%s], %zu files wait already\n", caller, path, g_left.count);
    return -1;
}

// Keeps what another try may do; the last failure, 0 when nothing is left.
static int try_all() {
    int err = 0;
    size_t kept = 0;
    for (size_t i = 0; i < g_left.count; ++i) {
        char *name = g_left.names[i];
        if (unlink(name) != 0 && may_pass(errno)) {
            err = errno;
            g_left.names[kept++] = name;
            continue;
        }
        LOG(LL_DEBUG, "%s: [%s] is gone\n", "retry_deletions", name);
        free(name);
    }
    g_left.count = kept;
    return err;
}

void retry_deletions() {
    int err = try_all();
    if (err != 0)
        LOG_FN(LL_WARN, "%zu files still cannot be deleted, [%s] among them, ERROR(%d): %s\n", g_left.count,
               g_left.names[0], err, strerror(err));
}

void end_deletions() {
    int err = try_all();
    for (size_t i = 0; i < g_left.count; ++i) {
        LOG_FN(LL_ERROR, "giving up on deleting [%s], ERROR(%d): %s\n", g_left.names[i], err, strerror(err));
        free(g_left.names[i]);
    }
    g_left.count = 0;
}
