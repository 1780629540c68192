#include "lib/netops.h"

#include "lib/check.h"
#include "lib/log.h"
#include "lib/sigflag.h"
#include "lib/syswrap.h"
#include "lib/timeop.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <netdb.h>
#include <netinet/tcp.h>
#include <sys/un.h>
#include <unistd.h>

LOG_UNIT(LOG_MOD_APP);

static constexpr int BACKLOG = 128;
static constexpr size_t ADDR_TEXT_SIZE = 128; // "host:port" with the terminating zero
static constexpr size_t MIN_HOST_LEN = 7;     // the shortest dotted IPv4 address
static constexpr size_t UNIX_PATH_SIZE = sizeof(sockaddr_un::sun_path);

// --- UNIX-domain sockets ---

static sockaddr_un unix_address(const char *path) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, path, strnlen(path, UNIX_PATH_SIZE - 1));
    return addr;
}

static int remove_stale(const char *caller, const char *path) {
    if (unlink(path) == 0 || errno == ENOENT)
        return 0;
    LOG(LL_ERROR, "%s: unlink ERROR(%d): %s\n", caller, errno, strerror(errno));
    return -1;
}

// An empty path would bind a nameless address that no peer can reach.
static bool listen_at(const char *caller, int fd, const char *path) {
    sockaddr_un addr = unix_address(path);
    return path[0] != '\0' && set_nblock(fd, true) == 0 && remove_stale(caller, path) == 0 &&
           W_bind(caller, fd, reinterpret_cast<const sockaddr *>(&addr), sizeof(addr)) == 0 &&
           W_listen(caller, fd, BACKLOG) == 0;
}

int open_domain_listener(const char *path) {
    fd_guard sock(W_socket(__func__, AF_UNIX, SOCK_STREAM, 0));
    if (sock.fd >= 0 && listen_at(__func__, sock.fd, path))
        return sock.release();
    LOG_FN(LL_ERROR, "failed for path=[%s]\n", path);
    return -1;
}

// False when the pause was cut short.
static bool pause_for(long ms) {
    timespec span;
    ms2timespec(ms, &span);
    return ms <= 0 || nanosleep(&span, nullptr) == 0;
}

int open_domain_client(const char *path, long attempts, long pause_ms) {
    if (strlen(path) >= UNIX_PATH_SIZE) {
        LOG_FN(LL_ERROR, "path is too long (%zu bytes), max=%zu\n", strlen(path), UNIX_PATH_SIZE - 1);
        return -1;
    }
    fd_guard sock(W_socket(__func__, AF_UNIX, SOCK_STREAM, 0));
    if (sock.fd < 0)
        return -1;
    sockaddr_un addr = unix_address(path);
    long made = 0;
    while (made < attempts && !g_quit) {
        made++;
        LOG_FN(LL_DEBUG, "attempt %ld out of %ld to connect to [%s]\n", made, attempts, path);
        if (W_connect(__func__, sock.fd, reinterpret_cast<const sockaddr *>(&addr), sizeof(addr)) == 0) {
            LOG_FN(LL_INFO, "fd=%d connected to [%s]\n", sock.fd, path);
            return sock.release();
        }
        if (!pause_for(pause_ms))
            break;
    }
    if (!g_quit)
        LOG_FN(LL_ERROR, "failed to connect to [%s] after %ld attempt(s)\n", path, made);
    return -1;
}

// --- listeners on address records ---

// 0..65535, or -1.
static long port_number(const char *text) {
    long port = is_decimal(text) ? strtol(text, nullptr, 10) : -1;
    return port >= 0 && port <= UINT16_MAX ? port : -1;
}

static void put_port(sockaddr_storage *addr, long port) {
    static_assert(offsetof(sockaddr_in, sin_port) == offsetof(sockaddr_in6, sin6_port));
    uint16_t value = htons(static_cast<uint16_t>(port));
    memcpy(reinterpret_cast<char *>(addr) + offsetof(sockaddr_in, sin_port), &value, sizeof(value));
}

