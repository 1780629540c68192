#include "lib/netops.h"

#include "lib/sigflag.h"
#include "lib/syswrap.h"
#include "tests/capture.h"

#include <cerrno>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/un.h>

namespace fs = std::filesystem;

class Netops : public ::testing::Test {
  protected:
    void SetUp() override { first_free = next_fd(); }
    void TearDown() override { EXPECT_EQ(next_fd(), first_free) << "a descriptor leaked"; }

    LogCapture log;
    TempDir dir;
    int first_free = -1;
};

static sockaddr *sa(sockaddr_storage &addr) {
    return reinterpret_cast<sockaddr *>(&addr);
}

static sockaddr_storage numeric(const char *host, const char *port) {
    sockaddr_storage out{};
    addrinfo hints{}, *list = nullptr;
    hints.ai_flags = AI_NUMERICHOST;
    EXPECT_EQ(getaddrinfo(host, port, &hints, &list), 0) << host;
    memcpy(&out, list->ai_addr, list->ai_addrlen);
    freeaddrinfo(list);
    return out;
}

static int option(int fd, int level, int name) {
    int value = -1;
    socklen_t len = sizeof(value);
    EXPECT_EQ(getsockopt(fd, level, name, &value, &len), 0);
    return value;
}

static bool is_listening(int fd) {
    return option(fd, SOL_SOCKET, SO_ACCEPTCONN) == 1;
}

static int port_of(int fd) {
    sockaddr_in in{};
    socklen_t len = sizeof(in);
    EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr *>(&in), &len), 0);
    return ntohs(in.sin_port);
}

// A port that was free a moment ago.
static std::string free_port(int socktype) {
    fd_guard probe(socket(AF_INET, socktype, 0));
    sockaddr_storage any = numeric("0.0.0.0", "0");
    EXPECT_EQ(bind(probe.fd, sa(any), sizeof(sockaddr_in)), 0);
    return std::to_string(port_of(probe.fd));
}

static std::string receive(int fd) {
    char buf[64];
    set_rcv_timeout(fd, 5000);
    ssize_t n = recv(fd, buf, sizeof(buf), 0);
    return n < 0 ? "nothing" : std::string(buf, n);
}

TEST_F(Netops, DomainListenerReplacesWhatStandsAtItsPath) {
    std::string at = dir / std::string(103 - dir.path.size() - 1, 's');
    mode_t mask = umask(0);
    for (const char *before : {"nothing", "stale socket", "regular file"}) {
        SCOPED_TRACE(before);
        if (before[0] == 'r') {
            fs::remove(at);
            write_file(at, "text");
        }
        fd_guard server(open_domain_listener(at.c_str()));
        EXPECT_TRUE(is_non_blocking(server.fd));
        EXPECT_EQ(fs::status(at).permissions(), fs::perms{0777});
        fd_guard client(open_domain_client(at.c_str(), 1, 0));
        fd_guard peer(accept(server.fd, nullptr, nullptr));
        EXPECT_TRUE(client.fd >= 0 && peer.fd >= 0);
    }
    umask(mask);
    EXPECT_EQ(open_domain_listener((dir / "missing/sock").c_str()), -1);
    EXPECT_EQ(open_domain_listener(dir.path.c_str()), -1);
    // Cut to 107 characters, the name would be another file's: that file stays.
    std::string other = dir / std::string(107 - dir.path.size() - 1, 'x');
    write_file(other, "text");
    EXPECT_EQ(open_domain_listener((other + "y").c_str()), -1);
    EXPECT_TRUE(fs::is_regular_file(other));
    EXPECT_EQ(open_domain_client((other + "y").c_str(), 1, 0), -1);
    EXPECT_TRUE(log.has("(108 bytes)"));
}

TEST_F(Netops, DomainClientCountsItsAttempts) {
    std::string none = dir / "none";
    // With debug records dropped the count must not stand still.
    for (int level : {LL_DEBUG, LL_ERROR}) {
        g_mod_ll[LOG_MOD_APP] = static_cast<signed char>(level);
        EXPECT_EQ(open_domain_client(none.c_str(), 3, 1), -1);
        EXPECT_TRUE(log.has("failed to connect to [" + none + "] after 3 attempt(s)\n"));
        log.take();
    }
    g_quit = 1;
    EXPECT_EQ(open_domain_client(none.c_str(), 3, 60000), -1);
    g_quit = 0;
}

