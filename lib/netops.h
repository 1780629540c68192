// Socket set-up and inspection: UNIX-domain, TCP and UDP sockets, options, printable addresses, multicast
// membership. Failures are logged once with the function's name; a descriptor opened by a failing operation
// is closed before it returns. Results are 0 or a descriptor, -1 (or errno where said) on failure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

// A network interface: its name, index and first addresses.
struct ifc_info {
    char name[IF_NAMESIZE];
    unsigned index;
    sockaddr_storage addr; // family 0 = none
    socklen_t addrlen;
};

// Large enough for saddr_str of any family.
inline constexpr size_t SADDR_STR_SIZE = 1088;

// A non-blocking listener at `path`; a stale file there is removed first.
int open_domain_listener(const char *path);
// A blocking client; `attempts` tries, `pause_ms` apart, while the daemon is not quitting.
int open_domain_client(const char *path, long attempts, long pause_ms);

// Non-blocking TCP listener at the address; with `no_listen` it is only bound.
int open_listener(const sockaddr *addr, const char *port, bool no_listen);
int open_udp_listener(const sockaddr *addr, const char *port);
int open_anyaddr_listener(int family, const char *port, bool no_listen);

enum sock_role { SOCK_LISTENER, SOCK_SERVER, SOCK_CLIENT };
struct sock_spec {
    sock_role role = SOCK_CLIENT;
    int socktype = SOCK_STREAM;
    int family = AF_UNSPEC;
    const char *host = nullptr; // null = any address
    const char *port = nullptr;
    bool is_multicast = false;
    const char *ssm_source = nullptr; // source-specific multicast
    const char *ifc = nullptr;        // interface name, null = the system's choice
    bool no_listen = false;
    bool non_blocking = true;
    bool must_connect = false; // UDP clients: connect to the address
    int ttl = -1;              // multicast writers; -1 = the system's
};
// The general opener for text addresses. With `addr` and `addrlen` given, the resolved address is stored.
int open_socket(const sock_spec &spec, sockaddr_storage *addr, socklen_t *addrlen);

// Resolves "host:port"; the first result for which a socket can be created. 0, EINVAL or -1.
int mk_sockaddr(const char *text, int socktype, int proto, sockaddr_storage *addr, socklen_t *len);
int reuse_and_bind(int fd, const sockaddr *addr, socklen_t len); // 0 or errno
// Binds and listens, or connects when `must_connect`.
int setup_listener(int fd, const sockaddr *addr, socklen_t len, int socktype, bool must_connect);

int set_nblock(int fd, bool on);
bool is_non_blocking(int fd);
int set_rcv_timeout(int fd, long ms);
int set_send_timeout(int fd, long ms);
int set_socket_sendbuf(int fd, int64_t bytes);
int set_socket_rcvbuf(int fd, int64_t bytes);
int set_keepalive(int fd, bool on);
int set_tcp_nodelay(int fd, bool on);

// "host:port", "[host]:port" or "DOMAIN path:"; `buf`, or null for another family or a resolver failure.
const char *saddr_str(const sockaddr *addr, socklen_t len, char *buf, size_t size);
// The pending error, stored in errno too (logged when non-zero); 0 when there is none.
int socket_error(int fd);

int name2af(const char *word); // a configuration word to an address family; -1 (logged)
const char *af_name(int family);
bool ends_with_port(const char *text);
bool is_decimal(const char *text);

int mcast_join(int fd, const sockaddr *group, socklen_t len, const ifc_info *ifc);
int mcast_leave(int fd, const sockaddr *group, socklen_t len, const ifc_info *ifc);
int ssm_join(int fd, const sockaddr *group, const sockaddr *source, socklen_t len, const ifc_info *ifc);
int ssm_leave(int fd, const sockaddr *group, const sockaddr *source, socklen_t len, const ifc_info *ifc);
int setup_mcast_reader(int fd, const sockaddr *group, socklen_t len, const sockaddr *source,
                       const ifc_info *ifc);
int setup_mcast_writer(int fd, const sockaddr *group, socklen_t len, const ifc_info *ifc, int ttl);
int set_mcast_ttl(int fd, int family, int ttl);
bool is_multicast(const sockaddr *addr);

int get_ifc_info(const char *name, int family, ifc_info *out); // 0 or -1
// Address records arrive behind the generic type: they are copied, never read through it.
sockaddr_in as_in(const sockaddr *addr);
sockaddr_in6 as_in6(const sockaddr *addr);
void copy_addr(sockaddr_storage *to, const sockaddr *from, socklen_t len);
bool is_anyaddr(const sockaddr *addr);
bool saddr_equal(const sockaddr *a, const sockaddr *b); // address and port
socklen_t saddr_len(int family);
