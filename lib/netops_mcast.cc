#include "lib/netops.h"

#include "lib/log.h"
#include "lib/syswrap.h"

#include <cstring>

LOG_UNIT(LOG_MOD_APP);

// --- group membership ---

// Option level and interface index of a group; 0 = the system's choice.
struct mcast_target {
    int level;
    unsigned index;
};

static bool is_local_scope(const in6_addr &group) {
    return IN6_IS_ADDR_MC_LINKLOCAL(&group) || IN6_IS_ADDR_MC_NODELOCAL(&group);
}

// 0, or -1 (logged) for a group that cannot be used this way.
static int find_target(const char *caller, const sockaddr *group, const ifc_info *ifc, mcast_target *out) {
    out->index = ifc ? ifc->index : 0;
    if (group->sa_family == AF_INET) {
        out->level = IPPROTO_IP;
        return 0;
    }
    if (group->sa_family != AF_INET6) {
        LOG(LL_ERROR, "%s: invalid network family: %d\n", caller, group->sa_family);
        return -1;
    }
    out->level = IPPROTO_IPV6;
    sockaddr_in6 in6 = as_in6(group);
    if (!ifc)
        out->index = in6.sin6_scope_id;
    if (out->index == 0 && is_local_scope(in6.sin6_addr)) {
        LOG(LL_ERROR, "%s: network interface must be specified to use link/local-scope multicast\n", caller);
        return -1;
    }
    return 0;
}

static int any_source(const char *caller, int fd, int option, const sockaddr *group, socklen_t len,
                      const ifc_info *ifc) {
    mcast_target target;
    if (find_target(caller, group, ifc, &target) != 0)
        return -1;
    group_req req{};
    req.gr_interface = target.index;
    copy_addr(&req.gr_group, group, len);
    return W_setsockopt(caller, fd, target.level, option, &req, sizeof(req));
}

static int one_source(const char *caller, int fd, int option, const sockaddr *group, const sockaddr *source,
                      socklen_t len, const ifc_info *ifc) {
    mcast_target target;
    if (find_target(caller, group, ifc, &target) != 0)
        return -1;
    group_source_req req{};
    req.gsr_interface = target.index;
    copy_addr(&req.gsr_group, group, len);
    copy_addr(&req.gsr_source, source, len);
    return W_setsockopt(caller, fd, target.level, option, &req, sizeof(req));
}

int mcast_join(int fd, const sockaddr *group, socklen_t len, const ifc_info *ifc) {
    return any_source(__func__, fd, MCAST_JOIN_GROUP, group, len, ifc);
}

int mcast_leave(int fd, const sockaddr *group, socklen_t len, const ifc_info *ifc) {
    return any_source(__func__, fd, MCAST_LEAVE_GROUP, group, len, ifc);
}

int ssm_join(int fd, const sockaddr *group, const sockaddr *source, socklen_t len, const ifc_info *ifc) {
    return one_source(__func__, fd, MCAST_JOIN_SOURCE_GROUP, group, source, len, ifc);
}

int ssm_leave(int fd, const sockaddr *group, const sockaddr *source, socklen_t len, const ifc_info *ifc) {
    return one_source(__func__, fd, MCAST_LEAVE_SOURCE_GROUP, group, source, len, ifc);
}

// --- readers and writers ---

static void log_setup(const char *caller, int fd, const ifc_info *ifc) {
    LOG(LL_DEBUG, "%s: fd=%d, ifc=[%s]:%p\n", caller, fd, ifc ? ifc->name : "<any>",
        static_cast<const void *>(ifc));
}

// Binding to the group, not to any address, keeps other groups' datagrams on the same port out.
static int bind_to_group(int fd, const sockaddr *group, socklen_t len, const mcast_target &target) {
    sockaddr_storage local{};
    copy_addr(&local, group, len);
    if (target.level == IPPROTO_IPV6) {
        uint32_t scope = target.index;
        memcpy(reinterpret_cast<char *>(&local) + offsetof(sockaddr_in6, sin6_scope_id), &scope,
               sizeof(scope));
    }
    return reuse_and_bind(fd, reinterpret_cast<sockaddr *>(&local), len) == 0 ? 0 : -1;
}

int setup_mcast_reader(int fd, const sockaddr *group, socklen_t len, const sockaddr *source,
                       const ifc_info *ifc) {
    log_setup(__func__, fd, ifc);
    mcast_target target;
    if (find_target(__func__, group, ifc, &target) != 0 || bind_to_group(fd, group, len, target) != 0)
        return -1;
    return source ? ssm_join(fd, group, source, len, ifc) : mcast_join(fd, group, len, ifc);
}

// An IPv4 interface's own address becomes the source of what is sent.
static int choose_interface(const char *caller, int fd, const mcast_target &target, const ifc_info *ifc) {
    if (target.index == 0)
        return 0;
    int index = static_cast<int>(target.index);
    if (target.level == IPPROTO_IPV6)
        return W_setsockopt(caller, fd, IPPROTO_IPV6, IPV6_MULTICAST_IF, &index, sizeof(index));
    ip_mreqn req{};
    req.imr_ifindex = index;
    if (ifc->addr.ss_family == AF_INET)
        req.imr_address = as_in(reinterpret_cast<const sockaddr *>(&ifc->addr)).sin_addr;
    return W_setsockopt(caller, fd, IPPROTO_IP, IP_MULTICAST_IF, &req, sizeof(req));
}

int setup_mcast_writer(int fd, const sockaddr *group, socklen_t, const ifc_info *ifc, int ttl) {
    log_setup(__func__, fd, ifc);
    mcast_target target;
    if (find_target(__func__, group, ifc, &target) != 0 || choose_interface(__func__, fd, target, ifc) != 0)
        return -1;
    return ttl < 0 ? 0 : set_mcast_ttl(fd, group->sa_family, ttl);
}

int set_mcast_ttl(int fd, int family, int ttl) {
    if (family == AF_INET6)
        return W_setsockopt(__func__, fd, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, &ttl, sizeof(ttl));
    return W_setsockopt(__func__, fd, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof(ttl));
}
