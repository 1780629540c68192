#include "lib/netops.h"

#include "lib/log.h"
#include "lib/sigflag.h"
#include "lib/syswrap.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <string>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace fs = std::filesystem;

// A private directory, the log in memory, and a count of the descriptors that every test must restore.
class Netops : public ::testing::Test {
  protected:
    void SetUp() override {
        char name[] = "/tmp/netops_XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        dir = name;
        saved = g_log;
        saved_level = g_mod_ll[LOG_MOD_APP];
        stream = open_memstream(&log_text, &text_size);
        g_log.time_format = TF_NO_TIME;
        log_default(&g_log, stream);
        g_mod_ll[LOG_MOD_APP] = LL_DEBUG;
        descriptors = open_descriptors();
    }
    void TearDown() override {
        EXPECT_EQ(open_descriptors(), descriptors) << "a descriptor leaked";
        g_mod_ll[LOG_MOD_APP] = saved_level;
        g_log = saved;
        fclose(stream);
        free(log_text);
        fs::remove_all(dir);
    }
    static long open_descriptors() {
        return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
    }
    // What was logged since the last call.
    std::string logged() {
        fflush(stream);
        std::string out(log_text + taken, text_size - taken);
        taken = text_size;
        return out;
    }
    void expect_log(const std::string &part) {
        std::string log = logged();
        EXPECT_NE(log.find(part), std::string::npos) << "missing: " << part << "\nin: " << log;
    }
    std::string path(const std::string &name) const { return dir + "/" + name; }

    std::string dir;
    FILE *stream = nullptr;
    char *log_text = nullptr;
    size_t text_size = 0, taken = 0;
    long descriptors = 0;
    log_ctx saved;
    signed char saved_level = 0;
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

static bool has_ipv6() {
    fd_guard probe(socket(AF_INET6, SOCK_STREAM, 0));
    sockaddr_storage lo = numeric("::1", "0");
    return bind(probe.fd, sa(lo), sizeof(sockaddr_in6)) == 0;
}

static std::string receive(int fd) {
    char buf[64];
    set_rcv_timeout(fd, 5000);
    ssize_t n = recv(fd, buf, sizeof(buf), 0);
    return n < 0 ? "nothing" : std::string(buf, n);
}

TEST_F(Netops, DomainListenerReplacesWhatStandsAtItsPath) {
    std::string at = path(std::string(103 - dir.size() - 1, 's'));
    mode_t mask = umask(0);
    for (const char *before : {"nothing", "stale socket", "regular file"}) {
        SCOPED_TRACE(before);
        if (before[0] == 'r') {
            fs::remove(at);
            std::ofstream(at) << "text";
        }
        fd_guard server(open_domain_listener(at.c_str()));
        ASSERT_GE(server.fd, 0) << logged();
        EXPECT_TRUE(is_non_blocking(server.fd));
        EXPECT_EQ(fs::status(at).permissions(), fs::perms{0777});
        fd_guard client(open_domain_client(at.c_str(), 1, 0));
        EXPECT_FALSE(is_non_blocking(client.fd));
        expect_log("open_domain_client: fd=" + std::to_string(client.fd) + " connected to [" + at + "]\n");
        fd_guard peer(accept(server.fd, nullptr, nullptr));
        EXPECT_GE(peer.fd, 0);
    }
    umask(mask);
}

TEST_F(Netops, DomainListenerFailures) {
    EXPECT_EQ(open_domain_listener(path("missing/sock").c_str()), -1);
    expect_log("open_domain_listener: failed for path=[" + path("missing/sock") + "]\n");
    EXPECT_EQ(open_domain_listener(dir.c_str()), -1);
    expect_log("open_domain_listener: unlink ERROR(21): ");
    EXPECT_EQ(open_domain_listener(""), -1);
    expect_log("open_domain_listener: failed for path=[]\n");
    // Cut to 107 characters, the name would be another file's: that file stays.
    std::string other = path(std::string(107 - dir.size() - 1, 'x'));
    std::ofstream(other) << "text";
    EXPECT_EQ(open_domain_listener((other + "y").c_str()), -1);
    EXPECT_TRUE(fs::is_regular_file(other));
}

TEST_F(Netops, DomainClientCountsItsAttempts) {
    std::string none = path("none"), record = "failed to connect to [" + none + "] after 3 attempt(s)\n";
    // With debug records dropped the count must not stand still.
    for (int level : {LL_DEBUG, LL_ERROR}) {
        g_mod_ll[LOG_MOD_APP] = static_cast<signed char>(level);
        EXPECT_EQ(open_domain_client(none.c_str(), 3, 1), -1);
        std::string log = logged();
        EXPECT_EQ(log.find("attempt 3 out of 3") != std::string::npos, level == LL_DEBUG) << log;
        EXPECT_TRUE(log.ends_with(record)) << log;
    }
    EXPECT_EQ(open_domain_client(std::string(108, 'p').c_str(), 1, 0), -1);
    expect_log("(108 bytes)");
    EXPECT_EQ(open_domain_client(std::string(107, 'p').c_str(), 1, 0), -1);
    expect_log("after 1 attempt(s)\n");
    g_quit = 1;
    EXPECT_EQ(open_domain_client(none.c_str(), 3, 60000), -1);
    g_quit = 0;
    EXPECT_EQ(logged().find("attempt"), std::string::npos);
}

TEST_F(Netops, InterruptedPauseEndsTheAttempts) {
    // The timer repeats, so that a tick before the pause does not matter.
    struct sigaction action {
    }, old_action;
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, &old_action);
    itimerval every{{0, 20000}, {0, 20000}}, off{};
    setitimer(ITIMER_REAL, &every, nullptr);
    EXPECT_EQ(open_domain_client(path("none").c_str(), 3, 60000), -1);
    setitimer(ITIMER_REAL, &off, nullptr);
    sigaction(SIGALRM, &old_action, nullptr);
    expect_log("after 1 attempt(s)\n");
}