// A bound non-blocking socket, or -1; a null port leaves the one in the address.
static int open_bound(const char *caller, const sockaddr *addr, const char *port, int socktype) {
    long number = port ? port_number(port) : 0;
    if (port && number < 1) {
        LOG(LL_ERROR, "%s: invalid port number: %s\n", caller, port);
        return -1;
    }
    if (addr->sa_family != AF_INET && addr->sa_family != AF_INET6) {
        LOG(LL_ERROR, "%s: invalid network family: %d\n", caller, addr->sa_family);
        return -1;
    }
    sockaddr_storage local{};
    socklen_t len = saddr_len(addr->sa_family);
    memcpy(&local, addr, len);
    if (port)
        put_port(&local, number);
    fd_guard sock(W_socket(caller, addr->sa_family, socktype, 0), caller);
    if (sock.fd < 0 || reuse_and_bind(sock.fd, reinterpret_cast<sockaddr *>(&local), len) != 0 ||
        set_nblock(sock.fd, true) != 0)
        return -1;
    return sock.release();
}

int open_listener(const sockaddr *addr, const char *port, bool no_listen) {
    fd_guard sock(open_bound(__func__, addr, port ? port : "", SOCK_STREAM));
    if (sock.fd < 0 || (!no_listen && W_listen(__func__, sock.fd, BACKLOG) != 0))
        return -1;
    return sock.release();
}

int open_udp_listener(const sockaddr *addr, const char *port) {
    return open_bound(__func__, addr, port && port[0] ? port : nullptr, SOCK_DGRAM);
}

int open_anyaddr_listener(int family, const char *port, bool no_listen) {
    sock_spec spec;
    spec.role = SOCK_LISTENER;
    spec.family = family;
    spec.port = port;
    spec.no_listen = no_listen;
    return open_socket(spec, nullptr, nullptr);
}

// The unspecified IPv6 address serves IPv4 peers too.
static int bind_dual(const char *caller, int fd, const sockaddr *addr, socklen_t len) {
    const int off = 0;
    if (addr->sa_family == AF_INET6 && is_anyaddr(addr) &&
        W_setsockopt(caller, fd, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof(off)) != 0)
        return -1;
    return reuse_and_bind(fd, addr, len) == 0 ? 0 : -1;
}

int setup_listener(int fd, const sockaddr *addr, socklen_t len, int socktype, bool must_connect) {
    if (must_connect) {
        LOG_FN(LL_DEBUG, "CONNECT [%d]\n", fd);
        return W_connect(__func__, fd, addr, len);
    }
    if (bind_dual(__func__, fd, addr, len) != 0)
        return -1;
    return socktype == SOCK_STREAM ? W_listen(__func__, fd, BACKLOG) : 0;
}

// --- the general opener ---

static const char *any_if_null(const char *text) {
    return text ? text : "<any>";
}

// A list to be freed by the caller; null (logged) when the texts do not resolve. The resolver would silently
// keep the low 16 bits of a larger port number.
static addrinfo *resolve(const char *caller, const char *host, const char *port, const addrinfo &hints) {
    if (port && is_decimal(port) && port_number(port) < 0) {
        LOG(LL_ERROR, "%s: invalid port number: %s\n", caller, port);
        return nullptr;
    }
    addrinfo *list = nullptr;
    int rc = W_getaddrinfo(caller, host, port ? port : "0", &hints, &list);
    if (rc == 0)
        return list;
    LOG(LL_ERROR, "%s: cannot resolve [%s:%s]: %s\n", caller, any_if_null(host), port ? port : "",
        gai_strerror(rc));
    return nullptr;
}

static addrinfo make_hints(int family, int socktype, int proto, int flags) {
    addrinfo hints{};
    hints.ai_family = family;
    hints.ai_socktype = socktype;
    hints.ai_protocol = proto;
    hints.ai_flags = flags;
    return hints;
}

