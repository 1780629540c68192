// What the socket openers stand on: addresses, interfaces, options.
#include "lib/netops.h"

#include "lib/log.h"
#include "lib/syswrap.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <strings.h>
#include <sys/un.h>

LOG_UNIT(LOG_MOD_APP);

static constexpr size_t UNIX_PATH_SIZE = sizeof(sockaddr_un::sun_path);

sockaddr_in as_in(const sockaddr *addr) {
    sockaddr_in out;
    memcpy(&out, addr, sizeof(out));
    return out;
}

sockaddr_in6 as_in6(const sockaddr *addr) {
    sockaddr_in6 out;
    memcpy(&out, addr, sizeof(out));
    return out;
}

void copy_addr(sockaddr_storage *to, const sockaddr *from, socklen_t len) {
    memcpy(to, from, std::min<size_t>(len, sizeof(*to)));
}

// --- address inspection ---

socklen_t saddr_len(int family) {
    switch (family) {
    case AF_INET:
        return sizeof(sockaddr_in);
    case AF_INET6:
        return sizeof(sockaddr_in6);
    case AF_UNIX:
        return sizeof(sockaddr_un);
    default:
        return 0;
    }
}

bool is_anyaddr(const sockaddr *addr) {
    if (addr->sa_family == AF_INET)
        return as_in(addr).sin_addr.s_addr == htonl(INADDR_ANY);
    if (addr->sa_family != AF_INET6)
        return false;
    sockaddr_in6 in6 = as_in6(addr);
    return IN6_IS_ADDR_UNSPECIFIED(&in6.sin6_addr);
}

bool is_multicast(const sockaddr *addr) {
    if (addr->sa_family == AF_INET)
        return IN_MULTICAST(ntohl(as_in(addr).sin_addr.s_addr));
    if (addr->sa_family != AF_INET6)
        return false;
    sockaddr_in6 in6 = as_in6(addr);
    return IN6_IS_ADDR_MULTICAST(&in6.sin6_addr);
}

static bool unix_equal(const sockaddr *a, const sockaddr *b) {
    sockaddr_un x, y;
    memcpy(&x, a, sizeof(x));
    memcpy(&y, b, sizeof(y));
    return strncmp(x.sun_path, y.sun_path, sizeof(x.sun_path)) == 0;
}

bool saddr_equal(const sockaddr *a, const sockaddr *b) {
    if (a->sa_family != b->sa_family)
        return false;
    if (a->sa_family == AF_UNIX)
        return unix_equal(a, b);
    if (a->sa_family == AF_INET) {
        sockaddr_in x = as_in(a), y = as_in(b);
        return x.sin_port == y.sin_port && x.sin_addr.s_addr == y.sin_addr.s_addr;
    }
    if (a->sa_family != AF_INET6)
        return false;
    sockaddr_in6 x = as_in6(a), y = as_in6(b);
    return x.sin6_port == y.sin6_port && IN6_ARE_ADDR_EQUAL(&x.sin6_addr, &y.sin6_addr);
}

// --- printable addresses and families ---

// A path that fills its field has no terminator; an unnamed peer's address ends before the path.
static const char *unix_addr_str(const sockaddr *addr, socklen_t len, char *buf, size_t size) {
    constexpr size_t path_at = offsetof(sockaddr_un, sun_path);
    size_t room = len > path_at ? std::min(len - path_at, UNIX_PATH_SIZE) : 0;
    const char *path = reinterpret_cast<const char *>(addr) + path_at;
    snprintf(buf, size, "DOMAIN %.*s:%s", static_cast<int>(strnlen(path, room)), path, "");
    return buf;
}

const char *saddr_str(const sockaddr *addr, socklen_t len, char *buf, size_t size) {
    if (addr->sa_family == AF_UNIX)
        return unix_addr_str(addr, len, buf, size);
    char host[NI_MAXHOST], service[NI_MAXSERV];
    int rc =
        getnameinfo(addr, len, host, sizeof(host), service, sizeof(service), NI_NUMERICHOST | NI_NUMERICSERV);
    if (rc != 0) {
        LOG_FN(LL_ERROR, "getnameinfo error (%d): %s\n", rc, gai_strerror(rc));
        return nullptr;
    }
    snprintf(buf, size, addr->sa_family == AF_INET6 ? "[%s]:%s" : "%s:%s", host, service);
    return buf;
}

int name2af(const char *word) {
    static constexpr struct {
        const char *word;
        int family;
    } families[] = {{"inet4", AF_INET},     {"inet", AF_INET},   {"ipv4", AF_INET},  {"af_inet", AF_INET},
                    {"pf_inet", AF_INET},   {"inet6", AF_INET6}, {"ipv6", AF_INET6}, {"af_inet6", AF_INET6},
                    {"pf_inet6", AF_INET6}, {"", AF_UNSPEC},     {"any", AF_UNSPEC}, {"unspec", AF_UNSPEC},
                    {"anyaddr", AF_UNSPEC}, {"all", AF_UNSPEC}};
    for (const auto &entry : families)
        if (strcasecmp(word, entry.word) == 0)
            return entry.family;
    LOG_FN(LL_ERROR, "unsupported address family [%s] in configuration.", word);
    return -1;
}