TEST_F(Netops, ListenersOnAddressRecords) {
    sockaddr_storage lo = numeric("127.0.0.1", "0"), foreign = numeric("203.0.113.1", "0"), odd{};
    odd.ss_family = AF_UNIX;
    for (const char *port : {"", "0", "65536", "80x", "-1", "99999999999999999999"}) {
        EXPECT_EQ(open_listener(sa(lo), port, false), -1);
        expect_log(std::string("open_listener: invalid port number: ") + port + "\n");
    }
    EXPECT_EQ(open_udp_listener(sa(odd), "80"), -1);
    expect_log("open_udp_listener: invalid network family: 1\n");
    std::string port = free_port(SOCK_STREAM);
    fd_guard bound(open_listener(sa(lo), port.c_str(), true)),
        server(open_listener(sa(lo), port.c_str(), false));
    expect_log("reuse_and_bind: fd=" + std::to_string(server.fd) + " 127.0.0.1:" + port + " OK\n");
    EXPECT_FALSE(is_listening(bound.fd));
    EXPECT_TRUE(is_listening(server.fd) && is_non_blocking(server.fd));
    // Without a port the record's own counts, and 0 leaves the choice to the system.
    fd_guard udp(open_udp_listener(sa(lo), nullptr)), udp2(open_udp_listener(sa(lo), ""));
    EXPECT_NE(port_of(udp.fd), 0);
    EXPECT_NE(port_of(udp.fd), port_of(udp2.fd));
    EXPECT_EQ(reuse_and_bind(udp.fd, sa(foreign), sizeof(sockaddr_in)), EADDRNOTAVAIL);
    EXPECT_EQ(open_udp_listener(sa(foreign), nullptr), -1);
}