static int setup_client(const char *caller, int fd, const addrinfo &target) {
    if (setup_listener(fd, target.ai_addr, target.ai_addrlen, target.ai_socktype, true) == 0)
        return 0;
    if (errno != EINPROGRESS)
        return -1;
    LOG(LL_DEBUG, "%s: connection in progress for fd%d\n", caller, fd);
    return 0;
}

static int join_as_reader(const char *caller, const sock_spec &spec, int fd, const addrinfo &group,
                          const ifc_info *ifc) {
    if (!spec.ssm_source)
        return setup_mcast_reader(fd, group.ai_addr, group.ai_addrlen, nullptr, ifc);
    addrinfo *source =
        resolve(caller, spec.ssm_source, nullptr, make_hints(group.ai_family, SOCK_DGRAM, 0, AI_NUMERICHOST));
    if (!source)
        return -1;
    int rc = setup_mcast_reader(fd, group.ai_addr, group.ai_addrlen, source->ai_addr, ifc);
    freeaddrinfo(source);
    return rc;
}

static int setup_multicast(const char *caller, const sock_spec &spec, int fd, const addrinfo &group) {
    ifc_info found{};
    const ifc_info *ifc = spec.ifc ? &found : nullptr;
    if (ifc && get_ifc_info(spec.ifc, group.ai_family, &found) != 0)
        return -1;
    if (spec.role != SOCK_CLIENT)
        return join_as_reader(caller, spec, fd, group, ifc);
    if (setup_mcast_writer(fd, group.ai_addr, group.ai_addrlen, ifc, spec.ttl) != 0)
        return -1;
    return spec.must_connect ? setup_client(caller, fd, group) : 0;
}

static int setup_unicast(const char *caller, const sock_spec &spec, int fd, const addrinfo &target) {
    if (spec.must_connect || (spec.role == SOCK_CLIENT && spec.socktype == SOCK_STREAM))
        return setup_client(caller, fd, target);
    if (spec.role == SOCK_CLIENT)
        return 0;
    if (spec.no_listen || spec.role == SOCK_SERVER)
        return bind_dual(caller, fd, target.ai_addr, target.ai_addrlen);
    return setup_listener(fd, target.ai_addr, target.ai_addrlen, spec.socktype, false);
}

// Opens and sets up one resolved address.
static int open_resolved(const char *caller, const sock_spec &spec, const addrinfo &target) {
    bool multicast = spec.socktype == SOCK_DGRAM && is_multicast(target.ai_addr);
    if (spec.is_multicast && !multicast) {
        LOG(LL_ERROR, "%s: [%s] is no UDP multicast group\n", caller, any_if_null(spec.host));
        return -1;
    }
    fd_guard sock(W_socket(caller, target.ai_family, target.ai_socktype, target.ai_protocol), caller);
    if (sock.fd < 0 || (spec.non_blocking && set_nblock(sock.fd, true) != 0))
        return -1;
    int rc = multicast ? setup_multicast(caller, spec, sock.fd, target)
                       : setup_unicast(caller, spec, sock.fd, target);
    if (rc != 0)
        return -1;
    LOG(LL_DEBUG, "%s: %s %s socket fd=[%d]\n", caller, spec.socktype == SOCK_STREAM ? "TCP" : "UDP",
        multicast ? "multicast" : "unicast", sock.fd);
    return sock.release();
}

