#include "app/mdr.h"

#include "lib/log.h"
#include "lib/syswrap.h"
#include "lib/usock.h"

#include <cerrno>
#include <cstring>
#include <new>

LOG_UNIT(LOG_MOD_APP);

static constexpr size_t DATAGRAM_SIZE = 1400; // with a terminating zero that is not sent

struct mdr_ctx {
    mdrep_cfg spec;
    size_t lidnum; // last id used
    int pub_fd;    // -1 = none
    usock_ctx uc;
    const char *mcast_ifc; // into `spec`; null = the system's choice
    char buf[DATAGRAM_SIZE];
};

mdr_t mdr_open(const mdrep_cfg *cfg) {
    mdr_t mdr = new (std::nothrow) mdr_ctx{};
    if (!mdr) {
        LOG_FN(LL_ERROR, "ERROR(%d): %s\n", ENOMEM, strerror(ENOMEM));
        return nullptr;
    }
    mdr->spec = *cfg;
    mdr->lidnum = cfg->lid_min;
    mdr->mcast_ifc = mdr->spec.mcast_ifc[0] ? mdr->spec.mcast_ifc : nullptr;
    int rc = usock_open(mdr->spec.url, mdr->mcast_ifc, &mdr->uc);
    mdr->pub_fd = mdr->uc.fd;
    if (rc != 0)
        LOG_FN(LL_ERROR, "cannot open [%s]\n", cfg->url);
    if (mdr->uc.socktype != SOCK_DGRAM) {
        LOG_FN(LL_ERROR, "non-UDP URLs not supported [%s]\n", cfg->url);
        rc = -1;
    }
    if (rc != 0) {
        mdr_close(mdr);
        return nullptr;
    }
    LOG_FN(LL_INFO, "OK [%s], fd%d (%p)\n", cfg->url, mdr->pub_fd, static_cast<void *>(mdr));
    return mdr;
}

int mdr_send(mdr_t mdr, const char *path, time_t expiry) {
    const mdrep_cfg &spec = mdr->spec;
    // The first report carries lid_min + 1; from then on the ids cycle through the whole range.
    if (++mdr->lidnum > spec.lid_max)
        mdr->lidnum = spec.lid_min;
    memset(mdr->buf, 0, sizeof(mdr->buf));
    ssize_t n = snprintf(mdr->buf, sizeof(mdr->buf), "#!%s-%zu /src/%s/%s/dst/ %ld #EOM", spec.lid_pfx,
                         mdr->lidnum, spec.src_base, path, static_cast<long>(expiry));
    if (n < 1 || n >= static_cast<ssize_t>(sizeof(mdr->buf))) {
        LOG_FN(LL_ERROR, "n=%zd is out of bounds\n", n);
        return -1;
    }
    LOG_FN(LL_DEBUG, "sending [%s]\n", mdr->buf);
    ssize_t sent = sendto(mdr->pub_fd, mdr->buf, static_cast<size_t>(n), MSG_DONTWAIT | MSG_NOSIGNAL,
                          reinterpret_cast<const sockaddr *>(&mdr->uc.addr), mdr->uc.addrlen);
    if (sent == n) {
        LOG_FN(LL_DEBUG, "%zd bytes sent\n", sent);
        return 0;
    }
    LOG_FN(LL_ERROR, "sendto(fd%d,..) n/sent=%zd/%zd ERROR(%d): %s\n", mdr->pub_fd, n, sent, errno,
           strerror(errno));
    return -1;
}

void mdr_reconfigure(mdr_t mdr, const mdrep_cfg *cfg) {
    if (!mdr) {
        if (cfg->is_enabled)
            LOG_FN(LL_WARN, "reports to [%s] start with the next start of the daemon\n", cfg->url);
        return;
    }
    mdrep_cfg &spec = mdr->spec;
    spec.is_enabled = cfg->is_enabled;
    if (!cfg->is_enabled)
        return;
    if (strcmp(spec.url, cfg->url) != 0 || strcmp(spec.mcast_ifc, cfg->mcast_ifc) != 0)
        LOG_FN(LL_WARN, "still publishing to [%s], the new address takes effect at the next start\n",
               spec.url);
    memcpy(spec.lid_pfx, cfg->lid_pfx, sizeof(spec.lid_pfx));
    memcpy(spec.src_base, cfg->src_base, sizeof(spec.src_base));
    spec.lid_min = cfg->lid_min;
    spec.lid_max = cfg->lid_max;
    if (mdr->lidnum < spec.lid_min || mdr->lidnum > spec.lid_max)
        mdr->lidnum = spec.lid_min;
}

void mdr_close(mdr_t mdr) {
    if (!mdr)
        return;
    LOG_FN(LL_DEBUG, "[%s] fd%d %p\n", mdr->spec.url, mdr->pub_fd, static_cast<void *>(mdr));
    usock_close(&mdr->uc);
    delete mdr;
}