TEST_F(Netops, AnyAddressListenersAndTheirClients) {
    for (int family : {AF_INET, AF_INET6, AF_UNSPEC}) {
        if (family == AF_INET6 && !has_ipv6())
            continue;
        SCOPED_TRACE(af_name(family));
        std::string port = free_port(SOCK_STREAM);
        fd_guard server(open_anyaddr_listener(family, port.c_str(), false));
        ASSERT_TRUE(server.fd >= 0 && is_listening(server.fd)) << logged();
        // The IPv6 one serves IPv4 peers as well; a client asked to connect at once may still be connecting.
        sock_spec spec{.host = "127.0.0.1", .port = port.c_str()};
        fd_guard client(open_socket(spec, nullptr, nullptr));
        pollfd ready{server.fd, POLLIN, 0};
        EXPECT_EQ(poll(&ready, 1, 5000), 1);
        std::string log = logged(), number = std::to_string(client.fd);
        for (const std::string &part :
             {"open_socket: CLIENT TCP [IPv4 (2)] socket for [127.0.0.1:" + port + "], ifc=<any>\n",
              "setup_listener: CONNECT [" + number + "]\n",
              "open_socket: connection in progress for fd" + number + "\n",
              "open_socket: TCP unicast socket fd=[" + number + "]\n"})
            EXPECT_NE(log.find(part), std::string::npos) << part << log;
    }
    fd_guard bound(open_anyaddr_listener(AF_INET, free_port(SOCK_STREAM).c_str(), true));
    EXPECT_FALSE(is_listening(bound.fd));
    EXPECT_EQ(open_anyaddr_listener(AF_INET, "70000", false), -1);
    expect_log("open_socket: invalid port number: 70000\n");
}

TEST_F(Netops, ClientTriesEveryResolvedAddress) {
    sockaddr_storage lo = numeric("127.0.0.1", "0"), peer{};
    std::string port = free_port(SOCK_STREAM);
    sock_spec spec{.host = "localhost", .port = port.c_str(), .non_blocking = false};
    EXPECT_EQ(open_socket(spec, nullptr, nullptr), -1) << "nobody listens";
    fd_guard server(open_listener(sa(lo), port.c_str(), false));
    socklen_t len = 0;
    fd_guard client(open_socket(spec, &peer, &len));
    ASSERT_GE(client.fd, 0) << logged();
    EXPECT_FALSE(is_non_blocking(client.fd));
    EXPECT_EQ(len, sizeof(sockaddr_in));
    spec.host = "no such host";
    EXPECT_EQ(open_socket(spec, nullptr, nullptr), -1);
    expect_log("open_socket: cannot resolve [no such host:" + port + "]: ");
}

TEST_F(Netops, UdpServersAndClients) {
    std::string port = free_port(SOCK_DGRAM);
    sock_spec spec{.role = SOCK_SERVER, .socktype = SOCK_DGRAM, .host = "127.0.0.1", .port = port.c_str()};
    spec.non_blocking = false;
    fd_guard server(open_socket(spec, nullptr, nullptr));
    expect_log("open_socket: SERVER UDP [IPv4 (2)]");
    spec.role = SOCK_CLIENT;
    sockaddr_storage to{};
    socklen_t len = 0;
    fd_guard plain(open_socket(spec, &to, &len));
    EXPECT_EQ(sendto(plain.fd, "one", 3, 0, sa(to), len), 3);
    EXPECT_EQ(receive(server.fd), "one");
    EXPECT_EQ(send(plain.fd, "x", 1, 0), -1) << "not connected";
    spec.must_connect = true;
    fd_guard connected(open_socket(spec, nullptr, nullptr));
    EXPECT_EQ(send(connected.fd, "two", 3, 0), 3);
    EXPECT_EQ(receive(server.fd), "two");
    spec.is_multicast = true;
    EXPECT_EQ(open_socket(spec, nullptr, nullptr), -1);
    expect_log("open_socket: [127.0.0.1] is no UDP multicast group\n");
}