const char *af_name(int family) {
    switch (family) {
    case AF_INET:
        return "IPv4";
    case AF_INET6:
        return "IPv6";
    case AF_UNSPEC:
        return "UNSPEC";
    default:
        return "#??#";
    }
}

// --- interfaces ---

static bool is_address_of(const ifaddrs &entry, const char *name, int family) {
    if (!entry.ifa_addr || strcmp(entry.ifa_name, name) != 0)
        return false;
    int af = entry.ifa_addr->sa_family;
    return family == AF_UNSPEC ? af == AF_INET || af == AF_INET6 : af == family;
}

int get_ifc_info(const char *name, int family, ifc_info *out) {
    *out = {};
    out->index = if_nametoindex(name);
    if (out->index == 0) {
        LOG_FN(LL_ERROR, "if_nametoindex(%s) ERROR(%d): %s\n", name, errno, strerror(errno));
        return -1;
    }
    memcpy(out->name, name, strnlen(name, sizeof(out->name) - 1));
    ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0) {
        LOG_FN(LL_ERROR, "getifaddrs() ERROR(%d): %s\n", errno, strerror(errno));
        return -1;
    }
    const ifaddrs *entry = list;
    while (entry && !is_address_of(*entry, name, family))
        entry = entry->ifa_next;
    if (entry) {
        out->addrlen = saddr_len(entry->ifa_addr->sa_family);
        copy_addr(&out->addr, entry->ifa_addr, out->addrlen);
    }
    freeifaddrs(list);
    return 0;
}

// --- options ---

// The descriptor's flags, or -1.
static int status_flags(const char *caller, int fd) {
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0)
        LOG(LL_ERROR, "%s: fcntl(%d, F_GETFL) ERROR(%d): %s\n", caller, fd, errno, strerror(errno));
    return flags;
}

int set_nblock(int fd, bool on) {
    int flags = status_flags(__func__, fd);
    if (flags < 0)
        return -1;
    int wanted = on ? flags | O_NONBLOCK : flags & ~O_NONBLOCK;
    if (wanted != flags && fcntl(fd, F_SETFL, wanted) < 0) {
        LOG_FN(LL_ERROR, "fcntl(%d, F_SETFL, %d) ERROR(%d): %s\n", fd, wanted, errno, strerror(errno));
        return -1;
    }
    LOG_FN(LL_DEBUG, "fd%d set as %sblocking\n", fd, on ? "non-" : "");
    return 0;
}

bool is_non_blocking(int fd) {
    int flags = status_flags(__func__, fd);
    return flags >= 0 && (flags & O_NONBLOCK) != 0;
}

static timeval ms2timeval(long ms) {
    timeval span{};
    span.tv_sec = ms / 1000;
    span.tv_usec = ms % 1000 * 1000;
    return span;
}

int set_rcv_timeout(int fd, long ms) {
    timeval span = ms2timeval(ms);
    return W_setsockopt(__func__, fd, SOL_SOCKET, SO_RCVTIMEO, &span, sizeof(span));
}

int set_send_timeout(int fd, long ms) {
    timeval span = ms2timeval(ms);
    return W_setsockopt(__func__, fd, SOL_SOCKET, SO_SNDTIMEO, &span, sizeof(span));
}

int set_socket_sendbuf(int fd, int64_t bytes) {
    return W_setsockopt(__func__, fd, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof(bytes));
}

int set_socket_rcvbuf(int fd, int64_t bytes) {
    return W_setsockopt(__func__, fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof(bytes));
}

int set_keepalive(int fd, bool on) {
    int value = on;
    if (setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &value, sizeof(value)) != 0) {
        LOG_FN(LL_ERROR, "setsockopt(fd%d, SOL_SOCKET, SO_KEEPALIVE, %d,..) ERROR(%d): %s\n", fd, value,
               errno, strerror(errno));
        return -1;
    }
    LOG_FN(LL_DEBUG, "[%s] for fd%d\n", on ? "ON" : "OFF", fd);
    return 0;
}

int set_tcp_nodelay(int fd, bool on) {
    int value = on;
    if (W_setsockopt(__func__, fd, IPPROTO_TCP, TCP_NODELAY, &value, sizeof(value)) != 0)
        return -1;
    LOG(LL_INFO, "TCP_NODELAY turned %s for [fd=%d]\n", on ? "ON" : "OFF", fd);
    return 0;
}

int socket_error(int fd) {
    int err = 0;
    socklen_t len = sizeof(err);
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0)
        err = errno;
    if (err == 0)
        return 0;
    LOG(LL_ERROR, "%s(fd%d) ERROR(%d): %s\n", __func__, fd, err, strerror(err));
    errno = err;
    return err;
}

int reuse_and_bind(int fd, const sockaddr *addr, socklen_t len) {
    const int on = 1;
    if (W_setsockopt(__func__, fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0)
        return errno;
    setsockopt(fd, SOL_SOCKET, SO_REUSEPORT, &on, sizeof(on));
    if (W_bind(__func__, fd, addr, len) != 0)
        return errno;
    char buf[SADDR_STR_SIZE];
    const char *text = saddr_str(addr, len, buf, sizeof(buf));
    LOG_FN(LL_DEBUG, "fd=%d %s OK\n", fd, text ? text : "?");
    return 0;
}