TEST_F(Netops, ListenersOnAddressRecords) {
    sockaddr_storage lo = numeric("127.0.0.1", "0"), foreign = numeric("203.0.113.1", "0"), odd{};
    odd.ss_family = AF_UNIX;
    for (const char *port : {"", "0", "65536", "80x", "-1", "99999999999999999999"})
        EXPECT_EQ(open_listener(sa(lo), port, false), -1) << port;
    EXPECT_EQ(open_udp_listener(sa(odd), "80"), -1);
    std::string port = free_port(SOCK_STREAM);
    fd_guard bound(open_listener(sa(lo), port.c_str(), true)),
        server(open_listener(sa(lo), port.c_str(), false));
    EXPECT_FALSE(is_listening(bound.fd));
    EXPECT_TRUE(is_listening(server.fd) && is_non_blocking(server.fd));
    // Without a port the record's own counts, and 0 leaves the choice to the system.
    fd_guard udp(open_udp_listener(sa(lo), nullptr));
    EXPECT_NE(port_of(udp.fd), 0);
    EXPECT_EQ(open_udp_listener(sa(foreign), nullptr), -1);
}

TEST_F(Netops, AnyAddressListenersAndTheirClients) {
    for (int family : {AF_INET, AF_UNSPEC}) {
        SCOPED_TRACE(af_name(family));
        std::string port = free_port(SOCK_STREAM);
        fd_guard server(open_anyaddr_listener(family, port.c_str(), false));
        ASSERT_TRUE(server.fd >= 0 && is_listening(server.fd)) << log.take();
        // A client asked to connect at once may still be connecting.
        sock_spec spec{.host = "127.0.0.1", .port = port.c_str()};
        fd_guard client(open_socket(spec, nullptr, nullptr));
        pollfd ready{server.fd, POLLIN, 0};
        EXPECT_EQ(poll(&ready, 1, 5000), 1);
    }
}

TEST_F(Netops, AddressTexts) {
    std::string too_long = "localhost" + std::string(116, '.') + ":80";
    const std::pair<const char *, int> refused[] = {
        {"12345:80", EINVAL},    {"a.b:80", EINVAL},    {"::1:80", EINVAL},
        {"localhost:http", -1},  {"localhost:", -1},    {"localhost", -1},
        {"localhost:65536", -1}, {"localhost:-80", -1}, {too_long.c_str(), -1}};
    sockaddr_storage addr{};
    socklen_t len = 7;
    for (const auto &[text, rc] : refused)
        EXPECT_EQ(mk_sockaddr(text, SOCK_STREAM, 0, &addr, &len), rc) << text;
    EXPECT_EQ(len, 7u) << "untouched";
    char buf[SADDR_STR_SIZE];
    ASSERT_EQ(mk_sockaddr("1.2.3.4:65535", SOCK_STREAM, 0, &addr, &len), 0) << "the shortest host";
    EXPECT_STREQ(saddr_str(sa(addr), len, buf, sizeof(buf)), "1.2.3.4:65535");
    EXPECT_STREQ(saddr_str(sa(addr), len, buf, 8), "1.2.3.4");
    sockaddr_storage v6 = numeric("2001:db8::1", "9");
    EXPECT_STREQ(saddr_str(sa(v6), sizeof(sockaddr_in6), buf, sizeof(buf)), "[2001:db8::1]:9");
    sockaddr_un un{AF_UNIX, "/run/x"};
    auto *unix_addr = reinterpret_cast<sockaddr *>(&un);
    EXPECT_STREQ(saddr_str(unix_addr, sizeof(sa_family_t), buf, sizeof(buf)), "DOMAIN :") << "unnamed peer";
    memset(un.sun_path, 'p', sizeof(un.sun_path)); // not terminated
    EXPECT_EQ(saddr_str(unix_addr, sizeof(un), buf, sizeof(buf)), "DOMAIN " + std::string(108, 'p') + ":");
}