TEST_F(Netops, AddressTexts) {
    std::string too_long = "localhost" + std::string(116, '.') + ":80";
    const struct {
        const char *text;
        int rc;
        const char *record;
    } refused[] = {
        {"12345:80", EINVAL, "cannot accept plain number [12345] as IP address\n"},
        {"12345678:80", EINVAL, "cannot accept plain number [12345678] as IP address\n"},
        {"a.b:80", EINVAL, "cannot accept plain number [a.b] as IP address\n"},
        {"::1:80", EINVAL, "cannot accept plain number [::1] as IP address\n"},
        {"12345:http", EINVAL, "cannot accept plain number [12345] as IP address\n"},
        {"localhost:http", -1, "port must be plain decimal number [http]\n"},
        {"localhost:", -1, "port must be plain decimal number []\n"},
        {"localhost", -1, "invalid address/port: localhost\n"},
        {"localhost:65536", -1, "invalid address/port: localhost:65536\n"},
        {"localhost:-80", -1, "invalid address/port: localhost:-80\n"},
        {too_long.c_str(), -1, "invalid address/port: localhost."},
        {"1.2.3.4.5.6:80", -1, "failed for [1.2.3.4.5.6:80]\n"},
    };
    sockaddr_storage addr{};
    socklen_t len = 7;
    for (const auto &c : refused) {
        EXPECT_EQ(mk_sockaddr(c.text, SOCK_STREAM, 0, &addr, &len), c.rc) << c.text;
        expect_log(std::string("mk_sockaddr: ") + c.record);
    }
    EXPECT_EQ(len, 7u) << "untouched";
    ASSERT_EQ(mk_sockaddr("localhost:80", SOCK_DGRAM, IPPROTO_UDP, &addr, &len), 0) << logged();
    std::string log = logged();
    EXPECT_NE(log.find("mk_sockaddr: DGRAM(2) address for [localhost:80]\n"), std::string::npos);
    EXPECT_NE(log.find("), proto = 17\n"), std::string::npos) << log;
    char buf[SADDR_STR_SIZE];
    ASSERT_EQ(mk_sockaddr("1.2.3.4:65535", SOCK_STREAM, 0, &addr, &len), 0) << "the shortest host";
    EXPECT_STREQ(saddr_str(sa(addr), len, buf, sizeof(buf)), "1.2.3.4:65535");
    EXPECT_DEATH(mk_sockaddr("localhost:80", SOCK_RAW, 0, &addr, &len), "socktype");
}

TEST_F(Netops, PrintableAddresses) {
    char buf[SADDR_STR_SIZE];
    sockaddr_storage v4 = numeric("10.1.2.3", "8080"), v6 = numeric("2001:db8::1", "9");
    EXPECT_STREQ(saddr_str(sa(v4), sizeof(sockaddr_in), buf, sizeof(buf)), "10.1.2.3:8080");
    EXPECT_STREQ(saddr_str(sa(v6), sizeof(sockaddr_in6), buf, sizeof(buf)), "[2001:db8::1]:9");
    EXPECT_STREQ(saddr_str(sa(v4), sizeof(sockaddr_in), buf, 8), "10.1.2.");
    sockaddr_un un{AF_UNIX, "/run/x"};
    auto *unix_addr = reinterpret_cast<sockaddr *>(&un);
    EXPECT_STREQ(saddr_str(unix_addr, sizeof(un), buf, sizeof(buf)), "DOMAIN /run/x:");
    EXPECT_STREQ(saddr_str(unix_addr, sizeof(sa_family_t), buf, sizeof(buf)), "DOMAIN :") << "unnamed peer";
    memset(un.sun_path, 'p', sizeof(un.sun_path));
    EXPECT_EQ(saddr_str(unix_addr, sizeof(un), buf, sizeof(buf)), "DOMAIN " + std::string(108, 'p') + ":");
    v4.ss_family = AF_NETLINK;
    EXPECT_EQ(saddr_str(sa(v4), sizeof(v4), buf, sizeof(buf)), nullptr);
    expect_log("saddr_str: getnameinfo error (-6): ");
}