int open_socket(const sock_spec &spec, sockaddr_storage *addr, socklen_t *addrlen) {
    static constexpr const char *role_words[] = {"LISTENER", "SERVER", "CLIENT"};
    int flags = spec.role == SOCK_CLIENT ? 0 : AI_PASSIVE;
    addrinfo *list =
        resolve(__func__, spec.host, spec.port, make_hints(spec.family, spec.socktype, 0, flags));
    int fd = -1;
    for (const addrinfo *ai = list; ai && fd < 0; ai = ai->ai_next) {
        LOG_FN(LL_DEBUG, "%s %s [%s (%d)] socket for [%s:%s], ifc=%s\n", role_words[spec.role],
               spec.socktype == SOCK_STREAM ? "TCP" : "UDP", af_name(ai->ai_family), ai->ai_family,
               any_if_null(spec.host), spec.port ? spec.port : "", any_if_null(spec.ifc));
        fd = open_resolved(__func__, spec, *ai);
        if (fd >= 0 && addr && addrlen) {
            memcpy(addr, ai->ai_addr, ai->ai_addrlen);
            *addrlen = ai->ai_addrlen;
        }
    }
    if (list)
        freeaddrinfo(list);
    return fd;
}

// --- "host:port" texts ---

// Splits at the last colon into `host` and `port`; 0, EINVAL or -1.
static int split_address(const char *caller, const char *text, char (&host)[ADDR_TEXT_SIZE],
                         const char **port) {
    const char *colon = strrchr(text, ':');
    if (!colon || strlen(text) >= ADDR_TEXT_SIZE) {
        LOG(LL_ERROR, "%s: invalid address/port: %s\n", caller, text);
        return -1;
    }
    size_t host_len = colon - text;
    memcpy(host, text, host_len);
    host[host_len] = '\0';
    if (host_len < MIN_HOST_LEN || is_decimal(host)) {
        LOG(LL_ERROR, "%s: cannot accept plain number [%s] as IP address\n", caller, host);
        return EINVAL;
    }
    *port = colon + 1;
    if (!is_decimal(*port)) {
        LOG(LL_ERROR, "%s: port must be plain decimal number [%s]\n", caller, *port);
        return -1;
    }
    if (port_number(*port) < 0) {
        LOG(LL_ERROR, "%s: invalid address/port: %s\n", caller, text);
        return -1;
    }
    return 0;
}

static bool can_open(const char *caller, const addrinfo &ai) {
    fd_guard probe(W_socket(caller, ai.ai_family, ai.ai_socktype, ai.ai_protocol), caller);
    LOG(LL_DEBUG, "%s: %s af=%s (%d), proto = %d\n", caller, probe.fd >= 0 ? "OK" : "BAD",
        af_name(ai.ai_family), ai.ai_family, ai.ai_protocol);
    return probe.fd >= 0;
}

int mk_sockaddr(const char *text, int socktype, int proto, sockaddr_storage *addr, socklen_t *len) {
    CHECK(socktype == SOCK_STREAM || socktype == SOCK_DGRAM);
    LOG_FN(LL_DEBUG, "%s(%d) address for [%s]\n", socktype == SOCK_STREAM ? "STREAM" : "DGRAM", socktype,
           text);
    char host[ADDR_TEXT_SIZE];
    const char *port = nullptr;
    if (int rc = split_address(__func__, text, host, &port); rc != 0)
        return rc;
    addrinfo hints = make_hints(AF_UNSPEC, socktype, proto, 0);
    addrinfo *list = nullptr;
    if (W_getaddrinfo(__func__, host, port, &hints, &list) != 0) {
        LOG_FN(LL_ERROR, "failed for [%s]\n", text);
        return -1;
    }
    const addrinfo *ai = list;
    while (ai && !can_open(__func__, *ai))
        ai = ai->ai_next;
    if (ai) {
        memcpy(addr, ai->ai_addr, ai->ai_addrlen);
        *len = ai->ai_addrlen;
    }
    freeaddrinfo(list);
    return ai ? 0 : -1;
}

bool ends_with_port(const char *text) {
    const char *colon = strrchr(text, ':');
    return colon && colon[1] && colon[1 + strspn(colon + 1, "0123456789")] == '\0';
}

bool is_decimal(const char *text) {
    if (*text == '-' || *text == '+')
        text++;
    return *text && text[strspn(text, "0123456789")] == '\0';
}