TEST_F(Netops, Options) {
    fd_guard tcp(socket(AF_INET, SOCK_STREAM, 0));
    timeval rcv{};
    socklen_t len = sizeof(rcv);
    EXPECT_EQ(set_rcv_timeout(tcp.fd, 2500), 0);
    getsockopt(tcp.fd, SOL_SOCKET, SO_RCVTIMEO, &rcv, &len);
    EXPECT_TRUE(rcv.tv_sec == 2 && rcv.tv_usec == 500000);
    for (bool on : {true, false}) {
        EXPECT_EQ(set_keepalive(tcp.fd, on) | set_tcp_nodelay(tcp.fd, on) | set_nblock(tcp.fd, on), 0);
        EXPECT_EQ(option(tcp.fd, SOL_SOCKET, SO_KEEPALIVE), on);
        EXPECT_EQ(option(tcp.fd, IPPROTO_TCP, TCP_NODELAY), on);
        EXPECT_EQ(is_non_blocking(tcp.fd), on);
    }
    for (const char *text : {"host:80", "a:b:8", ":0"})
        EXPECT_TRUE(ends_with_port(text)) << text;
    for (const char *text : {"host:", "80", "", "host:8x", "a:-8", "a:8:"})
        EXPECT_FALSE(ends_with_port(text)) << text;
    EXPECT_TRUE(name2af("IPv4") == AF_INET && name2af("ipv6") == AF_INET6 && name2af("inet5") == -1);
}

// Whether the kernel lets a bare socket join `group` on the loopback interface.
static bool lo_permits(const sockaddr_storage &group) {
    fd_guard probe(socket(group.ss_family, SOCK_DGRAM, 0));
    group_req req{};
    req.gr_interface = if_nametoindex("lo");
    req.gr_group = group;
    int level = group.ss_family == AF_INET ? IPPROTO_IP : IPPROTO_IPV6;
    return setsockopt(probe.fd, level, MCAST_JOIN_GROUP, &req, sizeof(req)) == 0;
}

static sock_spec mcast_spec(sock_role role, const char *group, const char *port) {
    sock_spec spec{.role = role, .socktype = SOCK_DGRAM, .host = group, .port = port};
    spec.is_multicast = true;
    spec.ifc = "lo";
    spec.non_blocking = false;
    spec.ttl = 3;
    return spec;
}

TEST_F(Netops, MulticastOnLoopback) {
    std::string port = free_port(SOCK_DGRAM);
    for (const char *source : {"", "127.0.0.1"}) { // from anybody, from one
        const char *group = *source ? "232.1.77.77" : "239.255.77.77";
        sockaddr_storage to = numeric(group, port.c_str()), friendly = numeric("127.0.0.1", "0");
        if (!lo_permits(to))
            GTEST_SKIP() << "no membership on lo";
        const socklen_t len = sizeof(sockaddr_in);
        sock_spec spec = mcast_spec(SOCK_LISTENER, group, port.c_str());
        spec.ssm_source = *source ? source : nullptr;
        fd_guard reader(open_socket(spec, nullptr, nullptr)), stranger(socket(AF_INET, SOCK_DGRAM, 0));
        fd_guard writer(open_socket(mcast_spec(SOCK_CLIENT, group, port.c_str()), nullptr, nullptr));
        EXPECT_EQ(option(writer.fd, IPPROTO_IP, IP_MULTICAST_TTL), 3);
        ifc_info lo;
        ASSERT_EQ(get_ifc_info("lo", AF_INET, &lo), 0);
        sockaddr_storage other = numeric("127.0.0.9", "0");
        ASSERT_EQ(bind(stranger.fd, sa(other), len), 0);
        ASSERT_EQ(setup_mcast_writer(stranger.fd, sa(to), len, &lo, -1), 0);
        EXPECT_EQ(sendto(stranger.fd, "stranger", 8, 0, sa(to), len), 8);
        EXPECT_EQ(sendto(writer.fd, "friend", 6, 0, sa(to), len), 6);
        EXPECT_EQ(receive(reader.fd), *source ? "friend" : "stranger");
        // Leaving works once: the membership was really held.
        for (int rc : {0, -1})
            EXPECT_EQ(*source ? ssm_leave(reader.fd, sa(to), sa(friendly), len, &lo)
                              : mcast_leave(reader.fd, sa(to), len, &lo),
                      rc);
    }
    sockaddr_storage link = numeric("ff02::7777", "4000");
    fd_guard udp(socket(AF_INET6, SOCK_DGRAM, 0));
    EXPECT_EQ(mcast_join(udp.fd, sa(link), sizeof(sockaddr_in6), nullptr), -1) << "which interface?";
}