TEST_F(Netops, Options) {
    fd_guard tcp(socket(AF_INET, SOCK_STREAM, 0));
    std::string number = std::to_string(tcp.fd);
    timeval rcv{}, snd{};
    socklen_t len = sizeof(rcv);
    EXPECT_EQ(set_rcv_timeout(tcp.fd, 2500) + set_send_timeout(tcp.fd, 1004), 0);
    getsockopt(tcp.fd, SOL_SOCKET, SO_RCVTIMEO, &rcv, &len);
    getsockopt(tcp.fd, SOL_SOCKET, SO_SNDTIMEO, &snd, &len);
    EXPECT_TRUE(rcv.tv_sec == 2 && rcv.tv_usec == 500000 && snd.tv_sec == 1 && snd.tv_usec == 4000);
    // The kernel doubles the sizes it is given.
    EXPECT_EQ(set_socket_sendbuf(tcp.fd, 20000) + set_socket_rcvbuf(tcp.fd, 30000), 0);
    EXPECT_EQ(option(tcp.fd, SOL_SOCKET, SO_SNDBUF), 40000);
    EXPECT_EQ(option(tcp.fd, SOL_SOCKET, SO_RCVBUF), 60000);
    for (bool on : {true, false}) {
        std::string word = on ? "ON" : "OFF";
        EXPECT_EQ(set_keepalive(tcp.fd, on), 0);
        EXPECT_EQ(option(tcp.fd, SOL_SOCKET, SO_KEEPALIVE), on);
        expect_log("set_keepalive: [" + word + "] for fd" + number + "\n");
        EXPECT_EQ(set_tcp_nodelay(tcp.fd, on), 0);
        EXPECT_EQ(option(tcp.fd, IPPROTO_TCP, TCP_NODELAY), on);
        expect_log("  TCP_NODELAY turned " + word + " for [fd=" + number + "]\n");
        EXPECT_EQ(set_nblock(tcp.fd, on), 0);
        EXPECT_EQ(is_non_blocking(tcp.fd), on);
        expect_log("set_nblock: fd" + number + " set as " + (on ? "non-" : "") + "blocking\n");
    }
    EXPECT_EQ(set_nblock(-1, true), -1);
    EXPECT_FALSE(is_non_blocking(-1));
    EXPECT_EQ(set_tcp_nodelay(-1, true), -1);
    EXPECT_EQ(set_keepalive(-1, true), -1);
    expect_log("set_keepalive: setsockopt(fd-1, SOL_SOCKET, SO_KEEPALIVE, 1,..) ERROR(9): ");
}

TEST_F(Netops, PendingErrors) {
    EXPECT_EQ(socket_error(-1), EBADF);
    expect_log("socket_error(fd-1) ERROR(9): ");
    // A datagram to a port where nobody listens comes back as an error of the connected sender.
    sockaddr_storage closed = numeric("127.0.0.1", free_port(SOCK_DGRAM).c_str());
    fd_guard udp(socket(AF_INET, SOCK_DGRAM, 0));
    ASSERT_EQ(setup_listener(udp.fd, sa(closed), sizeof(sockaddr_in), SOCK_DGRAM, true), 0);
    ASSERT_EQ(send(udp.fd, "x", 1, 0), 1);
    pollfd failed{udp.fd, POLLIN, 0};
    ASSERT_EQ(poll(&failed, 1, 5000), 1);
    errno = 0;
    EXPECT_EQ(socket_error(udp.fd), ECONNREFUSED);
    EXPECT_EQ(errno, ECONNREFUSED);
    logged();
    EXPECT_EQ(socket_error(udp.fd), 0) << "read once";
    EXPECT_EQ(logged(), "");
}

TEST_F(Netops, Words) {
    for (const char *word : {"inet4", "inet", "IPv4", "AF_INET", "pf_inet"})
        EXPECT_EQ(name2af(word), AF_INET) << word;
    for (const char *word : {"INET6", "ipv6", "af_inet6", "pf_inet6"})
        EXPECT_EQ(name2af(word), AF_INET6) << word;
    for (const char *word : {"", "any", "unspec", "AnyAddr", "all"})
        EXPECT_EQ(name2af(word), AF_UNSPEC) << word;
    EXPECT_EQ(name2af("inet5"), -1);
    EXPECT_TRUE(logged().ends_with("name2af: unsupported address family [inet5] in configuration."));
    for (const char *text : {"host:80", "a:b:8", ":0"})
        EXPECT_TRUE(ends_with_port(text)) << text;
    for (const char *text : {"host:", "host", "80", "", "host:8x", "a:-8", "a:8:"})
        EXPECT_FALSE(ends_with_port(text)) << text;
    for (const char *text : {"0", "80", "-8", "+8"})
        EXPECT_TRUE(is_decimal(text)) << text;
    for (const char *text : {"", "-", "8.5", "0x8", " 8", "8 "})
        EXPECT_FALSE(is_decimal(text)) << text;
}

TEST_F(Netops, AddressComparisonsAndInterfaces) {
    const char *const texts[][2] = {{"10.0.0.1", "80"}, {"10.0.0.1", "81"}, {"10.0.0.2", "80"},
                                    {"0.0.0.0", "80"},  {"::", "80"},       {"::1", "80"},
                                    {"::1", "81"},      {"ff02::1", "80"},  {"239.255.255.255", "80"},
                                    {"240.0.0.0", "80"}};
    for (const auto &x : texts) {
        sockaddr_storage a = numeric(x[0], x[1]);
        for (const auto &y : texts) {
            sockaddr_storage b = numeric(y[0], y[1]);
            EXPECT_EQ(saddr_equal(sa(a), sa(b)), &x == &y) << x[0] << y[0];
        }
        std::string host = x[0];
        EXPECT_EQ(is_anyaddr(sa(a)), host == "0.0.0.0" || host == "::") << host;
        EXPECT_EQ(is_multicast(sa(a)), host == "ff02::1" || host == "239.255.255.255") << host;
    }
    ifc_info lo;
    ASSERT_EQ(get_ifc_info("lo", AF_INET, &lo), 0);
    sockaddr_storage home = numeric("127.0.0.1", "0");
    EXPECT_TRUE(strcmp(lo.name, "lo") == 0 && lo.index != 0 && saddr_equal(sa(lo.addr), sa(home)));
    EXPECT_EQ(get_ifc_info("no-such-interface-name", AF_INET, &lo), -1);
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
    for (const char *group : {"239.255.77.77", "ff02::7777"}) {
        SCOPED_TRACE(group);
        std::string port = free_port(SOCK_DGRAM);
        sockaddr_storage to = numeric(group, port.c_str());
        if (!lo_permits(to))
            GTEST_SKIP() << "no membership on lo";
        socklen_t len = saddr_len(to.ss_family);
        fd_guard reader(open_socket(mcast_spec(SOCK_LISTENER, group, port.c_str()), nullptr, nullptr));
        expect_log("setup_mcast_reader: fd=" + std::to_string(reader.fd) + ", ifc=[lo]:0x");
        fd_guard writer(open_socket(mcast_spec(SOCK_CLIENT, group, port.c_str()), &to, &len));
        expect_log("setup_mcast_writer: fd=" + std::to_string(writer.fd) + ", ifc=[lo]:0x");
        // The kernel carries only the IPv4 group over lo.
        if (to.ss_family == AF_INET) {
            EXPECT_EQ(option(writer.fd, IPPROTO_IP, IP_MULTICAST_TTL), 3);
            EXPECT_EQ(sendto(writer.fd, "hello", 5, 0, sa(to), len), 5);
            EXPECT_EQ(receive(reader.fd), "hello");
        } else {
            EXPECT_EQ(option(writer.fd, IPPROTO_IPV6, IPV6_MULTICAST_HOPS), 3);
            EXPECT_EQ(option(writer.fd, IPPROTO_IPV6, IPV6_MULTICAST_IF),
                      static_cast<int>(if_nametoindex("lo")));
        }
        // Leaving works once: the membership was really held.
        ifc_info lo;
        ASSERT_EQ(get_ifc_info("lo", AF_UNSPEC, &lo), 0);
        EXPECT_EQ(mcast_leave(reader.fd, sa(to), len, &lo), 0);
        EXPECT_EQ(mcast_leave(reader.fd, sa(to), len, &lo), -1);
    }
}

TEST_F(Netops, SourceSpecificMulticast) {
    std::string port = free_port(SOCK_DGRAM);
    sockaddr_storage to = numeric("232.1.77.77", port.c_str()), friendly = numeric("127.0.0.1", "0");
    if (!lo_permits(to))
        GTEST_SKIP() << "no membership on lo";
    socklen_t len = sizeof(sockaddr_in);
    sock_spec spec = mcast_spec(SOCK_LISTENER, "232.1.77.77", port.c_str());
    spec.ssm_source = "127.0.0.1";
    fd_guard reader(open_socket(spec, nullptr, nullptr)), stranger(socket(AF_INET, SOCK_DGRAM, 0));
    fd_guard writer(open_socket(mcast_spec(SOCK_CLIENT, "232.1.77.77", port.c_str()), nullptr, nullptr));
    ifc_info lo;
    ASSERT_EQ(get_ifc_info("lo", AF_INET, &lo), 0);
    sockaddr_storage other = numeric("127.0.0.9", "0");
    ASSERT_EQ(bind(stranger.fd, sa(other), len), 0);
    ASSERT_EQ(setup_mcast_writer(stranger.fd, sa(to), len, &lo, -1), 0);
    EXPECT_EQ(sendto(stranger.fd, "stranger", 8, 0, sa(to), len), 8);
    EXPECT_EQ(sendto(writer.fd, "friend", 6, 0, sa(to), len), 6);
    EXPECT_EQ(receive(reader.fd), "friend");
    EXPECT_EQ(ssm_leave(reader.fd, sa(to), sa(friendly), len, &lo), 0);
    EXPECT_EQ(ssm_leave(reader.fd, sa(to), sa(friendly), len, &lo), -1);
}

TEST_F(Netops, MulticastRefusals) {
    sockaddr_storage link = numeric("ff02::7777", "4000"), node = numeric("ff01::1", "4000"), odd{};
    odd.ss_family = AF_UNIX;
    fd_guard udp(socket(AF_INET, SOCK_DGRAM, 0));
    const std::string record = ": network interface must be specified to use link/local-scope multicast\n";
    EXPECT_EQ(mcast_join(udp.fd, sa(link), sizeof(sockaddr_in6), nullptr), -1);
    expect_log("mcast_join" + record);
    EXPECT_EQ(ssm_join(udp.fd, sa(node), sa(node), sizeof(sockaddr_in6), nullptr), -1);
    expect_log("ssm_join" + record);
    EXPECT_EQ(setup_mcast_writer(udp.fd, sa(link), sizeof(sockaddr_in6), nullptr, 1), -1);
    expect_log("setup_mcast_writer" + record);
    EXPECT_EQ(setup_mcast_reader(udp.fd, sa(odd), sizeof(sockaddr_un), nullptr, nullptr), -1);
    expect_log("setup_mcast_reader: fd=" + std::to_string(udp.fd) + ", ifc=[<any>]:(nil)\n");
    sock_spec spec = mcast_spec(SOCK_CLIENT, "239.255.77.77", "4000");
    spec.ifc = "none0";
    EXPECT_EQ(open_socket(spec, nullptr, nullptr), -1);
    expect_log("get_ifc_info: if_nametoindex(none0) ERROR(19): ");
}
